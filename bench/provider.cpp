#include "provider.h"

#include <cstring>
#include <vector>

#include "token/device_library.h"

namespace talvik::bench {
namespace {

template <class Function>
void find(HMODULE module, Function& function, const char* name) {
    function = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    require(function != nullptr, name);
}

bool isSignatureKey(const TalvikKeyPair& key) {
    return key.usage == TALVIK_USAGE_SIGN && key.keyType == TALVIK_KEY_RSA_2048;
}

}  // namespace

void require(BOOL result, const char* what) {
    if (result == FALSE) {
        throw Failure(std::string(what) + " failed, last error " + std::to_string(GetLastError()));
    }
}

void requireStatus(int status, const char* what) {
    if (status != TALVIK_STATUS_OK) {
        throw Failure(std::string(what) + " failed, status " + std::to_string(status));
    }
}

Provider::Provider() : module(LoadLibraryA("TalvikCSP.dll")) {
    require(module != nullptr, "LoadLibrary TalvikCSP.dll");
    find(module, acquireContext, "CPAcquireContext");
    find(module, releaseContext, "CPReleaseContext");
    find(module, setProvParam, "CPSetProvParam");
    find(module, genKey, "CPGenKey");
    find(module, getUserKey, "CPGetUserKey");
    find(module, destroyKey, "CPDestroyKey");
    find(module, createHash, "CPCreateHash");
    find(module, hashData, "CPHashData");
    find(module, getHashParam, "CPGetHashParam");
    find(module, signHash, "CPSignHash");
    find(module, destroyHash, "CPDestroyHash");
    find(module, importKey, "CPImportKey");
    find(module, encrypt, "CPEncrypt");
    find(module, decrypt, "CPDecrypt");
}

TokenContext::TokenContext(const Provider& entryPoints, const std::string& pin) : provider(entryPoints) {
    // The provider tests the system's callbacks for presence and reads nothing in them.
    unsigned char callbacks[64] = {};
    require(provider.acquireContext(&handle, nullptr, 0, reinterpret_cast<VTableProvStruc*>(callbacks)),
            "CPAcquireContext");
    require(provider.setProvParam(handle, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(pin.c_str()), 0),
            "CPSetProvParam(PP_SIGNATURE_PIN)");
    deviceId = talvik_getConnectedDeviceList(false, nullptr).at(0);
    std::vector<TalvikKeyPair> keys = talvik_getKeyPairList(deviceId.c_str(), nullptr);
    if (keys.empty() || !isSignatureKey(keys.front())) {
        HCRYPTKEY key = 0;
        require(provider.genKey(handle, CALG_RSA_SIGN, 0, &key), "CPGenKey");
        require(provider.destroyKey(handle, key), "CPDestroyKey");
        keys = talvik_getKeyPairList(deviceId.c_str(), nullptr);
    }
    for (const TalvikKeyPair& key : keys) {
        if (isSignatureKey(key)) {
            std::memcpy(keyId, key.keyId, sizeof keyId);
            return;
        }
    }
    throw Failure("the token lists no RSA-2048 signature key");
}

TokenContext::~TokenContext() {
    provider.releaseContext(handle, 0);
}

}  // namespace talvik::bench
