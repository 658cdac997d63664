// The object behind an NCRYPT_KEY_HANDLE.
#pragma once

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include <cstdint>
#include <string>

#include "token/key.h"
#include "token/token_records.h"

namespace talvik::ksp {

// A key pair on the token, one that is still to be made there, or an imported key. Owned by the caller's handle until
// KSPFreeKey. Not locked.
struct KspKey : TokenKey {
    std::uint32_t keyIdLength = 0;  // 0 until the key exists on the token
    std::uint32_t algorithm = 0;    // TalvikKeyType; 0 for an RSA key whose size is not chosen yet
    std::uint32_t publicKeyLength = 0;
    std::uint32_t keyAliasLength = 0;
    std::uint32_t keyLength = 0;  // bits
    std::uint8_t isFinalized = 0;
    unsigned char symmetricKey[32] = {};   // an AES key held in clear; wiped when the key goes
    std::uint32_t symmetricKeyLength = 0;  // bytes; 0 for key pairs
    std::uint8_t useEcb = 0;

    ~KspKey() { SecureZeroMemory(symmetricKey, sizeof symmetricKey); }
};

inline KspKey* keyOf(NCRYPT_KEY_HANDLE handle) noexcept {
    return reinterpret_cast<KspKey*>(handle);
}

inline ByteView publicKeyOf(const KspKey& key) noexcept {
    return {key.publicKey, key.publicKeyLength};
}
inline ByteView aliasOf(const KspKey& key) noexcept {
    return {key.keyAlias, key.keyAliasLength};
}
inline ByteView symmetricKeyOf(const KspKey& key) noexcept {
    return {key.symmetricKey, key.symmetricKeyLength};
}

inline KeyLengths lengthsOf(KspKey& key) noexcept {
    return {key.keyIdLength, key.keyAliasLength, key.publicKeyLength};
}

}  // namespace talvik::ksp
