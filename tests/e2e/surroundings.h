// CryptoAPI as the end-to-end tests use it: owned handles, and what its operations deliver.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <cstdint>
#include <utility>

#include "support/dialog_robot.h"
#include "support/tokens.h"

namespace e2e {

using namespace talvik_test;
using Seen = std::vector<std::string>;

inline constexpr char providerName[] = "Talvik Cryptographic Provider CSP";

template <class Handle, auto release>
class Owned {
  public:
    Owned() = default;
    Owned(Owned&& other) noexcept : handle_(std::exchange(other.handle_, Handle{})) {}
    Owned& operator=(Owned&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~Owned() { reset(); }
    operator Handle() const { return handle_; }
    Handle* put() { return &handle_; }
    void reset() {
        if (handle_) {
            EXPECT_TRUE(release(std::exchange(handle_, Handle{})));
        }
    }

  private:
    Handle handle_{};
};

inline BOOL releaseContext(HCRYPTPROV context) {
    return CryptReleaseContext(context, 0);
}
using Context = Owned<HCRYPTPROV, releaseContext>;
using Key = Owned<HCRYPTKEY, CryptDestroyKey>;
using Hash = Owned<HCRYPTHASH, CryptDestroyHash>;

inline BOOL closeStore(HCERTSTORE store) {
    return CertCloseStore(store, 0);
}
using Store = Owned<HCERTSTORE, closeStore>;
using Certificate = Owned<PCCERT_CONTEXT, CertFreeCertificateContext>;

// A store of the user's, which is written when it is closed.
inline Store systemStore(const char* name) {
    Store store;
    *store.put() = CertOpenSystemStoreA(0, name);
    return store;
}

// What `call(buffer, &size)` delivers, after it was asked for the size; empty when it is refused.
template <class Call>
Bytes delivered(Call call, DWORD leastRoom = 0) {
    DWORD size = 0;
    if (!call(static_cast<BYTE*>(nullptr), &size)) {
        return {};
    }
    Bytes value(std::max(size, leastRoom));
    size = static_cast<DWORD>(value.size());
    value.resize(call(value.data(), &size) ? size : 0);
    return value;
}

// Each answers an empty handle and leaves the last error when the call fails.
Context acquire(const std::string& container = {}, DWORD flags = 0);
Key generate(const Context& context, ALG_ID algorithm = CALG_RSA_SIGN, DWORD bits = 0);
Key userKey(const Context& context, DWORD keySpec = AT_SIGNATURE);
Key import(const Context& context, const Bytes& blob, HCRYPTKEY with = 0);
Hash digest(const Context& context, ALG_ID algorithm, const Bytes& data);

// A blob of every type but a public key's.
Bytes keyBlob(BYTE type, ALG_ID algorithm, const Bytes& payload);

// The last error of a call that failed.
inline std::int64_t errorOf(BOOL succeeded) {
    return succeeded ? 0 : static_cast<std::int32_t>(GetLastError());
}

BOOL givePin(const Context& context, const char* text = pin, DWORD parameter = PP_SIGNATURE_PIN);

// The signature in CryptoAPI's order, and the digest; empty, with the last error, when they are refused.
Bytes sign(const Hash& hash, DWORD keySpec = AT_SIGNATURE);
Bytes valueOf(const Hash& hash);
bool verifies(const Hash& hash, const Bytes& signature, const Key& key);

// In place, in a buffer of `room` bytes before a canary; empty, with the last error, when it is refused.
Bytes encrypt(const Key& key, const Bytes& plaintext, std::size_t room, DWORD flags = 0);
Bytes decrypt(const Key& key, Bytes ciphertext);

// DER SubjectPublicKeyInfo.
Bytes publicKey(const Context& context, DWORD keySpec = AT_SIGNATURE);
std::string containerOf(const Context& context);
DWORD keyParameter(const Key& key, DWORD parameter);

// Whether openssl accepts `signature`, in CryptoAPI's order, over `data`; `option` is "-sha256" and the like.
bool opensslAccepts(const Bytes& publicKey, const std::string& option, const Bytes& data, const Bytes& signature);

}  // namespace e2e
