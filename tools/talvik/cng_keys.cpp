#include "cng_keys.h"

#include <windows.h>

#include <ncrypt.h>

#include "doctor_system.h"
#include "system_folder.h"

namespace talvik_tool {
namespace {

template <class Function>
Function* functionOf(HMODULE module, const char* name) {
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

}  // namespace

bool cngOpens(const std::wstring& container) {
    const HMODULE module = loadSystemModule(L"ncrypt.dll");
    if (module == nullptr) {
        return false;
    }
    const auto openProvider = functionOf<decltype(NCryptOpenStorageProvider)>(module, "NCryptOpenStorageProvider");
    const auto openKey = functionOf<decltype(NCryptOpenKey)>(module, "NCryptOpenKey");
    const auto release = functionOf<decltype(NCryptFreeObject)>(module, "NCryptFreeObject");
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE key = 0;
    if (openProvider == nullptr || openKey == nullptr || release == nullptr ||
        openProvider(&provider, providerName, 0) != ERROR_SUCCESS) {
        return false;
    }
    const bool opened = openKey(provider, &key, container.c_str(), 0, NCRYPT_SILENT_FLAG) == ERROR_SUCCESS && key != 0;
    if (opened) {
        release(key);
    }
    release(provider);
    return opened;
}

}  // namespace talvik_tool
