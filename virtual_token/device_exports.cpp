// The library, its devices, logging in, random numbers.
#include "boundary.h"
#include "gcrypt_objects.h"

using namespace virtual_token;

int talvik_init(int, void*, int) {
    return guarded([] { startGcrypt(); });
}

int talvik_initDevice(const char* deviceId, bool, void*) {
    return guarded([&] { deviceOf(deviceId)->attachedSnapshot(); });
}

TokenInfo talvik_getTokenInfo(const char* deviceId, void*) {
    TokenInfo info;
    guarded([&] {
        const std::shared_ptr<Token> token = deviceOf(deviceId);
        const SnapshotPointer now = token->attachedSnapshot();
        info.loginState = now->state.signOn == SignOn::Off ? 0 : 1;
        info.ssoState = token->signedOn() ? 1 : 0;
        info.firmwareVersion = now->state.firmwareVersion;
        info.tokenId = now->state.id;
    });
    return info;
}

std::vector<std::string> talvik_getConnectedDeviceList(bool, void*) {
    std::vector<std::string> devices;
    guarded([&] {
        for (const ListedToken& token : listTokens()) {
            if (token.snapshot && token.snapshot->state.attached) {
                devices.push_back(token.id);
            }
        }
    });
    return devices;
}

int talvik_validatePassword(const char* deviceId, const char* password, int, int* remainingAttempts, void*) {
    return guarded([&] {
        require(remainingAttempts != nullptr, Status::InvalidArgument);
        *remainingAttempts = 0;
        const std::shared_ptr<Token> token = deviceOf(deviceId);
        const auto tellAttempts = [&] { *remainingAttempts = token->snapshot()->state.userPin.attemptsLeft; };
        try {
            token->validatePin(textOf(password));
        } catch (const TokenError&) {
            tellAttempts();
            throw;
        }
        tellAttempts();
    });
}

int talvik_generateRamdomNumber(const char* deviceId, int length, unsigned char* buffer, bool useSoftware, void*) {
    return guarded([&] {
        require(deviceId != nullptr && length >= 0 && (buffer != nullptr || length == 0), Status::InvalidArgument);
        if (!useSoftware) {
            deviceOf(deviceId)->attachedSnapshot();  // the token's own generator needs the token
        }
        fillRandom(buffer, static_cast<std::size_t>(length));
    });
}
