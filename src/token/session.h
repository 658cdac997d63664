// What this process knows of its tokens: which are initialised, which PIN was verified for each, which container names
// stand for another. Shared by every context and handle of both faces, guarded by one state lock that is never held
// during a device library call.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "token/secret_text.h"

namespace talvik {

// A device that was never seen reads as not initialised, not validated, with an empty PIN.
bool isDeviceInitialized(const std::string& deviceId);
void markDeviceInitialized(const std::string& deviceId);

bool isPasswordValidated(const std::string& deviceId);
SecretText getDevicePassword(const std::string& deviceId);
void setDevicePassword(const std::string& deviceId, std::string_view pin);
void clearDevicePassword(const std::string& deviceId);

// The PIN of a validation, which is told from every other one, of the same PIN too.
struct RememberedPin {
    SecretText pin;
    std::uint64_t validation = 0;
};
RememberedPin getRememberedPin(const std::string& deviceId);

// Forgets this PIN: one that another thread had validated since stays.
void clearDevicePassword(const std::string& deviceId, const RememberedPin& used);

// Marks a device whose token has its user logged in as validated. A PIN that is remembered stays.
void markSignedOn(const std::string& deviceId);

// The validated PIN. Where there is none, the mark of a single sign-on is taken off and the result is empty.
SecretText validatedPinOrForgetSignOn(const std::string& deviceId);

// Erases every device that is not in `attached`, its cached PIN included.
void forgetDevicesExcept(const std::set<std::string>& attached);

// Names that an application gave to a key that the token then named itself.
std::optional<std::string> findContainerAlias(const std::string& requestedName);
void insertContainerAlias(const std::string& requestedName, const std::string& containerName);

// Initialises every listed device that this process has not initialised yet. A device that fails is logged as
// `failureText` + identifier + " : " + status and left for the next time.
void initializeDevices(const std::vector<std::string>& deviceIds, std::string_view failureText, void* reserved);

// The device that holds the key named by `name`: a container name (32 upper-case hex digits) or, for the key-name form,
// also a key's label. An empty or unknown name gives the first device; no device at all gives "".
std::string resolveDeviceForContainer(const std::string& name);
std::string resolveDeviceForKeyName(const std::wstring& name);

// Back to what a freshly loaded module knows. For tests, which share one process.
void forgetEverything();

}  // namespace talvik
