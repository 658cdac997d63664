// KSPGetKeyProperty.
#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ksp/algorithms.h"
#include "ksp/entry_points.h"
#include "ksp/key.h"
#include "ksp/key_property_names.h"
#include "ksp/provider.h"
#include "log/log.h"

namespace talvik::ksp {
namespace {

struct Reading {
    const KspProvider& provider;
    const KspKey& key;
    Output out;
};

SECURITY_STATUS getName(const Reading& reading) {
    const std::string name = hexNameOf(reading.key);
    return answerText(std::wstring(name.begin(), name.end()), reading.out);
}

SECURITY_STATUS getAlgorithmName(const Reading& reading) {
    return answerText(algorithmNameOf(reading.key.algorithm), reading.out);
}

SECURITY_STATUS getAlgorithmGroup(const Reading& reading) {
    return answerText(algorithmGroupOf(reading.key.algorithm), reading.out);
}

SECURITY_STATUS getLength(const Reading& reading) {
    return answerValue(DWORD{reading.key.keyLength}, reading.out);
}

// Of RSA keys, whatever the key.
SECURITY_STATUS getLengths(const Reading& reading) {
    constexpr DWORD increment = 1024;
    constexpr NCRYPT_SUPPORTED_LENGTHS lengths = {smallestRsaSize.bits, largestRsaSize.bits, increment,
                                                  defaultRsaSize.bits};
    return answerValue(lengths, reading.out);
}

SECURITY_STATUS getKeyUsage(const Reading& reading) {
    const std::uint32_t usage = reading.key.keyUsage;
    const DWORD allowed =
        (usageSigns(usage) ? NCRYPT_ALLOW_SIGNING_FLAG : 0u) | (usageExchanges(usage) ? NCRYPT_ALLOW_DECRYPT_FLAG : 0u);
    return answerValue(allowed, reading.out);
}

SECURITY_STATUS getExportPolicy(const Reading& reading) {
    return answerValue(DWORD{NCRYPT_ALLOW_EXPORT_FLAG}, reading.out);
}

SECURITY_STATUS getBlockLength(const Reading& reading) {
    return answerValue(DWORD{reading.key.keyLength / 8}, reading.out);
}

SECURITY_STATUS getKeyType(const Reading& reading) {
    return answerValue(DWORD{0}, reading.out);
}

SECURITY_STATUS getProviderHandle(const Reading& reading) {
    return answerValue(reinterpret_cast<NCRYPT_PROV_HANDLE>(&reading.provider), reading.out);
}

bool certifiesPublicKey(const TalvikCertificate& certificate, const KspKey& key) {
    const ByteView der = derOf(certificate);
    CertificateDetails details;
    return talvik_getCertificateDetails(der.data(), lengthOf(der), details, nullptr) == TALVIK_STATUS_OK &&
           !details.publicKey.empty() && equalBytes(details.publicKey, publicKeyOf(key));
}

// By the alias that the token stores with both, else by the public key.
const TalvikCertificate* findCertificate(const std::vector<TalvikCertificate>& certificates, const KspKey& key) {
    auto found = std::ranges::find_if(certificates, [&](const TalvikCertificate& certificate) {
        return equalBytes(talvik::aliasOf(certificate), aliasOf(key));
    });
    if (found == certificates.end()) {
        found = std::ranges::find_if(
            certificates, [&](const TalvikCertificate& certificate) { return certifiesPublicKey(certificate, key); });
    }
    return found == certificates.end() ? nullptr : &*found;
}

SECURITY_STATUS getCertificate(const Reading& reading) {
    const std::shared_ptr<const BoundToken> token = reading.provider.token();
    const char* const deviceId = token->deviceId.c_str();
    void* const context = token->libraryContext;
    talvik_initDevice(deviceId, true, context);
    const std::vector<TalvikCertificate> certificates = talvik_getCertificateList(deviceId, context);
    const TalvikCertificate* const certificate = findCertificate(certificates, reading.key);
    if (certificate == nullptr) {
        return fail(NTE_NOT_FOUND, "KSP: Certificate not found for key");
    }
    return answer(derOf(*certificate), reading.out);
}

SECURITY_STATUS getChainingMode(const Reading& reading) {
    return answerText(reading.key.useEcb == 1 ? BCRYPT_CHAIN_MODE_ECB : BCRYPT_CHAIN_MODE_CBC, reading.out);
}

SECURITY_STATUS refuseSecurityDescriptor(const Reading&) {
    return fail(NTE_NOT_SUPPORTED, "KSPGetKeyProperty: NCRYPT_SECURITY_DESCR_PROPERTY not supported");
}

struct KeyProperty {
    std::wstring_view name;
    SECURITY_STATUS (*read)(const Reading&);
};

constexpr KeyProperty keyProperties[] = {
    {NCRYPT_NAME_PROPERTY, getName},
    {NCRYPT_ALGORITHM_PROPERTY, getAlgorithmName},
    {NCRYPT_ALGORITHM_GROUP_PROPERTY, getAlgorithmGroup},
    {NCRYPT_LENGTH_PROPERTY, getLength},
    {NCRYPT_LENGTHS_PROPERTY, getLengths},
    {NCRYPT_KEY_USAGE_PROPERTY, getKeyUsage},
    {NCRYPT_EXPORT_POLICY_PROPERTY, getExportPolicy},
    {NCRYPT_BLOCK_LENGTH_PROPERTY, getBlockLength},
    {NCRYPT_KEY_TYPE_PROPERTY, getKeyType},
    {NCRYPT_UNIQUE_NAME_PROPERTY, getName},
    {NCRYPT_PROVIDER_HANDLE_PROPERTY, getProviderHandle},
    {NCRYPT_CERTIFICATE_PROPERTY, getCertificate},
    {chainingModeProperty, getChainingMode},
    {NCRYPT_SECURITY_DESCR_PROPERTY, refuseSecurityDescriptor},
};

SECURITY_STATUS getProperty(const KspProvider& provider, const KspKey* key, LPCWSTR pszProperty, Output out) {
    if (key == nullptr) {
        return fail(NTE_INVALID_HANDLE, "KSPGetKeyProperty: key handle is null");
    }
    if (pszProperty == nullptr || out.size == nullptr) {
        return fail(NTE_INVALID_PARAMETER, "KSPGetKeyProperty: pszProperty or pcbResult is null");
    }
    const std::wstring_view name = pszProperty;
    logDebug("KSP: GetKeyProperty: ", narrowed(name));
    if (const KeyProperty* const property = findRow(keyProperties, &KeyProperty::name, name)) {
        return property->read({provider, *key, out});
    }
    return fail(NTE_NOT_SUPPORTED, "KSPGetKeyProperty: unsupported property");
}

}  // namespace
}  // namespace talvik::ksp

SECURITY_STATUS WINAPI KSPGetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                         PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD) {
    return talvik::ksp::providerEntryPoint(
        "KSPGetKeyProperty", hProvider, [=](const talvik::ksp::KspProvider& provider) {
            return talvik::ksp::getProperty(provider, talvik::ksp::keyOf(hKey), pszProperty,
                                            {pbOutput, cbOutput, pcbResult});
        });
}
