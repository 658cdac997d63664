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
Bytes publicKeyBlob(const Bytes& modulus);                         // most significant byte first, as it is on the token
Bytes exported(const Key& key);                                    // PUBLICKEYBLOB

// Leaves the public key of a PUBLICKEYBLOB in `name` as PEM, put together without the system's or openssl's help.
void writePem(const Bytes& blob, const std::string& name);

// In place, in a buffer of `room` bytes before a canary; empty, with the last error, when it is refused.
Bytes encrypt(const Key& key, const Bytes& plaintext, std::size_t room, DWORD flags = 0);
Bytes decrypt(const Key& key, Bytes ciphertext);

// Runs openssl and expects it to succeed.
void run(const std::string& arguments);

Bytes reversed(const Bytes& value);
std::string hex(const Bytes& value);

}  // namespace e2e
