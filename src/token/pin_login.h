// When the user is asked for the token's PIN, and what happens to the answer.
//
// A token whose user is already logged in through single sign-on is never asked about: it is marked validated with an
// empty PIN and looked at again at the next operation.
#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>

#include "log/log.h"
#include "token/device_library.h"
#include "token/secret_text.h"
#include "token/session.h"

namespace talvik {

// CryptoAPI face. False when the user cancelled or the PIN is locked; the last error is then NTE_FAIL.
bool ensurePasswordValidated(const std::string& deviceId, void* reserved);

// Asks for the PIN until the token accepts it, or until another thread's question has brought one. True with the PIN in
// `pin`, or, when single sign-on serves, with `pin` untouched. Either is remembered.
bool loginUser(const std::string& deviceId, void* reserved, SecretText& pin);

// Has the token verify a PIN, and remembers one that it accepts.
struct PinVerdict {
    int status;             // the library's
    int remainingAttempts;  // what is left after a refusal; 0: the PIN is locked
};
PinVerdict validatePin(const std::string& deviceId, const char* pin, void* reserved);

// CNG face: the dialog belongs to `owner`, which may be null.
bool ensureKspPasswordValidated(const std::string& deviceId, void* reserved, HWND owner);

// The same without the dialog: false where it would have to be shown.
bool ensureKspPasswordSilently(const std::string& deviceId, void* reserved);

// Whether an operation that must not show anything can go on. Changes nothing.
bool canProceedSilently(const std::string& deviceId, void* reserved);

// Runs `operation(pin)`, which returns a library status. When the token answers that its single sign-on has expired:
// logs `expiredText`, forgets the PIN that was refused, calls `ensureAgain()` and runs the operation once more. Nothing
// when that failed.
template <class Operation, class EnsureAgain>
std::optional<int> withSignOnRetry(const std::string& deviceId, std::string_view expiredText, Operation operation,
                                   EnsureAgain ensureAgain) {
    const RememberedPin used = getRememberedPin(deviceId);
    const int status = operation(used.pin.c_str());
    if (status != TALVIK_STATUS_SIGN_ON_EXPIRED) {
        return status;
    }
    logDebug(expiredText);
    clearDevicePassword(deviceId, used);
    if (!ensureAgain()) {
        return std::nullopt;
    }
    return operation(getDevicePassword(deviceId).c_str());
}

}  // namespace talvik
