// The key storage face of the installed provider, taken from its module as the system takes it.
#pragma once

#include <string>
#include <utility>

#include "ksp/ncrypt_provider.h"

namespace soak {

inline const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& cng() {
    static const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& table = []() -> NCRYPT_KEY_STORAGE_FUNCTION_TABLE& {
        NCRYPT_KEY_STORAGE_FUNCTION_TABLE* given = nullptr;
        const auto get = reinterpret_cast<decltype(&GetKeyStorageInterface)>(
            reinterpret_cast<void*>(GetProcAddress(LoadLibraryA("TalvikCSP.dll"), "GetKeyStorageInterface")));
        get(nullptr, &given, 0);
        return *given;
    }();
    return table;
}

// A provider object and a key of it; freed together.
class CngKey {
  public:
    explicit CngKey(const std::string& name) : status_(cng().OpenProvider(&provider_, nullptr, 0)) {
        if (status_ == ERROR_SUCCESS && !name.empty()) {
            status_ = cng().OpenKey(provider_, &key_, std::wstring(name.begin(), name.end()).c_str(), 0, 0);
        }
    }
    ~CngKey() {
        if (key_ != 0) {
            cng().FreeKey(provider_, key_);
        }
        if (provider_ != 0) {
            cng().FreeProvider(provider_);
        }
    }
    CngKey(const CngKey&) = delete;
    CngKey& operator=(const CngKey&) = delete;

    SECURITY_STATUS status() const { return status_; }
    NCRYPT_PROV_HANDLE provider() const { return provider_; }
    NCRYPT_KEY_HANDLE key() const { return key_; }
    NCRYPT_KEY_HANDLE* put() { return &key_; }

  private:
    NCRYPT_PROV_HANDLE provider_ = 0;
    NCRYPT_KEY_HANDLE key_ = 0;
    SECURITY_STATUS status_;
};

}  // namespace soak
