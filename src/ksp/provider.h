// The object behind an NCRYPT_PROV_HANDLE.
#pragma once

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include <cstdint>
#include <memory>
#include <string>

#include "ksp/outcome.h"
#include "token/pin_login.h"

namespace talvik::ksp {

// The token that a call works on, and what it needs of the provider beside.
struct BoundToken {
    std::string deviceId;            // "" while no token is attached; follows the last key that was opened by name
    std::string firmwareVersion;     // of the token at the time of opening
    void* libraryContext = nullptr;  // last argument of device library calls; always null
    HWND window = nullptr;           // owner of the PIN dialog
};

// Owned by the caller's handle until KSPFreeProvider. CNG calls it from any thread: a call takes the token as it is
// when the call begins and keeps to it, whatever other threads bind the provider to meanwhile.
class KspProvider {
  public:
    // Once, before anyone has the handle.
    void open(BoundToken token) {
        token_ = std::make_shared<const BoundToken>(std::move(token));
        isOpen_ = 1;
    }
    bool isOpen() const noexcept { return isOpen_ != 0; }

    // Never changes once it is handed out: another token, or another window, is another object.
    std::shared_ptr<const BoundToken> token() const;

    std::shared_ptr<const BoundToken> bindTo(const std::string& deviceId);
    void setWindow(HWND window);

  private:
    std::shared_ptr<const BoundToken> token_;
    std::uint8_t isOpen_ = 0;
};

// The provider behind a handle; null when the handle is null or its provider not open.
inline KspProvider* providerOf(NCRYPT_PROV_HANDLE handle) noexcept {
    auto* const provider = reinterpret_cast<KspProvider*>(handle);
    return provider != nullptr && provider->isOpen() ? provider : nullptr;
}

// Runs the body of an entry point that needs an open provider.
template <class Body>
SECURITY_STATUS providerEntryPoint(const char* name, NCRYPT_PROV_HANDLE handle, Body body) noexcept {
    return entryPoint(name, [&]() -> SECURITY_STATUS {
        KspProvider* const provider = providerOf(handle);
        if (provider == nullptr) {
            return fail(NTE_INVALID_HANDLE, name, ": provider handle is null or not initialized");
        }
        return body(*provider);
    });
}

// The same for a body that works on the provider's token.
template <class Body>
SECURITY_STATUS tokenEntryPoint(const char* name, NCRYPT_PROV_HANDLE handle, Body body) noexcept {
    return providerEntryPoint(name, handle, [&](const KspProvider& provider) { return body(*provider.token()); });
}

// Makes sure of the token's PIN for the entry point `name`, with a dialog unless `dwFlags` asks for silence. Success,
// or the refusal, whose text ends with `occasion`.
SECURITY_STATUS requirePin(const char* name, const BoundToken& token, DWORD dwFlags, const char* occasion = "");

// Runs `operation(pin)`, a device library call under the PIN that requirePin has made sure of, and once more when its
// single sign-on turns out to have expired. Success with the library's status in `status`, or the refusal.
template <class Operation>
SECURITY_STATUS runUnderPin(const char* name, const BoundToken& token, DWORD dwFlags, const char* expiredText,
                            Operation operation, int& status) {
    SECURITY_STATUS refusal = ERROR_SUCCESS;
    const auto ensureAgain = [&] {
        refusal = requirePin(name, token, dwFlags, " after SSO expiry");
        return refusal == ERROR_SUCCESS;
    };
    status = withSignOnRetry(token.deviceId, expiredText, operation, ensureAgain).value_or(TALVIK_STATUS_OK);
    return refusal;
}

// "SmartCardPin" of a provider or a key: has the token verify the PIN, a NUL-terminated text of 8-bit characters, and
// remembers it for the device. `name` is the entry point.
SECURITY_STATUS setPin(const char* name, const BoundToken& token, const BYTE* pin);

}  // namespace talvik::ksp
