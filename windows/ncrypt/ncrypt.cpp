// Finds key storage providers by their registered names, loads them and forwards what applications ask of CNG. An
// application's handle stands for an object of this module, which knows the provider's own handle; a key keeps its
// provider open, so that an application may free the two in any order.
#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "ksp/ncrypt_provider.h"

namespace {

using Table = NCRYPT_KEY_STORAGE_FUNCTION_TABLE;

// The function table of the module registered as `name`, which stays loaded; null when there is none.
const Table* loadProvider(LPCWSTR name) {
    const std::wstring key =
        L"SYSTEM\\CurrentControlSet\\Control\\Cryptography\\Providers\\" + std::wstring(name) + L"\\UM";
    wchar_t image[MAX_PATH];
    DWORD size = sizeof image;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"Image", RRF_RT_REG_SZ, nullptr, image, &size) !=
        ERROR_SUCCESS) {
        return nullptr;
    }
    const HMODULE module = LoadLibraryW(image);
    if (module == nullptr) {
        return nullptr;
    }
    const auto getInterface = reinterpret_cast<decltype(&GetKeyStorageInterface)>(
        reinterpret_cast<void*>(GetProcAddress(module, "GetKeyStorageInterface")));
    Table* table = nullptr;
    return getInterface != nullptr && getInterface(name, &table, 0) == ERROR_SUCCESS ? table : nullptr;
}

struct OpenProvider {
    const Table& table;
    NCRYPT_PROV_HANDLE handle;

    ~OpenProvider() { table.FreeProvider(handle); }
};

struct Object {
    std::shared_ptr<OpenProvider> provider;
    NCRYPT_KEY_HANDLE key = 0;  // 0: the object stands for the provider itself

    ~Object() {
        if (key != 0) {
            table().FreeKey(providerHandle(), key);
        }
    }
    const Table& table() const { return provider->table; }
    NCRYPT_PROV_HANDLE providerHandle() const { return provider->handle; }
};
using ObjectPointer = std::shared_ptr<Object>;

// What applications hold: handles, and buffers with the providers that release them.
class Holdings {
  public:
    NCRYPT_HANDLE add(std::shared_ptr<OpenProvider> provider, NCRYPT_KEY_HANDLE key) {
        const std::lock_guard guard(lock_);
        auto object = std::make_shared<Object>(std::move(provider), key);
        const auto handle = reinterpret_cast<NCRYPT_HANDLE>(object.get());
        objects_[handle] = std::move(object);
        return handle;
    }
    ObjectPointer find(NCRYPT_HANDLE handle) {
        const std::lock_guard guard(lock_);
        const auto found = objects_.find(handle);
        return found != objects_.end() ? found->second : nullptr;
    }
    ObjectPointer remove(NCRYPT_HANDLE handle) {
        const std::lock_guard guard(lock_);
        const auto node = objects_.extract(handle);
        return node.empty() ? nullptr : node.mapped();
    }
    void addBuffer(void* buffer, const Table& table) {
        const std::lock_guard guard(lock_);
        buffers_[buffer] = &table;
    }
    const Table* removeBuffer(void* buffer) {
        const std::lock_guard guard(lock_);
        const auto node = buffers_.extract(buffer);
        return node.empty() ? nullptr : node.mapped();
    }

  private:
    std::mutex lock_;
    std::map<NCRYPT_HANDLE, ObjectPointer> objects_;
    std::map<void*, const Table*> buffers_;
};

// Never destroyed: providers are gone before this module is.
Holdings& holdings() {
    static Holdings& instance = *new Holdings;
    return instance;
}

// Calls a function of the table for the provider, or the key, behind the handle: its own handles go before the
// arguments.
template <class Function, class... Arguments>
SECURITY_STATUS callForProvider(NCRYPT_HANDLE handle, Function Table::*function, Arguments... arguments) {
    const ObjectPointer object = holdings().find(handle);
    return object != nullptr && object->key == 0 ? (object->table().*function)(object->providerHandle(), arguments...)
                                                 : NTE_INVALID_HANDLE;
}
template <class Function, class... Arguments>
SECURITY_STATUS callForKey(NCRYPT_HANDLE handle, Function Table::*function, Arguments... arguments) {
    const ObjectPointer object = holdings().find(handle);
    return object != nullptr && object->key != 0
               ? (object->table().*function)(object->providerHandle(), object->key, arguments...)
               : NTE_INVALID_HANDLE;
}

// Gives the application a handle for the key that came out.
SECURITY_STATUS handOut(NCRYPT_PROV_HANDLE provider, SECURITY_STATUS status, NCRYPT_KEY_HANDLE key,
                        NCRYPT_KEY_HANDLE* out) {
    if (status == ERROR_SUCCESS) {
        *out = holdings().add(holdings().find(provider)->provider, key);
    }
    return status;
}

// The provider's own handle of a key that a call takes besides; false for what is no key.
bool findSecondKey(NCRYPT_KEY_HANDLE handle, NCRYPT_KEY_HANDLE& key) {
    const ObjectPointer object = holdings().find(handle);
    key = object != nullptr ? object->key : 0;
    return handle == 0 || key != 0;
}

}  // namespace

extern "C" {

SECURITY_STATUS WINAPI NCryptOpenStorageProvider(NCRYPT_PROV_HANDLE* provider, LPCWSTR name, DWORD flags) {
    if (provider == nullptr || name == nullptr) {
        return NTE_INVALID_PARAMETER;
    }
    const Table* const table = loadProvider(name);
    if (table == nullptr) {
        return NTE_PROV_TYPE_NOT_DEF;
    }
    NCRYPT_PROV_HANDLE handle = 0;
    const SECURITY_STATUS status = table->OpenProvider(&handle, name, flags);
    if (status == ERROR_SUCCESS) {
        *provider = holdings().add(std::make_shared<OpenProvider>(*table, handle), 0);
    }
    return status;
}

SECURITY_STATUS WINAPI NCryptFreeObject(NCRYPT_HANDLE object) {
    return holdings().remove(object) != nullptr ? ERROR_SUCCESS : NTE_INVALID_HANDLE;
}

SECURITY_STATUS WINAPI NCryptFreeBuffer(PVOID buffer) {
    if (buffer == nullptr) {
        return ERROR_SUCCESS;
    }
    const Table* const table = holdings().removeBuffer(buffer);
    return table != nullptr ? table->FreeBuffer(buffer) : NTE_INVALID_PARAMETER;
}

SECURITY_STATUS WINAPI NCryptEnumAlgorithms(NCRYPT_PROV_HANDLE provider, DWORD operations, DWORD* count,
                                            NCryptAlgorithmName** list, DWORD flags) {
    const SECURITY_STATUS status = callForProvider(provider, &Table::EnumAlgorithms, operations, count, list, flags);
    if (status == ERROR_SUCCESS) {
        holdings().addBuffer(*list, holdings().find(provider)->table());
    }
    return status;
}

SECURITY_STATUS WINAPI NCryptEnumKeys(NCRYPT_PROV_HANDLE provider, LPCWSTR scope, NCryptKeyName** name, PVOID* state,
                                      DWORD flags) {
    const SECURITY_STATUS status = callForProvider(provider, &Table::EnumKeys, scope, name, state, flags);
    if (status == ERROR_SUCCESS) {
        holdings().addBuffer(*name, holdings().find(provider)->table());
    }
    if (status != NTE_INVALID_HANDLE && state != nullptr && *state != nullptr) {
        holdings().addBuffer(*state, holdings().find(provider)->table());
    }
    return status;
}

SECURITY_STATUS WINAPI NCryptOpenKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE* key, LPCWSTR name, DWORD keySpec,
                                     DWORD flags) {
    NCRYPT_KEY_HANDLE own = 0;
    const SECURITY_STATUS status = callForProvider(provider, &Table::OpenKey, &own, name, keySpec, flags);
    return handOut(provider, status, own, key);
}

SECURITY_STATUS WINAPI NCryptCreatePersistedKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE* key, LPCWSTR algorithm,
                                                LPCWSTR name, DWORD keySpec, DWORD flags) {
    NCRYPT_KEY_HANDLE own = 0;
    const SECURITY_STATUS status =
        callForProvider(provider, &Table::CreatePersistedKey, &own, algorithm, name, keySpec, flags);
    return handOut(provider, status, own, key);
}

SECURITY_STATUS WINAPI NCryptImportKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE importKey, LPCWSTR type,
                                       NCryptBufferDesc* parameters, NCRYPT_KEY_HANDLE* key, PBYTE data, DWORD size,
                                       DWORD flags) {
    NCRYPT_KEY_HANDLE own = 0, with = 0;
    if (!findSecondKey(importKey, with)) {
        return NTE_INVALID_HANDLE;
    }
    const SECURITY_STATUS status =
        callForProvider(provider, &Table::ImportKey, with, type, parameters, &own, data, size, flags);
    return handOut(provider, status, own, key);
}

SECURITY_STATUS WINAPI NCryptExportKey(NCRYPT_KEY_HANDLE key, NCRYPT_KEY_HANDLE exportKey, LPCWSTR type,
                                       NCryptBufferDesc* parameters, PBYTE output, DWORD room, DWORD* size,
                                       DWORD flags) {
    NCRYPT_KEY_HANDLE with = 0;
    return findSecondKey(exportKey, with)
               ? callForKey(key, &Table::ExportKey, with, type, parameters, output, room, size, flags)
               : NTE_INVALID_HANDLE;
}

SECURITY_STATUS WINAPI NCryptFinalizeKey(NCRYPT_KEY_HANDLE key, DWORD flags) {
    return callForKey(key, &Table::FinalizeKey, flags);
}

// Frees the handle as well.
SECURITY_STATUS WINAPI NCryptDeleteKey(NCRYPT_KEY_HANDLE key, DWORD flags) {
    const SECURITY_STATUS status = callForKey(key, &Table::DeleteKey, flags);
    if (status == ERROR_SUCCESS) {
        holdings().remove(key);
    }
    return status;
}

SECURITY_STATUS WINAPI NCryptGetProperty(NCRYPT_HANDLE handle, LPCWSTR name, PBYTE output, DWORD room, DWORD* size,
                                         DWORD flags) {
    const ObjectPointer object = holdings().find(handle);
    return object != nullptr && object->key != 0
               ? callForKey(handle, &Table::GetKeyProperty, name, output, room, size, flags)
               : callForProvider(handle, &Table::GetProviderProperty, name, output, room, size, flags);
}

SECURITY_STATUS WINAPI NCryptSetProperty(NCRYPT_HANDLE handle, LPCWSTR name, PBYTE input, DWORD size, DWORD flags) {
    const ObjectPointer object = holdings().find(handle);
    return object != nullptr && object->key != 0
               ? callForKey(handle, &Table::SetKeyProperty, name, input, size, flags)
               : callForProvider(handle, &Table::SetProviderProperty, name, input, size, flags);
}

SECURITY_STATUS WINAPI NCryptEncrypt(NCRYPT_KEY_HANDLE key, PBYTE input, DWORD length, VOID* padding, PBYTE output,
                                     DWORD room, DWORD* size, DWORD flags) {
    return callForKey(key, &Table::Encrypt, input, length, padding, output, room, size, flags);
}

SECURITY_STATUS WINAPI NCryptDecrypt(NCRYPT_KEY_HANDLE key, PBYTE input, DWORD length, VOID* padding, PBYTE output,
                                     DWORD room, DWORD* size, DWORD flags) {
    return callForKey(key, &Table::Decrypt, input, length, padding, output, room, size, flags);
}

SECURITY_STATUS WINAPI NCryptSignHash(NCRYPT_KEY_HANDLE key, VOID* padding, PBYTE digest, DWORD length, PBYTE signature,
                                      DWORD room, DWORD* size, DWORD flags) {
    return callForKey(key, &Table::SignHash, padding, digest, length, signature, room, size, flags);
}

SECURITY_STATUS WINAPI NCryptVerifySignature(NCRYPT_KEY_HANDLE key, VOID* padding, PBYTE digest, DWORD length,
                                             PBYTE signature, DWORD size, DWORD flags) {
    return callForKey(key, &Table::VerifySignature, padding, digest, length, signature, size, flags);
}

}  // extern "C"
