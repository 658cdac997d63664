// Keys, blobs and certificates of the tests that encrypt, import, export and enumerate.
#pragma once

#include "e2e/surroundings.h"
#include "token/device_library.h"

namespace e2e {

void presentPin(const Context& context);

// Straight through the device library: CryptoAPI's key generation makes RSA-2048 alone, and its certificates belong to
// a key.
TalvikKeyPair makeKeyPair(const std::string& token, std::uint32_t keyType, std::uint32_t usage);
void storeCertificate(const std::string& token, const Bytes& der);
std::string containerOf(const TalvikKeyPair& key);

// An empty handle, with the last error, when it is refused.
Key import(const Context& context, const Bytes& blob, const Key* with = nullptr);
Bytes keyBlob(BYTE type, ALG_ID algorithm, const Bytes& payload);  // of every type but a public key's
Bytes exported(const Key& key);                                    // PUBLICKEYBLOB

// Leave a public key in public.pem and public.der: that of a PUBLICKEYBLOB, put together without the system's help, and
// that of a key on the token.
void writePublicKey(const Bytes& blob);
void writePublicKey(const TalvikKeyPair& pair);

// In place, in a buffer of `room` bytes before a canary; empty, with the last error, when it is refused.
Bytes encrypt(const Key& key, const Bytes& plaintext, std::size_t room, DWORD flags = 0);
Bytes decrypt(const Key& key, Bytes ciphertext);

}  // namespace e2e
