#include "token/session.h"

#include <map>
#include <mutex>
#include <vector>

#include "log/log.h"
#include "token/device_library.h"
#include "token/key_encoding.h"
#include "token/key_pair_list.h"
#include "token/token_records.h"

namespace talvik {
namespace {

struct DeviceState {
    bool passwordValidated = false;
    SecretText password;
    std::uint64_t validation = 0;  // which validation the PIN is from
    bool initialized = false;

    void forgetPassword() noexcept {
        passwordValidated = false;
        password.clear();
    }
};

struct SessionState {
    std::mutex lock;
    std::map<std::string, DeviceState> devices;
    std::map<std::string, std::string> containerAliases;
    std::uint64_t validations = 0;
};

// Never destroyed: at the end of the process a thread that was ended inside an operation below may still hold the lock.
SessionState& state() {
    static SessionState& instance = *new SessionState;
    return instance;
}

// Wipes the cached PINs when the module goes.
struct WipeAtUnload {
    ~WipeAtUnload() {
        const std::unique_lock guard(state().lock, std::try_to_lock);
        if (guard.owns_lock()) {
            for (auto& [deviceId, device] : state().devices) {
                device.password.clear();
            }
        }
    }
};
const WipeAtUnload wipeAtUnload;

// What `read` makes of the device's entry, or `missing` when there is none.
template <class Value, class Read>
Value readDevice(const std::string& deviceId, Value missing, Read read) {
    const std::lock_guard guard(state().lock);
    const auto entry = state().devices.find(deviceId);
    return entry == state().devices.end() ? missing : Value(read(entry->second));
}

// Does `change` to the device's entry if there is one.
template <class Change>
void changeDevice(const std::string& deviceId, Change change) {
    const std::lock_guard guard(state().lock);
    const auto entry = state().devices.find(deviceId);
    if (entry != state().devices.end()) {
        change(entry->second);
    }
}

// The first device with a key that `matches`, else the first device, else "".
template <class Matches>
std::string resolveDevice(bool nameIsEmpty, Matches matches) {
    const std::vector<std::string> devices = talvik_getConnectedDeviceList(false, nullptr);
    if (devices.empty()) {
        return {};
    }
    if (nameIsEmpty) {
        return devices.front();
    }
    for (const std::string& deviceId : devices) {
        const KeyPairList keys(deviceId, nullptr);
        for (const TalvikKeyPair& key : keys) {
            if (matches(key)) {
                return deviceId;
            }
        }
    }
    return devices.front();
}

}  // namespace

bool isDeviceInitialized(const std::string& deviceId) {
    return readDevice(deviceId, false, [](const DeviceState& device) { return device.initialized; });
}

void markDeviceInitialized(const std::string& deviceId) {
    const std::lock_guard guard(state().lock);
    state().devices[deviceId].initialized = true;
}

bool isPasswordValidated(const std::string& deviceId) {
    return readDevice(deviceId, false, [](const DeviceState& device) { return device.passwordValidated; });
}

SecretText getDevicePassword(const std::string& deviceId) {
    return readDevice(deviceId, SecretText(), [](const DeviceState& device) { return device.password; });
}

void setDevicePassword(const std::string& deviceId, std::string_view pin) {
    SecretText kept(pin);
    const std::lock_guard guard(state().lock);
    DeviceState& device = state().devices[deviceId];
    device.password = std::move(kept);
    device.passwordValidated = true;
    device.validation = ++state().validations;
}

void clearDevicePassword(const std::string& deviceId) {
    changeDevice(deviceId, [](DeviceState& device) { device.forgetPassword(); });
}

RememberedPin getRememberedPin(const std::string& deviceId) {
    return readDevice(deviceId, RememberedPin(), [](const DeviceState& device) {
        return RememberedPin{device.password, device.validation};
    });
}

void clearDevicePassword(const std::string& deviceId, const RememberedPin& used) {
    changeDevice(deviceId, [&](DeviceState& device) {
        if (device.validation == used.validation) {
            device.forgetPassword();
        }
    });
}

void markSignedOn(const std::string& deviceId) {
    const std::lock_guard guard(state().lock);
    state().devices[deviceId].passwordValidated = true;
}

SecretText validatedPinOrForgetSignOn(const std::string& deviceId) {
    SecretText pin;
    changeDevice(deviceId, [&](DeviceState& device) {
        if (device.passwordValidated && !device.password.empty()) {
            pin = device.password;
        } else {
            device.forgetPassword();
        }
    });
    return pin;
}

void forgetDevicesExcept(const std::set<std::string>& attached) {
    const std::lock_guard guard(state().lock);
    std::erase_if(state().devices, [&](const auto& entry) {
        const bool isGone = !attached.contains(entry.first);
        if (isGone) {
            logDebug("Device disconnected: ", entry.first);
        }
        return isGone;
    });
}

std::optional<std::string> findContainerAlias(const std::string& requestedName) {
    const std::lock_guard guard(state().lock);
    const auto entry = state().containerAliases.find(requestedName);
    return entry == state().containerAliases.end() ? std::nullopt : std::optional(entry->second);
}

void insertContainerAlias(const std::string& requestedName, const std::string& containerName) {
    const std::lock_guard guard(state().lock);
    state().containerAliases[requestedName] = containerName;
}

void initializeDevices(const std::vector<std::string>& deviceIds, std::string_view failureText, void* reserved) {
    for (const std::string& deviceId : deviceIds) {
        if (isDeviceInitialized(deviceId)) {
            continue;
        }
        talvik_init(0, nullptr, 2);
        const int status = talvik_initDevice(deviceId.c_str(), false, reserved);
        if (status == TALVIK_STATUS_OK) {
            markDeviceInitialized(deviceId);
        } else {
            logError(failureText, deviceId, " : ", status);
        }
    }
}

std::string resolveDeviceForContainer(const std::string& name) {
    return resolveDevice(name.empty(), [&](const TalvikKeyPair& key) { return hasContainerName(key, name); });
}

std::string resolveDeviceForKeyName(const std::wstring& name) {
    const std::string narrowName = narrowed(name);
    return resolveDevice(name.empty(), [&](const TalvikKeyPair& key) {
        return hasContainerName(key, narrowName) || labelOf(key) == narrowName;
    });
}

void forgetEverything() {
    const std::lock_guard guard(state().lock);
    state().devices.clear();
    state().containerAliases.clear();
}

}  // namespace talvik
