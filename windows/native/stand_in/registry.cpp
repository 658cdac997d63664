// A registry in memory, which is empty at the start. A handle keeps its key, deleted or not, as the system's do.
#include <windows.h>

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <strings.h>

#include "stand_in/ticks.h"

namespace {

// Names are the same in either case.
struct NameOrder {
    using is_transparent = void;
    bool operator()(const char* left, const char* right) const { return strcasecmp(left, right) < 0; }
    bool operator()(const std::string& left, const std::string& right) const {
        return (*this)(left.c_str(), right.c_str());
    }
    bool operator()(const std::string& left, const char* right) const { return (*this)(left.c_str(), right); }
    bool operator()(const char* left, const std::string& right) const { return (*this)(left, right.c_str()); }
};

struct Value {
    DWORD type = REG_NONE;
    std::string data;
};

struct Key {
    std::map<std::string, Value, NameOrder> values;
    bool isDeleted = false;
};

using KeyPointer = std::shared_ptr<Key>;

struct Registry {
    std::mutex lock;
    std::map<std::string, KeyPointer, NameOrder> keys;  // by path, without the root
};

// Never destroyed: the device monitor's thread asks it until the process has ended.
Registry& registry() {
    static Registry& instance = *new Registry;
    return instance;
}

KeyPointer* keyOf(HKEY handle) {
    return reinterpret_cast<KeyPointer*>(handle);
}

KeyPointer find(const char* path) {
    const auto found = registry().keys.find(path);
    return found == registry().keys.end() ? nullptr : found->second;
}

}  // namespace

LSTATUS WINAPI RegOpenKeyExA(HKEY, LPCSTR path, DWORD, REGSAM, HKEY* opened) {
    const std::lock_guard guard(registry().lock);
    const KeyPointer key = find(path);
    if (key == nullptr) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return ERROR_FILE_NOT_FOUND;
    }
    *opened = reinterpret_cast<HKEY>(new KeyPointer(key));
    return ERROR_SUCCESS;
}

LSTATUS WINAPI RegCloseKey(HKEY handle) {
    const std::lock_guard guard(registry().lock);
    delete keyOf(handle);
    return ERROR_SUCCESS;
}

LSTATUS WINAPI RegGetValueA(HKEY handle, LPCSTR, LPCSTR name, DWORD, LPDWORD, PVOID data, LPDWORD size) {
    const std::lock_guard guard(registry().lock);
    const Key& key = **keyOf(handle);
    if (key.isDeleted) {
        return ERROR_KEY_DELETED;
    }
    const auto found = key.values.find(name);
    if (found == key.values.end()) {
        return ERROR_FILE_NOT_FOUND;
    }
    const std::string& content = found->second.data;
    const DWORD room = *size;
    *size = static_cast<DWORD>(content.size());
    if (room < content.size()) {
        return ERROR_MORE_DATA;
    }
    std::memcpy(data, content.data(), content.size());
    return ERROR_SUCCESS;
}

LSTATUS WINAPI RegSetKeyValueA(HKEY, LPCSTR path, LPCSTR name, DWORD type, LPCVOID data, DWORD size) {
    const std::lock_guard guard(registry().lock);
    KeyPointer& key = registry().keys[path];
    if (key == nullptr) {
        key = std::make_shared<Key>();
    }
    key->values[name] = {type, std::string(static_cast<const char*>(data), size)};
    letTheClockTick();
    return ERROR_SUCCESS;
}

LSTATUS WINAPI RegDeleteKeyValueA(HKEY, LPCSTR path, LPCSTR name) {
    letTheClockTick();
    const std::lock_guard guard(registry().lock);
    const KeyPointer key = find(path);
    return key != nullptr &&
                   std::erase_if(key->values,
                                 [&](const auto& value) { return strcasecmp(value.first.c_str(), name) == 0; }) != 0
               ? ERROR_SUCCESS
               : ERROR_FILE_NOT_FOUND;
}

LSTATUS WINAPI RegDeleteKeyA(HKEY, LPCSTR path) {
    letTheClockTick();
    const std::lock_guard guard(registry().lock);
    const KeyPointer key = find(path);
    if (key == nullptr) {
        return ERROR_FILE_NOT_FOUND;
    }
    key->isDeleted = true;
    registry().keys.erase(registry().keys.find(path));
    return ERROR_SUCCESS;
}
