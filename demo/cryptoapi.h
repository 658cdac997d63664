// What every step of the demonstration needs of CryptoAPI: owned handles, and failures that say what was attempted.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace demo {

using Bytes = std::vector<std::uint8_t>;

inline constexpr char providerName[] = "Talvik Cryptographic Provider CSP";

// An attempt that failed, with the last error at that moment.
class Failure : public std::runtime_error {
  public:
    Failure(const std::string& attempt, DWORD error);
};

// Throws a Failure for `attempt` when a Win32 call returned FALSE.
void require(BOOL succeeded, const char* attempt);

// The owner of one CryptoAPI handle.
template <typename Handle, auto release>
class Owned {
  public:
    Owned() = default;
    explicit Owned(Handle handle) : handle_(handle) {}
    Owned(Owned&& other) noexcept : handle_(std::exchange(other.handle_, Handle{})) {}
    Owned& operator=(Owned&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~Owned() {
        if (handle_) {
            release(handle_);
        }
    }
    Handle get() const { return handle_; }
    Handle* put() { return &handle_; }

  private:
    Handle handle_{};
};

inline void releaseContext(HCRYPTPROV context) {
    CryptReleaseContext(context, 0);
}

using Context = Owned<HCRYPTPROV, releaseContext>;
using Key = Owned<HCRYPTKEY, CryptDestroyKey>;
using Certificate = Owned<PCCERT_CONTEXT, CertFreeCertificateContext>;
using Message = Owned<HCRYPTMSG, CryptMsgClose>;

// A context of the provider on the attached token's first key for AT_SIGNATURE or AT_KEYEXCHANGE; bound to no key when
// there is none yet.
Context acquireContext(DWORD keySpec);

// Logs in to the token without a dialog. Throws when the token refuses the PIN.
void presentPin(const Context& context, const char* pin);

// DER of `structure` as CRYPT32's encoder named by `type` writes it.
Bytes encode(LPCSTR type, const void* structure);

// What a finished message holds: its content when it was decoded, its encoding when it was encoded.
Bytes content(const Message& message);

Certificate parseCertificate(const Bytes& der);

Bytes readFile(const std::wstring& path);
void writeFile(const std::wstring& path, const Bytes& content);

}  // namespace demo
