// The provider's entry points, taken from the real DLL, and a context on the token that the benchmark may use.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <stdexcept>
#include <string>

#include "csp/entry_points.h"

namespace talvik::bench {

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Fails with the last error in its text.
void require(BOOL result, const char* what);
void requireStatus(int status, const char* what);

struct Provider {
    Provider();

    HMODULE module;
    decltype(&CPAcquireContext) acquireContext;
    decltype(&CPReleaseContext) releaseContext;
    decltype(&CPSetProvParam) setProvParam;
    decltype(&CPGenKey) genKey;
    decltype(&CPGetUserKey) getUserKey;
    decltype(&CPDestroyKey) destroyKey;
    decltype(&CPCreateHash) createHash;
    decltype(&CPHashData) hashData;
    decltype(&CPGetHashParam) getHashParam;
    decltype(&CPSignHash) signHash;
    decltype(&CPDestroyHash) destroyHash;
    decltype(&CPImportKey) importKey;
    decltype(&CPEncrypt) encrypt;
    decltype(&CPDecrypt) decrypt;
};

// A context on the first token with the PIN given, and an RSA-2048 signature key of that token.
struct TokenContext {
    TokenContext(const Provider& provider, const std::string& pin);
    ~TokenContext();
    TokenContext(const TokenContext&) = delete;
    TokenContext& operator=(const TokenContext&) = delete;

    const Provider& provider;
    HCRYPTPROV handle = 0;
    std::string deviceId;
    unsigned char keyId[16] = {};
};

}  // namespace talvik::bench
