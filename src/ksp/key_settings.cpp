// KSPSetKeyProperty.
#include <cstring>
#include <memory>
#include <string_view>

#include "ksp/entry_points.h"
#include "ksp/key.h"
#include "ksp/key_property_names.h"
#include "ksp/provider.h"
#include "log/log.h"
#include "token/algorithms.h"
#include "token/session.h"
#include "token/shared_state.h"

namespace talvik::ksp {
namespace {

struct Setting {
    KspProvider& provider;
    KspKey& key;
    ByteView input;

    bool isEmpty() const noexcept { return input.data() == nullptr || input.empty(); }
};

SECURITY_STATUS setCertificate(const Setting& setting) {
    if (setting.isEmpty()) {
        return fail(NTE_INVALID_PARAMETER, "KSPSetKeyProperty: NCRYPT_CERTIFICATE_PROPERTY pbInput is null or empty");
    }
    if (setting.input.size() > sizeof TalvikCertificate::der) {
        return fail(NTE_INVALID_PARAMETER, "KSPSetKeyProperty: NCRYPT_CERTIFICATE_PROPERTY certificate too large");
    }
    const std::shared_ptr<const BoundToken> token = setting.provider.token();
    const KspKey& key = setting.key;
    const SECURITY_STATUS refusal = requirePin("KSPSetKeyProperty", *token, 0, " for certificate import");
    if (refusal != ERROR_SUCCESS) {
        return refusal;
    }
    const int status = storeCertificate(token->deviceId, getDevicePassword(token->deviceId).c_str(), key, aliasOf(key),
                                        setting.input, token->libraryContext);
    if (status != TALVIK_STATUS_OK) {
        return fail(NTE_INTERNAL_ERROR, "KSP: Import certificate failed: ", status);
    }
    logDebug("KSP: Certificate stored successfully");
    return ERROR_SUCCESS;
}

SECURITY_STATUS setKeyPin(const Setting& setting) {
    return setPin("KSPSetKeyProperty", *setting.provider.token(), setting.input.data());
}

SECURITY_STATUS setWindowHandle(const Setting& setting) {
    if (HWND window = nullptr; readValue(setting.input, window)) {
        setting.provider.setWindow(window);
    }
    return ERROR_SUCCESS;
}

SECURITY_STATUS setLength(const Setting& setting) {
    if (readValue(setting.input, setting.key.keyLength)) {
        logDebug("KSP: Key length set to ", setting.key.keyLength);
    }
    return ERROR_SUCCESS;
}

SECURITY_STATUS setKeyUsage(const Setting& setting) {
    DWORD allowed = 0;
    readValue(setting.input, allowed);
    const bool signs = (allowed & NCRYPT_ALLOW_SIGNING_FLAG) != 0;
    const bool decrypts = (allowed & NCRYPT_ALLOW_DECRYPT_FLAG) != 0;
    if (signs || decrypts) {
        setting.key.keyUsage = (signs ? TALVIK_USAGE_SIGN : 0) | (decrypts ? TALVIK_USAGE_EXCHANGE : 0);
    }
    return ERROR_SUCCESS;
}

// Reads up to the first difference and no further: the caller's length is not that of its text.
bool isText(const BYTE* input, std::wstring_view nulTerminated) {
    for (std::size_t i = 0; i <= nulTerminated.size(); ++i) {
        wchar_t unit;
        std::memcpy(&unit, input + i * sizeof unit, sizeof unit);
        if (unit != nulTerminated.data()[i]) {
            return false;
        }
    }
    return true;
}

SECURITY_STATUS setChainingMode(const Setting& setting) {
    if (setting.isEmpty()) {
        return ERROR_SUCCESS;
    }
    if (isText(setting.input.data(), BCRYPT_CHAIN_MODE_CBC)) {
        setting.key.useEcb = 0;
        logDebug("KSP: Chaining mode set to CBC");
        return ERROR_SUCCESS;
    }
    if (isText(setting.input.data(), BCRYPT_CHAIN_MODE_ECB)) {
        setting.key.useEcb = 1;
        logDebug("KSP: Chaining mode set to ECB");
        return ERROR_SUCCESS;
    }
    return fail(NTE_NOT_SUPPORTED, "KSP: Unsupported chaining mode");
}

SECURITY_STATUS setIv(const Setting& setting) {
    if (setting.isEmpty()) {
        setSharedIv({});
        logDebug("KSP: IV cleared");
        return ERROR_SUCCESS;
    }
    const std::size_t size = setting.input.size();
    const AesLength* const length = findAesLength(setting.key.symmetricKeyLength);
    if (length != nullptr && size != length->ivSize) {
        return fail(NTE_INVALID_PARAMETER, "KSP: IV size mismatch: got ", size, ", expected ", length->ivSize);
    }
    setSharedIv(setting.input);
    logDebug("KSP: IV set, size: ", size);
    return ERROR_SUCCESS;
}

struct KeySetting {
    std::wstring_view name;
    SECURITY_STATUS (*write)(const Setting&);
};

constexpr KeySetting keySettings[] = {
    {NCRYPT_CERTIFICATE_PROPERTY, setCertificate},
    {NCRYPT_PIN_PROPERTY, setKeyPin},
    {NCRYPT_WINDOW_HANDLE_PROPERTY, setWindowHandle},
    {NCRYPT_LENGTH_PROPERTY, setLength},
    {NCRYPT_KEY_USAGE_PROPERTY, setKeyUsage},
    {chainingModeProperty, setChainingMode},
    {ivProperty, setIv},
};

SECURITY_STATUS setProperty(KspProvider& provider, KspKey* key, LPCWSTR pszProperty, ByteView input) {
    if (key == nullptr) {
        return fail(NTE_INVALID_HANDLE, "KSPSetKeyProperty: key handle is null");
    }
    if (pszProperty == nullptr) {
        return fail(NTE_INVALID_PARAMETER, "KSPSetKeyProperty: pszProperty is null");
    }
    const std::wstring_view name = pszProperty;
    if (const KeySetting* const setting = findRow(keySettings, &KeySetting::name, name)) {
        return setting->write({provider, *key, input});
    }
    return fail(NTE_NOT_SUPPORTED, "KSPSetKeyProperty: unsupported property");
}

}  // namespace
}  // namespace talvik::ksp

SECURITY_STATUS WINAPI KSPSetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                         PBYTE pbInput, DWORD cbInput, DWORD) {
    return talvik::ksp::providerEntryPoint("KSPSetKeyProperty", hProvider, [=](talvik::ksp::KspProvider& provider) {
        return talvik::ksp::setProperty(provider, talvik::ksp::keyOf(hKey), pszProperty, {pbInput, cbInput});
    });
}
