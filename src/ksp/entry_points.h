// The 26 functions of the key storage interface, in the order of its table. The system reaches them through the table
// alone; none is exported by name. Handles are addresses of objects of this module and belong to the caller until the
// matching KSPFree*. Buffers that a function allocates are released with KSPFreeBuffer.
#pragma once

#include "ksp/ncrypt_provider.h"

extern "C" {

// Opens on the first attached token, or on none. The name is not examined.
SECURITY_STATUS WINAPI KSPOpenProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName, DWORD dwFlags);

// By the 32 upper-case hex digits of a key's identifier; binds the provider to the token that holds the key. Calls that
// have begun go on with the token that they began with.
SECURITY_STATUS WINAPI KSPOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName,
                                  DWORD dwLegacyKeySpec, DWORD dwFlags);

// "RSA", "ECDSA_P256", "ECDSA_P384" or "ECDSA_P521". Nothing happens on the token before KSPFinalizeKey; the token
// names the key itself.
SECURITY_STATUS WINAPI KSPCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszAlgId,
                                             LPCWSTR pszKeyName, DWORD dwLegacyKeySpec, DWORD dwFlags);

// Properties. Texts are UTF-16 with their NUL; *pcbResult receives the size in bytes whether the buffer is null, short
// or large enough.
SECURITY_STATUS WINAPI KSPGetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbOutput,
                                              DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPGetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                         PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPSetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbInput,
                                              DWORD cbInput, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPSetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                         PBYTE pbInput, DWORD cbInput, DWORD dwFlags);

// Makes the key pair on the token; once, and harmless afterwards. Of dwFlags NCRYPT_SILENT_FLAG counts, here and for
// deletion: no PIN is asked for.
SECURITY_STATUS WINAPI KSPFinalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags);

// Deletes the key pair from the token; the handle stays until KSPFreeKey.
SECURITY_STATUS WINAPI KSPDeleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags);

SECURITY_STATUS WINAPI KSPFreeProvider(NCRYPT_PROV_HANDLE hProvider);
SECURITY_STATUS WINAPI KSPFreeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey);
SECURITY_STATUS WINAPI KSPFreeBuffer(PVOID pvInput);

// RSA with the key pair, or AES with the key that the handle carries. RSA ciphertexts come most significant byte first.
// Padding is chosen by dwFlags alone; the chaining mode and the initialisation vector are key properties.
SECURITY_STATUS WINAPI KSPEncrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                                  VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPDecrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                                  VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);

SECURITY_STATUS WINAPI KSPIsAlgSupported(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszAlgId, DWORD dwFlags);

// The list is one block, names included. dwAlgOperations 0 lists every algorithm.
SECURITY_STATUS WINAPI KSPEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations, DWORD* pdwAlgCount,
                                         NCryptAlgorithmName** ppAlgList, DWORD dwFlags);

// One key a call, as the token listed them at the first; then NTE_NO_MORE_ITEMS. Each name is one block, and so is the
// state.
SECURITY_STATUS WINAPI KSPEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszScope, NCryptKeyName** ppKeyName,
                                   PVOID* ppEnumState, DWORD dwFlags);

// RSA public keys stay in the handle. AES keys go to the token, except those that come encrypted to the key pair
// hImportKey, which the handle carries.
SECURITY_STATUS WINAPI KSPImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey, LPCWSTR pszBlobType,
                                    NCryptBufferDesc* pParameterList, NCRYPT_KEY_HANDLE* phKey, PBYTE pbData,
                                    DWORD cbData, DWORD dwFlags);

// RSA public keys, as RSAPUBLICBLOB, PUBLICBLOB or CAPIPUBLICBLOB, always with the exponent 65537.
SECURITY_STATUS WINAPI KSPExportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, NCRYPT_KEY_HANDLE hExportKey,
                                    LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList, PBYTE pbOutput,
                                    DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);

// Signatures come most significant byte first, ECDSA ones as r and s side by side. The padding is chosen by dwFlags
// alone, PKCS #1 v1.5 unless BCRYPT_PAD_PSS is set; PSS needs firmware 2.0.0 or later.
SECURITY_STATUS WINAPI KSPSignHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo,
                                   PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                   DWORD* pcbResult, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPVerifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo,
                                          PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                          DWORD dwFlags);

// Asks for the PIN unless the token needs none now.
SECURITY_STATUS WINAPI KSPPromptUser(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszOperation,
                                     DWORD dwFlags);

// Not offered.
SECURITY_STATUS WINAPI KSPNotifyChangeKey(NCRYPT_PROV_HANDLE hProvider, HANDLE* phEvent, DWORD dwFlags);
SECURITY_STATUS WINAPI KSPSecretAgreement(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hPrivKey,
                                          NCRYPT_KEY_HANDLE hPubKey, NCRYPT_SECRET_HANDLE* phAgreedSecret,
                                          DWORD dwFlags);
SECURITY_STATUS WINAPI KSPDeriveKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                                    NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey, DWORD cbDerivedKey,
                                    DWORD* pcbResult, ULONG dwFlags);

// Nothing to free: no secret is ever made.
SECURITY_STATUS WINAPI KSPFreeSecret(NCRYPT_PROV_HANDLE hProvider, NCRYPT_SECRET_HANDLE hSharedSecret);

}  // extern "C"
