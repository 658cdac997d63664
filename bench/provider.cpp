#include "provider.h"

#include <algorithm>
#include <vector>

#include "measure.h"
#include "token/token_records.h"

namespace talvik::bench {
namespace {

template <class Function>
void find(HMODULE module, Function& function, const char* name) {
    function = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    require(function != nullptr, name);
}

bool serves(const TalvikKeyPair& key) {
    return key.usage == TALVIK_USAGE_BOTH && key.keyType == TALVIK_KEY_RSA_2048;
}

std::string firstDevice() {
    const std::vector<std::string> devices = talvik_getConnectedDeviceList(false, nullptr);
    require(!devices.empty(), "finding a token");
    return devices.front();
}

TalvikKeyPair findOrMakeKey(const std::string& deviceId, const std::string& pin) {
    const std::vector<TalvikKeyPair> keys = talvik_getKeyPairList(deviceId.c_str(), nullptr);
    const auto found = std::find_if(keys.begin(), keys.end(), serves);
    if (found != keys.end()) {
        return *found;
    }
    TalvikKeyPair key = {};
    key.usage = TALVIK_USAGE_BOTH;
    key.keyType = TALVIK_KEY_RSA_2048;
    requireStatus(talvik_generateKeyPair(deviceId.c_str(), pin.c_str(), &key, nullptr), "talvik_generateKeyPair");
    return key;
}

}  // namespace

void fail(const char* what) {
    throw Failure(std::string(what) + " failed, last error " + std::to_string(GetLastError()));
}

void requireStatus(long status, const char* what) {
    if (status != 0) {
        throw Failure(std::string(what) + " failed, status " + std::to_string(status));
    }
}

Provider::Provider() {
    loadMicroseconds = microsecondsOf([this] { module = LoadLibraryA("TalvikCSP.dll"); });
    require(module != nullptr, "LoadLibrary TalvikCSP.dll");
    find(module, acquireContext, "CPAcquireContext");
    find(module, releaseContext, "CPReleaseContext");
    find(module, getProvParam, "CPGetProvParam");
    find(module, setProvParam, "CPSetProvParam");
    find(module, getUserKey, "CPGetUserKey");
    find(module, setKeyParam, "CPSetKeyParam");
    find(module, destroyKey, "CPDestroyKey");
    find(module, importKey, "CPImportKey");
    find(module, createHash, "CPCreateHash");
    find(module, hashData, "CPHashData");
    find(module, getHashParam, "CPGetHashParam");
    find(module, signHash, "CPSignHash");
    find(module, verifySignature, "CPVerifySignature");
    find(module, destroyHash, "CPDestroyHash");
    find(module, encrypt, "CPEncrypt");
    find(module, decrypt, "CPDecrypt");
    find(module, genRandom, "CPGenRandom");
    using GetInterface = SECURITY_STATUS(WINAPI*)(LPCWSTR, const NCRYPT_KEY_STORAGE_FUNCTION_TABLE**, DWORD);
    GetInterface getInterface = nullptr;
    find(module, getInterface, "GetKeyStorageInterface");
    requireStatus(getInterface(L"Talvik Cryptographic Provider CSP", &ksp, 0), "GetKeyStorageInterface");
}

Context::Context(const Provider& provider, const char* name) : provider_(provider) {
    // The provider tests the system's callbacks for presence and reads nothing in them.
    unsigned char callbacks[64] = {};
    require(provider.acquireContext(&handle_, name, 0, reinterpret_cast<VTableProvStruc*>(callbacks)),
            "CPAcquireContext");
}

Context::~Context() {
    provider_.releaseContext(handle_, 0);
}

BenchToken::BenchToken(const Provider& entryPoints, const std::string& userPin)
    : provider(entryPoints),
      pin(userPin),
      deviceId(firstDevice()),
      key(findOrMakeKey(deviceId, pin)),
      containerName(containerNameOf(key)),
      publicKey(buildRsaPublicKeyDerFromBytes(publicKeyOf(key), Bytes{1, 0, 1})),
      context(provider, containerName.c_str()) {
    auto* const pinBytes = reinterpret_cast<BYTE*>(pin.data());
    require(provider.setProvParam(context, PP_SIGNATURE_PIN, pinBytes, 0), "CPSetProvParam(PP_SIGNATURE_PIN)");
    requireStatus(provider.ksp->OpenProvider(&kspProvider, nullptr, 0), "KSPOpenProvider");
    requireStatus(provider.ksp->OpenKey(kspProvider, &kspKey, widened(containerName).c_str(), 0, 0), "KSPOpenKey");
}

BenchToken::~BenchToken() {
    provider.ksp->FreeKey(kspProvider, kspKey);
    provider.ksp->FreeProvider(kspProvider);
}

std::wstring widened(const std::string& text) {
    return {text.begin(), text.end()};
}

}  // namespace talvik::bench
