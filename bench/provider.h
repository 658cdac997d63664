// The provider's two faces, taken from the real DLL, and a token with a key that the benchmark may use.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "csp/entry_points.h"
#include "ksp/ncrypt_provider.h"
#include "token/device_library.h"
#include "token/key_encoding.h"

namespace talvik::bench {

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Fails with the last error in its text.
[[noreturn]] void fail(const char* what);
inline void require(BOOL result, const char* what) {
    if (result == FALSE) {
        fail(what);
    }
}
// For the device library's statuses and CNG's.
void requireStatus(long status, const char* what);

struct Provider {
    Provider();

    HMODULE module;
    double loadMicroseconds;  // of the module alone: the device library was there before
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* ksp = nullptr;
    decltype(&CPAcquireContext) acquireContext;
    decltype(&CPReleaseContext) releaseContext;
    decltype(&CPGetProvParam) getProvParam;
    decltype(&CPSetProvParam) setProvParam;
    decltype(&CPGetUserKey) getUserKey;
    decltype(&CPSetKeyParam) setKeyParam;
    decltype(&CPDestroyKey) destroyKey;
    decltype(&CPImportKey) importKey;
    decltype(&CPCreateHash) createHash;
    decltype(&CPHashData) hashData;
    decltype(&CPGetHashParam) getHashParam;
    decltype(&CPSignHash) signHash;
    decltype(&CPVerifySignature) verifySignature;
    decltype(&CPDestroyHash) destroyHash;
    decltype(&CPEncrypt) encrypt;
    decltype(&CPDecrypt) decrypt;
    decltype(&CPGenRandom) genRandom;
};

// A context on the container of `name`, or on none when it is null.
class Context {
  public:
    Context(const Provider& provider, const char* name);
    ~Context();
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    operator HCRYPTPROV() const noexcept { return handle_; }

  private:
    const Provider& provider_;
    HCRYPTPROV handle_ = 0;
};

// The first token, its PIN given to both faces, and an RSA-2048 key on it that signs and decrypts.
struct BenchToken {
    BenchToken(const Provider& provider, const std::string& pin);
    ~BenchToken();
    BenchToken(const BenchToken&) = delete;
    BenchToken& operator=(const BenchToken&) = delete;

    const Provider& provider;
    std::string pin;
    std::string deviceId;
    TalvikKeyPair key;
    std::string containerName;
    Bytes publicKey;  // DER
    Context context;
    NCRYPT_PROV_HANDLE kspProvider = 0;
    NCRYPT_KEY_HANDLE kspKey = 0;
};

std::wstring widened(const std::string& text);

}  // namespace talvik::bench
