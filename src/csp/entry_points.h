// The CryptoAPI service provider interface: the 24 functions that the system looks up in the module by name. Handles
// are addresses of records of this module. Each returns TRUE, or FALSE with the thread's last error set; a successful
// call leaves the last error as it was unless its comment says otherwise.
#pragma once

#include <windows.h>

#include <wincrypt.h>

// The system's callbacks for a provider. Nothing in them is used; headers of current Windows versions leave them out.
using VTableProvStruc = struct _VTableProvStruc;

extern "C" {

// Context. No user interface is shown by acquisition: the PIN is asked for by the operation that needs the private key.
// CRYPT_DELETEKEYSET succeeds with a null handle and deletes nothing; a verify-only context needs no token.
BOOL WINAPI CPAcquireContext(HCRYPTPROV* phProv, LPCSTR pszContainer, DWORD dwFlags, VTableProvStruc* pVTable);
BOOL WINAPI CPReleaseContext(HCRYPTPROV hProv, DWORD dwFlags);

// Hash objects: CALG_SHA1, CALG_SHA_256, CALG_SHA_384, CALG_SHA_512, computed on the token.
BOOL WINAPI CPCreateHash(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTKEY hKey, DWORD dwFlags, HCRYPTHASH* phHash);
BOOL WINAPI CPHashData(HCRYPTPROV hProv, HCRYPTHASH hHash, const BYTE* pbData, DWORD cbData, DWORD dwFlags);
BOOL WINAPI CPGetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, BYTE* pbData, DWORD* pcbDataLen,
                           DWORD dwFlags);
BOOL WINAPI CPSetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, const BYTE* pbData, DWORD dwFlags);
// The copy starts with an empty device hash: of what the source hashed so far only a finished digest travels along.
BOOL WINAPI CPDuplicateHash(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD* pdwReserved, DWORD dwFlags, HCRYPTHASH* phHash);
BOOL WINAPI CPDestroyHash(HCRYPTPROV hProv, HCRYPTHASH hHash);
BOOL WINAPI CPHashSessionKey(HCRYPTPROV hProv, HCRYPTHASH hHash, HCRYPTKEY hKey, DWORD dwFlags);

// Keys. The upper 16 bits of CPGenKey's dwFlags are the key size in bits. Destroying a handle deletes nothing.
BOOL WINAPI CPGenKey(HCRYPTPROV hProv, ALG_ID Algid, DWORD dwFlags, HCRYPTKEY* phKey);
BOOL WINAPI CPGetUserKey(HCRYPTPROV hProv, DWORD dwKeySpec, HCRYPTKEY* phUserKey);
BOOL WINAPI CPGetKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, BYTE* pbData, DWORD* pcbDataLen,
                          DWORD dwFlags);
BOOL WINAPI CPSetKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, const BYTE* pbData, DWORD dwFlags);
BOOL WINAPI CPDestroyKey(HCRYPTPROV hProv, HCRYPTKEY hKey);
BOOL WINAPI CPDeriveKey(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTHASH hBaseData, DWORD dwFlags, HCRYPTKEY* phKey);
// An export's size query leaves ERROR_MORE_DATA, a finished export ERROR_SUCCESS as the last error.
BOOL WINAPI CPExportKey(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTKEY hPubKey, DWORD dwBlobType, DWORD dwFlags,
                        BYTE* pbData, DWORD* pdwDataLen);
BOOL WINAPI CPImportKey(HCRYPTPROV hProv, const BYTE* pbData, DWORD dwDataLen, HCRYPTKEY hPubKey, DWORD dwFlags,
                        HCRYPTKEY* phKey);

// Signatures and RSA ciphertexts are least significant byte first, digests and AES data in their natural order.
// dwKeySpec is ignored: the context's container decides which key signs.
BOOL WINAPI CPSignHash(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwKeySpec, LPCWSTR szDescription, DWORD dwFlags,
                       BYTE* pbSignature, DWORD* pdwSigLen);
BOOL WINAPI CPVerifySignature(HCRYPTPROV hProv, HCRYPTHASH hHash, const BYTE* pbSignature, DWORD cbSigLen,
                              HCRYPTKEY hPubKey, LPCWSTR szDescription, DWORD dwFlags);
BOOL WINAPI CPEncrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH hHash, BOOL Final, DWORD dwFlags, BYTE* pbData,
                      DWORD* pdwDataLen, DWORD dwBufLen);
BOOL WINAPI CPDecrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH hHash, BOOL Final, DWORD dwFlags, BYTE* pbData,
                      DWORD* pdwDataLen);

// Provider parameters and random. Some size answers succeed with ERROR_MORE_DATA left as the last error.
BOOL WINAPI CPGetProvParam(HCRYPTPROV hProv, DWORD dwParam, BYTE* pbData, DWORD* pcbDataLen, DWORD dwFlags);
BOOL WINAPI CPSetProvParam(HCRYPTPROV hProv, DWORD dwParam, const BYTE* pbData, DWORD dwFlags);
BOOL WINAPI CPGenRandom(HCRYPTPROV hProv, DWORD dwLen, BYTE* pbBuffer);
}
