// The key storage provider interface of CNG, version 1.0, as Microsoft documents it: what the system takes from a
// provider module. The Windows headers declare only the side that applications call.
#pragma once

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

struct NCRYPT_KEY_STORAGE_FUNCTION_TABLE {
    BCRYPT_INTERFACE_VERSION Version;
    SECURITY_STATUS(WINAPI* OpenProvider)(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* OpenKey)
    (NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName, DWORD dwLegacyKeySpec, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* CreatePersistedKey)
    (NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszAlgId, LPCWSTR pszKeyName,
     DWORD dwLegacyKeySpec, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* GetProviderProperty)
    (NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
     DWORD dwFlags);
    SECURITY_STATUS(WINAPI* GetKeyProperty)
    (NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty, PBYTE pbOutput, DWORD cbOutput,
     DWORD* pcbResult, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* SetProviderProperty)
    (NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbInput, DWORD cbInput, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* SetKeyProperty)
    (NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty, PBYTE pbInput, DWORD cbInput,
     DWORD dwFlags);
    SECURITY_STATUS(WINAPI* FinalizeKey)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* DeleteKey)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* FreeProvider)(NCRYPT_PROV_HANDLE hProvider);
    SECURITY_STATUS(WINAPI* FreeKey)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey);
    SECURITY_STATUS(WINAPI* FreeBuffer)(PVOID pvInput);
    SECURITY_STATUS(WINAPI* Encrypt)
    (NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput, VOID* pPaddingInfo,
     PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* Decrypt)
    (NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput, VOID* pPaddingInfo,
     PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* IsAlgSupported)(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszAlgId, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* EnumAlgorithms)
    (NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations, DWORD* pdwAlgCount, NCryptAlgorithmName** ppAlgList,
     DWORD dwFlags);
    SECURITY_STATUS(WINAPI* EnumKeys)
    (NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszScope, NCryptKeyName** ppKeyName, PVOID* ppEnumState, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* ImportKey)
    (NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey, LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList,
     NCRYPT_KEY_HANDLE* phKey, PBYTE pbData, DWORD cbData, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* ExportKey)
    (NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, NCRYPT_KEY_HANDLE hExportKey, LPCWSTR pszBlobType,
     NCryptBufferDesc* pParameterList, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* SignHash)
    (NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo, PBYTE pbHashValue, DWORD cbHashValue,
     PBYTE pbSignature, DWORD cbSignature, DWORD* pcbResult, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* VerifySignature)
    (NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo, PBYTE pbHashValue, DWORD cbHashValue,
     PBYTE pbSignature, DWORD cbSignature, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* PromptUser)
    (NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszOperation, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* NotifyChangeKey)(NCRYPT_PROV_HANDLE hProvider, HANDLE* phEvent, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* SecretAgreement)
    (NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hPrivKey, NCRYPT_KEY_HANDLE hPubKey,
     NCRYPT_SECRET_HANDLE* phAgreedSecret, DWORD dwFlags);
    SECURITY_STATUS(WINAPI* DeriveKey)
    (NCRYPT_PROV_HANDLE hProvider, NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
     NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey, DWORD cbDerivedKey, DWORD* pcbResult, ULONG dwFlags);
    SECURITY_STATUS(WINAPI* FreeSecret)(NCRYPT_PROV_HANDLE hProvider, NCRYPT_SECRET_HANDLE hSharedSecret);
};
static_assert(sizeof(NCRYPT_KEY_STORAGE_FUNCTION_TABLE) == 8 + 26 * sizeof(void*));

extern "C" {

// What a provider module exports: the address of its function table, which lives as long as the module.
NTSTATUS WINAPI GetKeyStorageInterface(LPCWSTR pszProviderName, NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppFunctionTable,
                                       DWORD dwFlags);

}  // extern "C"
