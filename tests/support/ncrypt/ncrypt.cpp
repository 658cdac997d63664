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

// Runs `call` with the provider, or the key, behind the handle.
template <class Call>
SECURITY_STATUS withProvider(NCRYPT_HANDLE handle, Call call) {
    const ObjectPointer object = holdings().find(handle);
    return object != nullptr && object->key == 0 ? call(*object) : NTE_INVALID_HANDLE;
}
template <class Call>
SECURITY_STATUS withKey(NCRYPT_HANDLE handle, Call call) {
    const ObjectPointer object = holdings().find(handle);
    return object != nullptr && object->key != 0 ? call(*object) : NTE_INVALID_HANDLE;
}

// Runs `make(table, provider handle, &key)` and gives the application a handle for the key.
template <class Make>
SECURITY_STATUS makeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, Make make) {
    return withProvider(hProvider, [&](const Object& object) -> SECURITY_STATUS {
        NCRYPT_KEY_HANDLE key = 0;
        const SECURITY_STATUS status = make(object.table(), object.providerHandle(), phKey != nullptr ? &key : nullptr);
        if (status == ERROR_SUCCESS) {
            *phKey = holdings().add(object.provider, key);
        }
        return status;
    });
}

}  // namespace

extern "C" {

SECURITY_STATUS WINAPI NCryptOpenStorageProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName,
                                                 DWORD dwFlags) {
    if (phProvider == nullptr || pszProviderName == nullptr) {
        return NTE_INVALID_PARAMETER;
    }
    const Table* const table = loadProvider(pszProviderName);
    if (table == nullptr) {
        return NTE_PROV_TYPE_NOT_DEF;
    }
    NCRYPT_PROV_HANDLE handle = 0;
    const SECURITY_STATUS status = table->OpenProvider(&handle, pszProviderName, dwFlags);
    if (status == ERROR_SUCCESS) {
        *phProvider = holdings().add(std::make_shared<OpenProvider>(*table, handle), 0);
    }
    return status;
}

SECURITY_STATUS WINAPI NCryptFreeObject(NCRYPT_HANDLE hObject) {
    return holdings().remove(hObject) != nullptr ? ERROR_SUCCESS : NTE_INVALID_HANDLE;
}

BOOL WINAPI NCryptIsKeyHandle(NCRYPT_KEY_HANDLE hKey) {
    const ObjectPointer object = holdings().find(hKey);
    return object != nullptr && object->key != 0;
}

SECURITY_STATUS WINAPI NCryptFreeBuffer(PVOID pvInput) {
    if (pvInput == nullptr) {
        return ERROR_SUCCESS;
    }
    const Table* const table = holdings().removeBuffer(pvInput);
    return table != nullptr ? table->FreeBuffer(pvInput) : NTE_INVALID_PARAMETER;
}

SECURITY_STATUS WINAPI NCryptIsAlgSupported(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszAlgId, DWORD dwFlags) {
    return withProvider(hProvider, [=](const Object& object) {
        return object.table().IsAlgSupported(object.providerHandle(), pszAlgId, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations, DWORD* pdwAlgCount,
                                            NCryptAlgorithmName** ppAlgList, DWORD dwFlags) {
    return withProvider(hProvider, [=](const Object& object) {
        const SECURITY_STATUS status =
            object.table().EnumAlgorithms(object.providerHandle(), dwAlgOperations, pdwAlgCount, ppAlgList, dwFlags);
        if (status == ERROR_SUCCESS) {
            holdings().addBuffer(*ppAlgList, object.table());
        }
        return status;
    });
}

SECURITY_STATUS WINAPI NCryptEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszScope, NCryptKeyName** ppKeyName,
                                      PVOID* ppEnumState, DWORD dwFlags) {
    return withProvider(hProvider, [=](const Object& object) {
        const SECURITY_STATUS status =
            object.table().EnumKeys(object.providerHandle(), pszScope, ppKeyName, ppEnumState, dwFlags);
        if (status == ERROR_SUCCESS) {
            holdings().addBuffer(*ppKeyName, object.table());
        }
        if (ppEnumState != nullptr && *ppEnumState != nullptr) {
            holdings().addBuffer(*ppEnumState, object.table());
        }
        return status;
    });
}

SECURITY_STATUS WINAPI NCryptOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName,
                                     DWORD dwLegacyKeySpec, DWORD dwFlags) {
    return makeKey(hProvider, phKey, [=](const Table& table, NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE* key) {
        return table.OpenKey(provider, key, pszKeyName, dwLegacyKeySpec, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                                LPCWSTR pszAlgId, LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                                DWORD dwFlags) {
    return makeKey(hProvider, phKey, [=](const Table& table, NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE* key) {
        return table.CreatePersistedKey(provider, key, pszAlgId, pszKeyName, dwLegacyKeySpec, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey, LPCWSTR pszBlobType,
                                       NCryptBufferDesc* pParameterList, NCRYPT_KEY_HANDLE* phKey, PBYTE pbData,
                                       DWORD cbData, DWORD dwFlags) {
    const ObjectPointer importKey = holdings().find(hImportKey);
    if (hImportKey != 0 && (importKey == nullptr || importKey->key == 0)) {
        return NTE_INVALID_HANDLE;
    }
    return makeKey(hProvider, phKey, [&](const Table& table, NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE* key) {
        return table.ImportKey(provider, importKey != nullptr ? importKey->key : 0, pszBlobType, pParameterList, key,
                               pbData, cbData, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptFinalizeKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags) {
    return withKey(hKey, [=](const Object& object) {
        return object.table().FinalizeKey(object.providerHandle(), object.key, dwFlags);
    });
}

// Frees the handle as well.
SECURITY_STATUS WINAPI NCryptDeleteKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags) {
    const SECURITY_STATUS status = withKey(hKey, [=](const Object& object) {
        return object.table().DeleteKey(object.providerHandle(), object.key, dwFlags);
    });
    if (status == ERROR_SUCCESS) {
        holdings().remove(hKey);
    }
    return status;
}

SECURITY_STATUS WINAPI NCryptGetProperty(NCRYPT_HANDLE hObject, LPCWSTR pszProperty, PBYTE pbOutput, DWORD cbOutput,
                                         DWORD* pcbResult, DWORD dwFlags) {
    const ObjectPointer object = holdings().find(hObject);
    if (object == nullptr) {
        return NTE_INVALID_HANDLE;
    }
    if (object->key == 0) {
        return object->table().GetProviderProperty(object->providerHandle(), pszProperty, pbOutput, cbOutput, pcbResult,
                                                   dwFlags);
    }
    const SECURITY_STATUS status = object->table().GetKeyProperty(object->providerHandle(), object->key, pszProperty,
                                                                  pbOutput, cbOutput, pcbResult, dwFlags);
    if (status == ERROR_SUCCESS && pbOutput != nullptr &&
        std::wstring(pszProperty) == NCRYPT_PROVIDER_HANDLE_PROPERTY) {
        *reinterpret_cast<NCRYPT_PROV_HANDLE*>(pbOutput) = holdings().add(object->provider, 0);
    }
    return status;
}

SECURITY_STATUS WINAPI NCryptSetProperty(NCRYPT_HANDLE hObject, LPCWSTR pszProperty, PBYTE pbInput, DWORD cbInput,
                                         DWORD dwFlags) {
    const ObjectPointer object = holdings().find(hObject);
    if (object == nullptr) {
        return NTE_INVALID_HANDLE;
    }
    return object->key == 0
               ? object->table().SetProviderProperty(object->providerHandle(), pszProperty, pbInput, cbInput, dwFlags)
               : object->table().SetKeyProperty(object->providerHandle(), object->key, pszProperty, pbInput, cbInput,
                                                dwFlags);
}

SECURITY_STATUS WINAPI NCryptEncrypt(NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput, VOID* pPaddingInfo,
                                     PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    return withKey(hKey, [=](const Object& object) {
        return object.table().Encrypt(object.providerHandle(), object.key, pbInput, cbInput, pPaddingInfo, pbOutput,
                                      cbOutput, pcbResult, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptDecrypt(NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput, VOID* pPaddingInfo,
                                     PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    return withKey(hKey, [=](const Object& object) {
        return object.table().Decrypt(object.providerHandle(), object.key, pbInput, cbInput, pPaddingInfo, pbOutput,
                                      cbOutput, pcbResult, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptSignHash(NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo, PBYTE pbHashValue, DWORD cbHashValue,
                                      PBYTE pbSignature, DWORD cbSignature, DWORD* pcbResult, DWORD dwFlags) {
    return withKey(hKey, [=](const Object& object) {
        return object.table().SignHash(object.providerHandle(), object.key, pPaddingInfo, pbHashValue, cbHashValue,
                                       pbSignature, cbSignature, pcbResult, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptVerifySignature(NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo, PBYTE pbHashValue,
                                             DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature, DWORD dwFlags) {
    return withKey(hKey, [=](const Object& object) {
        return object.table().VerifySignature(object.providerHandle(), object.key, pPaddingInfo, pbHashValue,
                                              cbHashValue, pbSignature, cbSignature, dwFlags);
    });
}

SECURITY_STATUS WINAPI NCryptExportKey(NCRYPT_KEY_HANDLE hKey, NCRYPT_KEY_HANDLE hExportKey, LPCWSTR pszBlobType,
                                       NCryptBufferDesc* pParameterList, PBYTE pbOutput, DWORD cbOutput,
                                       DWORD* pcbResult, DWORD dwFlags) {
    const ObjectPointer exportKey = holdings().find(hExportKey);
    if (hExportKey != 0 && (exportKey == nullptr || exportKey->key == 0)) {
        return NTE_INVALID_HANDLE;
    }
    return withKey(hKey, [&](const Object& object) {
        return object.table().ExportKey(object.providerHandle(), object.key, exportKey != nullptr ? exportKey->key : 0,
                                        pszBlobType, pParameterList, pbOutput, cbOutput, pcbResult, dwFlags);
    });
}

}  // extern "C"
