// The record behind an HCRYPTKEY.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstdint>

#include "token/key.h"

namespace talvik::csp {

// Names a key pair on the token, or carries an imported key. Owned by the caller until CPDestroyKey.
struct KEY_HANDLE : TokenKey {
    std::uint32_t keyIdLen = 0;  // 16 once the handle names a key
    std::uint32_t algId = 0;     // what KP_ALGID reports
    std::uint32_t keyAliasLen = 0;
    std::uint32_t keyBits = 0;
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

inline KeyLengths lengthsOf(KEY_HANDLE& key) noexcept {
    return {key.keyIdLen, key.keyAliasLen, key.publicKeyLen};
}

}  // namespace talvik::csp
