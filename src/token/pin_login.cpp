#include "token/pin_login.h"

#include "token/pin_dialog.h"
#include "token/pin_turn.h"

namespace talvik {
namespace {

// The texts in which the two faces differ. The slip in the CryptoAPI face's message is what its users know.
struct LoginTexts {
    const char* validated;
    const char* timeMismatch;
    const char* cancelled;
    const char* locked;  // null: not logged
};

constexpr LoginTexts cspTexts = {"PIN already validated -- no need to ask again",
                                 "System time mismatch, Kidly login to Token Manager", "User cancelled password dialog",
                                 "loginUser: PIN locked, retryCount=0"};
constexpr LoginTexts kspTexts = {"KSP: PIN already validated", "System time mismatch, Kindly login to Token Manager",
                                 "KSP: User cancelled password dialog", nullptr};

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
        int remaining = 0;
        const int status = talvik_validatePassword(deviceId.c_str(), pin.c_str(), 1, &remaining, reserved);
        if (status == TALVIK_STATUS_OK) {
            setDevicePassword(deviceId, pin.c_str());
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

}  // namespace

bool ensurePasswordValidated(const std::string& deviceId, void* reserved) {
    if (hasValidatedPin(deviceId)) {
        logDebug(cspTexts.validated);
        return true;
    }
    logDebug("Password not validated or empty -- ask for PIN");
    SecretText pin;
    if (!loginUser(deviceId, reserved, pin)) {
        logError("Password validation failed");
        SetLastError(static_cast<DWORD>(NTE_FAIL));
        return false;
    }
    return true;
}

bool loginUser(const std::string& deviceId, void* reserved, SecretText& pin) {
    if (isLoggedIn(deviceId, reserved)) {
        markSignedOn(deviceId);
        return true;
    }
    SecretText accepted = promptUntilAccepted(deviceId, reserved, nullptr, cspTexts);
    if (accepted.empty()) {
        return false;
    }
    pin = std::move(accepted);
    return true;
}

bool ensureKspPasswordSilently(const std::string& deviceId, void* reserved) {
    if (hasValidatedPin(deviceId)) {
        logDebug(kspTexts.validated);
        return true;
    }
    logDebug("KSP: Password not validated, checking SSO");
    if (isLoggedIn(deviceId, reserved)) {
        markSignedOn(deviceId);
        return true;
    }
    return false;
}

bool ensureKspPasswordValidated(const std::string& deviceId, void* reserved, HWND owner) {
    return ensureKspPasswordSilently(deviceId, reserved) ||
           !promptUntilAccepted(deviceId, reserved, owner, kspTexts).empty();
}

bool canProceedSilently(const std::string& deviceId, void* reserved) {
    return hasValidatedPin(deviceId) || isLoggedIn(deviceId, reserved);
}

}  // namespace talvik
