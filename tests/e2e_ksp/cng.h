// CNG as the tests use it: owned handles, and keys, blobs and signatures in the forms that openssl takes.
#pragma once

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include "e2e/surroundings.h"

namespace e2e {

inline BOOL freeObject(NCRYPT_HANDLE handle) {
    return NCryptFreeObject(handle) == ERROR_SUCCESS;
}
using CngObject = Owned<NCRYPT_HANDLE, freeObject>;

// What the last call answered that may be refused; each of them gives an empty result then.
extern thread_local SECURITY_STATUS status;

CngObject openProvider();
CngObject createKey(const CngObject& provider, const wchar_t* algorithm, DWORD bits = 0, DWORD keySpec = 0);
CngObject openKey(const CngObject& provider, const std::string& name);
CngObject importKey(const CngObject& provider, const wchar_t* type, Bytes blob, const CngObject& with = {});
SECURITY_STATUS givePin(const CngObject& object, std::string value = pin);

Bytes property(const CngObject& object, const wchar_t* name);
std::string nameOf(const CngObject& object, const wchar_t* name = NCRYPT_NAME_PROPERTY);  // or another text
Bytes exported(const CngObject& key, const wchar_t* type);
std::vector<std::string> enumerateKeys(const CngObject& provider);  // "NAME ALGORITHM KEYSPEC"

Bytes publicKeyOf(const CngObject& key);  // DER SubjectPublicKeyInfo; public.der holds it too
Bytes blobOfNewKey();                     // of an RSA key of 2048 bits, which openssl makes in other.pem
Bytes keyData(const Bytes& value);

Bytes digestOf(const Bytes& data, const std::string& algorithm);
Bytes sign(const CngObject& key, Bytes digest, DWORD flags);
bool verifies(const CngObject& key, Bytes digest, Bytes signature, DWORD flags);
Bytes encrypt(const CngObject& key, Bytes plaintext, DWORD flags);
Bytes decrypt(const CngObject& key, Bytes ciphertext, DWORD flags = 0);

// An ECDSA signature is r and s side by side.
bool opensslVerifies(const Bytes& publicKey, const std::string& algorithm, const Bytes& digest, const Bytes& signature,
                     const std::string& options = {});

}  // namespace e2e
