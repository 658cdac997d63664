// CNG as the tests use it: owned handles, and keys, blobs and signatures in the forms that openssl takes.
#pragma once

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include "e2e/surroundings.h"
#include "support/dialog_robot.h"

namespace e2e {

using Seen = std::vector<std::string>;

inline BOOL freeObject(NCRYPT_HANDLE handle) {
    return NCryptFreeObject(handle) == ERROR_SUCCESS;
}
using CngObject = Owned<NCRYPT_HANDLE, freeObject>;

CngObject openProvider();
CngObject createKey(const CngObject& provider, const wchar_t* algorithm, DWORD bits = 0, DWORD keySpec = 0);
CngObject openKey(const CngObject& provider, const std::wstring& name);
CngObject importKey(const CngObject& provider, const wchar_t* type, Bytes blob, const CngObject& with = {});
void setPin(const CngObject& object);

Bytes property(const CngObject& object, const wchar_t* name);
std::wstring text(const Bytes& utf16);
Bytes exported(const CngObject& key, const wchar_t* type);

// DER SubjectPublicKeyInfo, and the blob of an RSA key in a PEM file of openssl's.
Bytes publicKeyOf(const CngObject& key);
Bytes blobOfPemKey(const std::string& file);
Bytes keyData(const Bytes& value);

Bytes digestOf(const Bytes& data, const std::string& algorithm);

// The results; empty, with the status in `status`, when the call is refused.
extern SECURITY_STATUS status;
Bytes sign(const CngObject& key, Bytes digest, DWORD flags);
Bytes encrypt(const CngObject& key, Bytes plaintext, DWORD flags);
Bytes decrypt(const CngObject& key, Bytes ciphertext, DWORD flags = 0);

// An ECDSA signature is r and s side by side.
bool opensslVerifies(const Bytes& publicKey, const std::string& algorithm, const Bytes& digest, const Bytes& signature,
                     const std::string& options = {});

}  // namespace e2e
