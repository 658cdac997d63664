#include "token/pin_login.h"

#include "token/pin_dialog.h"
#include "token/pin_turn.h"

namespace talvik {
namespace {

// The texts in which the two faces differ. The slip in the CryptoAPI face's message is what its users know.
struct LoginTexts {
    const char* validated;
    const char* notValidated;
    const char* timeMismatch;
    const char* cancelled;
    const char* locked;  // null: not logged
};

constexpr LoginTexts cspTexts = {.validated = "PIN already validated -- no need to ask again",
                                 .notValidated = "Password not validated or empty -- ask for PIN",
                                 .timeMismatch = "System time mismatch, Kidly login to Token Manager",
                                 .cancelled = "User cancelled password dialog",
                                 .locked = "loginUser: PIN locked, retryCount=0"};
constexpr LoginTexts kspTexts = {.validated = "KSP: PIN already validated",
                                 .notValidated = "KSP: Password not validated, checking SSO",
                                 .timeMismatch = "System time mismatch, Kindly login to Token Manager",
                                 .cancelled = "KSP: User cancelled password dialog",
                                 .locked = nullptr};

bool isLoggedIn(const std::string& deviceId, void* reserved) {
    const TokenInfo info = talvik_getTokenInfo(deviceId.c_str(), reserved);
    return !info.tokenId.empty() && info.loginState == 1 && info.ssoState == 1;
}

bool hasValidatedPin(const std::string& deviceId) {
    return isPasswordValidated(deviceId) && !getDevicePassword(deviceId).empty();
}

SecretText askForPin(HWND owner, const LoginTexts& texts) {
    PinAnswer answer;
    showPinDialog(owner, answer);
    SecretText pin = getEnteredPin(answer);
    if (pin.empty()) {
        logDebug(texts.cancelled);
    }
    return pin;
}

void tellRefusal(int status, int remaining, const LoginTexts& texts) {
    if (status == TALVIK_STATUS_TIME_MISMATCH) {
        showTokenMessage(texts.timeMismatch);
    } else if (remaining != 0) {
        showTokenMessage(("Invalid user pin. Remaining attempts(" + std::to_string(remaining) + ")").c_str());
    } else {
        showTokenMessage("User pin locked, re-initialise device");
    }
}

// Asks until the token accepts a PIN, which is remembered and returned; empty when the user gave up or no attempt is
// left. Whatever validated a PIN since the caller looked, another thread's question for one, saves the question.
SecretText promptUntilAccepted(const std::string& deviceId, void* reserved, HWND owner, const LoginTexts& texts) {
    const PinTurn turn(deviceId);
    if (SecretText pin = validatedPinOrForgetSignOn(deviceId); !pin.empty()) {
        logDebug(texts.validated);
        return pin;
    }
    for (;;) {
        SecretText pin = askForPin(owner, texts);
        if (pin.empty()) {
            return pin;
        }
        const auto [status, remaining] = validatePin(deviceId, pin.c_str(), reserved);
        if (status == TALVIK_STATUS_OK) {
            return pin;
        }
        tellRefusal(status, remaining, texts);
        if (remaining == 0) {
            if (texts.locked != nullptr) {
                logError(texts.locked);
            }
            return {};
        }
    }
}

// Single sign-on serves where the token has its user logged in.
bool takeSignOn(const std::string& deviceId, void* reserved) {
    const bool serves = isLoggedIn(deviceId, reserved);
    if (serves) {
        markSignedOn(deviceId);
    }
    return serves;
}

bool ensureSilently(const std::string& deviceId, void* reserved, const LoginTexts& texts) {
    if (hasValidatedPin(deviceId)) {
        logDebug(texts.validated);
        return true;
    }
    logDebug(texts.notValidated);
    return takeSignOn(deviceId, reserved);
}

bool ensureValidated(const std::string& deviceId, void* reserved, HWND owner, const LoginTexts& texts) {
    return ensureSilently(deviceId, reserved, texts) || !promptUntilAccepted(deviceId, reserved, owner, texts).empty();
}

}  // namespace

bool ensurePasswordValidated(const std::string& deviceId, void* reserved) {
    if (!ensureValidated(deviceId, reserved, nullptr, cspTexts)) {
        logError("Password validation failed");
        SetLastError(static_cast<DWORD>(NTE_FAIL));
        return false;
    }
    return true;
}

bool loginUser(const std::string& deviceId, void* reserved, SecretText& pin) {
    if (takeSignOn(deviceId, reserved)) {
        return true;
    }
    SecretText accepted = promptUntilAccepted(deviceId, reserved, nullptr, cspTexts);
    if (accepted.empty()) {
        return false;
    }
    pin = std::move(accepted);
    return true;
}

PinVerdict validatePin(const std::string& deviceId, const char* pin, void* reserved) {
    PinVerdict verdict = {};
    verdict.status = talvik_validatePassword(deviceId.c_str(), pin, 1, &verdict.remainingAttempts, reserved);
    if (verdict.status == TALVIK_STATUS_OK) {
        setDevicePassword(deviceId, pin);
    }
    return verdict;
}

bool ensureKspPasswordSilently(const std::string& deviceId, void* reserved) {
    return ensureSilently(deviceId, reserved, kspTexts);
}

bool ensureKspPasswordValidated(const std::string& deviceId, void* reserved, HWND owner) {
    return ensureValidated(deviceId, reserved, owner, kspTexts);
}

bool canProceedSilently(const std::string& deviceId, void* reserved) {
    return hasValidatedPin(deviceId) || isLoggedIn(deviceId, reserved);
}

}  // namespace talvik
