#include "token/pin_login.h"

#include "token/pin_dialog.h"

namespace talvik {
namespace {

// The texts in which the two faces differ. The slip in the CryptoAPI face's message is what its users know.
struct LoginTexts {
    const char* timeMismatch;
    const char* cancelled;
    const char* locked;  // null: not logged
};

constexpr LoginTexts cspTexts = {"System time mismatch, Kidly login to Token Manager", "User cancelled password dialog",
                                 "loginUser: PIN locked, retryCount=0"};
constexpr LoginTexts kspTexts = {"System time mismatch, Kindly login to Token Manager",
                                 "KSP: User cancelled password dialog", nullptr};

bool isLoggedIn(const std::string& deviceId, void* reserved) {
    const TokenInfo info = talvik_getTokenInfo(deviceId.c_str(), reserved);
    return !info.tokenId.empty() && info.loginState == 1 && info.ssoState == 1;
}

bool hasValidatedPin(const std::string& deviceId) {
    return isPasswordValidated(deviceId) && !getDevicePassword(deviceId).empty();
}

SecretText askForPin(HWND owner, const LoginTexts& texts) {
    showPinDialog(owner);
    SecretText pin = getEnteredPin();
    forgetEnteredPin();
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

// Asks until the token accepts a PIN, which is returned; empty when the user gave up or no attempt is left.
SecretText promptUntilAccepted(const std::string& deviceId, void* reserved, HWND owner, const LoginTexts& texts) {
    clearDevicePassword(deviceId);
    for (;;) {
        SecretText pin = askForPin(owner, texts);
        if (pin.empty()) {
            return pin;
        }
        int remaining = 0;
        const int status = talvik_validatePassword(deviceId.c_str(), pin.c_str(), 1, &remaining, reserved);
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

}  // namespace

bool ensurePasswordValidated(const std::string& deviceId, void* reserved) {
    if (hasValidatedPin(deviceId)) {
        logDebug("PIN already validated -- no need to ask again");
        return true;
    }
    logDebug("Password not validated or empty -- ask for PIN");
    SecretText pin;
    if (!loginUser(deviceId, reserved, pin)) {
        logError("Password validation failed");
        SetLastError(static_cast<DWORD>(NTE_FAIL));
        return false;
    }
    setDevicePassword(deviceId, pin.c_str());
    return true;
}

bool loginUser(const std::string& deviceId, void* reserved, SecretText& pin) {
    if (isLoggedIn(deviceId, reserved)) {
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
        logDebug("KSP: PIN already validated");
        return true;
    }
    logDebug("KSP: Password not validated, checking SSO");
    if (isLoggedIn(deviceId, reserved)) {
        setDevicePassword(deviceId, "");
        return true;
    }
    return false;
}

bool ensureKspPasswordValidated(const std::string& deviceId, void* reserved, HWND owner) {
    if (ensureKspPasswordSilently(deviceId, reserved)) {
        return true;
    }
    const SecretText pin = promptUntilAccepted(deviceId, reserved, owner, kspTexts);
    if (pin.empty()) {
        return false;
    }
    setDevicePassword(deviceId, pin.c_str());
    return true;
}

bool canProceedSilently(const std::string& deviceId, void* reserved) {
    return hasValidatedPin(deviceId) || isLoggedIn(deviceId, reserved);
}

}  // namespace talvik
