// The record behind an HCRYPTKEY.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstdint>
#include <string_view>

#include "token/device_library.h"
#include "token/key_encoding.h"

namespace talvik::csp {

// Names a key pair on the token, or carries an imported key. Owned by the caller until CPDestroyKey. Room for the DER
// form of a 4096-bit public key, which an import puts there; for a token key the field holds the bare modulus.
struct KEY_HANDLE {
    unsigned char keyId[16] = {};
    std::uint32_t keyIdLen = 0;  // 16 once the handle names a key
    std::uint32_t algId = 0;     // what KP_ALGID reports
    std::uint32_t keyUsage = 0;  // as in TalvikKeyPair
    unsigned char keyAlias[128] = {};
    std::uint32_t keyAliasLen = 0;
    char label[129] = {};
    std::uint32_t keyBits = 0;
    std::uint8_t storageFlag = 0;
    unsigned char publicKey[1024] = {};
    std::uint32_t publicKeyLen = 0;
    unsigned char aesKey[32] = {};  // a session key held in clear; wiped when the handle goes
    std::int32_t aesKeyLen = 0;     // 0: a token key

    ~KEY_HANDLE() { SecureZeroMemory(aesKey, sizeof aesKey); }
};

// How much longer than its input an honest result of the library can be.
inline constexpr std::size_t resultMargin = 1024;

inline KEY_HANDLE* keyOf(HCRYPTKEY handle) noexcept {
    return reinterpret_cast<KEY_HANDLE*>(handle);
}

inline ByteView publicKeyOf(const KEY_HANDLE& key) noexcept {
    return {key.publicKey, key.publicKeyLen};
}
inline ByteView aliasOf(const KEY_HANDLE& key) noexcept {
    return {key.keyAlias, key.keyAliasLen};
}

// Identifier, alias, label, usage and public key of the record; what else the handle says stays.
void describeTokenKey(KEY_HANDLE& key, const TalvikKeyPair& record);

}  // namespace talvik::csp
