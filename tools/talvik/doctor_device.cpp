#include "doctor_device.h"

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>

#include "device_library_exports.h"
#include "log_files.h"
#include "system_folder.h"
#include "token/device_library.h"

namespace talvik_tool {
namespace {

constexpr wchar_t libraryName[] = L"TalvikDSCLibrary.dll";
constexpr int soonDays = 30;

// Loaded for good: what it hands out may outlive every scope here.
class DeviceLibrary {
  public:
    DeviceLibrary() : module_(loadSystemModule(libraryName)) {}
    explicit operator bool() const { return module_ != nullptr; }

    std::wstring path() const {
        std::array<wchar_t, 1024> path = {};
        return std::wstring(path.data(), GetModuleFileNameW(module_, path.data(), static_cast<DWORD>(path.size())));
    }

    std::size_t exported() const {
        return static_cast<std::size_t>(
            std::count_if(std::begin(deviceLibraryExports), std::end(deviceLibraryExports),
                          [this](const char* name) { return GetProcAddress(module_, name) != nullptr; }));
    }

    // The operation of that name; its exported name carries the types of its parameters.
    template <class Operation>
    Operation* get(const std::string& name) const {
        const std::string prefix = "_Z" + std::to_string(name.size()) + name;
        const auto decorated =
            std::find_if(std::begin(deviceLibraryExports), std::end(deviceLibraryExports),
                         [&](const char* each) { return std::strncmp(each, prefix.c_str(), prefix.size()) == 0; });
        return decorated == std::end(deviceLibraryExports)
                   ? nullptr
                   : reinterpret_cast<Operation*>(reinterpret_cast<void*>(GetProcAddress(module_, *decorated)));
    }

  private:
    HMODULE module_;
};

std::string hexText(const unsigned char* bytes, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02X", bytes[i]);
        text += digits;
    }
    return text;
}

// A token's text may fill its field to the last byte.
template <std::size_t size>
std::string fieldText(const char (&field)[size]) {
    return std::string(field, std::find(field, field + size, '\0'));
}

std::string keyTypeName(std::uint32_t type) {
    static constexpr const char* names[] = {"RSA-1024", "RSA-2048", "RSA-3072", "RSA-4096", "P-256", "P-384", "P-521"};
    return type >= 1 && type <= std::size(names) ? names[type - 1] : "type " + std::to_string(type);
}

std::string usageName(std::uint32_t usage) {
    static constexpr const char* names[] = {"signature", "exchange", "signature and exchange"};
    return usage >= 1 && usage <= std::size(names) ? names[usage - 1] : "usage " + std::to_string(usage);
}

constexpr wchar_t certificateLibrary[] = L"crypt32.dll";

struct FreeCertificate {
    void operator()(const CERT_CONTEXT* certificate) const {
        systemFunction<decltype(CertFreeCertificateContext)>(certificateLibrary,
                                                             "CertFreeCertificateContext")(certificate);
    }
};
using Certificate = std::unique_ptr<const CERT_CONTEXT, FreeCertificate>;

std::string dateText(const FILETIME& time) {
    SYSTEMTIME date = {};
    FileTimeToSystemTime(&time, &date);
    char text[16];
    std::snprintf(text, sizeof text, "%04u-%02u-%02u", date.wYear, date.wMonth, date.wDay);
    return text;
}

std::string subjectOf(const CERT_CONTEXT& certificate) {
    std::array<wchar_t, 512> name = {};
    const auto nameToText = systemFunction<decltype(CertNameToStrW)>(certificateLibrary, "CertNameToStrW");
    const DWORD length = nameToText(X509_ASN_ENCODING, &certificate.pCertInfo->Subject, CERT_X500_NAME_STR, name.data(),
                                    static_cast<DWORD>(name.size()));
    return utf8(std::wstring(name.data(), length > 0 ? length - 1 : 0));
}

// Days until the certificate expires; below zero when it has.
long long daysLeft(const CERT_CONTEXT& certificate) {
    FILETIME now = {};
    GetSystemTimeAsFileTime(&now);
    const auto ticks = [](const FILETIME& time) {
        return static_cast<long long>(static_cast<unsigned long long>(time.dwHighDateTime) << 32 | time.dwLowDateTime);
    };
    const long long left = ticks(certificate.pCertInfo->NotAfter) - ticks(now);
    return left < 0 ? -1 : left / (10000000LL * 60 * 60 * 24);
}

class TokenInspection {
  public:
    TokenInspection(const DeviceLibrary& library, const std::string& id, Findings& findings)
        : library_(library), id_(id), findings_(findings) {}

    TokenFacts run() {
        TokenFacts token{id_, "", false, 0, 0, {}};
        token.initStatus = library_.get<decltype(talvik_initDevice)>("talvik_initDevice")(id_.c_str(), true, nullptr);
        if (token.initStatus != 0) {
            findings_.problem("Token " + id_ + " cannot be initialised: status " + std::to_string(token.initStatus),
                              "Unplug it and plug it in again; if that does not help, try it on another machine.");
            return token;
        }
        const TokenInfo info = library_.get<decltype(talvik_getTokenInfo)>("talvik_getTokenInfo")(id_.c_str(), nullptr);
        token.firmware = info.firmwareVersion;
        token.signedOn = !info.tokenId.empty() && info.loginState == 1 && info.ssoState == 1;
        if (info.tokenId.empty()) {
            findings_.problem("Token " + id_ + " does not answer.", "Unplug it and plug it in again.");
        }
        const auto keys =
            std::vector(library_.get<decltype(talvik_getKeyPairList)>("talvik_getKeyPairList")(id_.c_str(), nullptr));
        const auto certificates = std::vector(
            library_.get<decltype(talvik_getCertificateList)>("talvik_getCertificateList")(id_.c_str(), nullptr));
        token.aesKeys =
            library_.get<decltype(talvik_getAesKeyList)>("talvik_getAesKeyList")(id_.c_str(), nullptr).size();
        for (const TalvikKeyPair& key : keys) {
            token.containers.push_back(inspectKey(key, certificates));
        }
        if (keys.empty()) {
            findings_.note("Token " + id_ + " holds no key.", "Enrol a certificate, or generate a key.");
        }
        return token;
    }

  private:
    ContainerFacts inspectKey(const TalvikKeyPair& key, const std::vector<TalvikCertificate>& certificates) {
        ContainerFacts container{hexText(key.keyId, sizeof key.keyId),
                                 keyTypeName(key.keyType),
                                 usageName(key.usage),
                                 fieldText(key.label),
                                 {},
                                 key.usage == TALVIK_USAGE_SIGN || key.usage == TALVIK_USAGE_BOTH};
        for (const TalvikCertificate& certificate : certificates) {
            if (std::memcmp(certificate.keyId, key.keyId, sizeof key.keyId) == 0) {
                container.certificates.push_back(inspectCertificate(certificate, key, container.name));
            }
        }
        if (container.certificates.empty()) {
            findings_.note("Container " + container.name + " has no certificate.",
                           "Programs that look for a certificate do not find this key: enrol one for it.");
        }
        return container;
    }

    CertificateFacts inspectCertificate(const TalvikCertificate& record, const TalvikKeyPair& key,
                                        const std::string& container) {
        CertificateFacts facts;
        const DWORD length = std::min<DWORD>(record.derLength, sizeof record.der);
        const auto create =
            systemFunction<decltype(CertCreateCertificateContext)>(certificateLibrary, "CertCreateCertificateContext");
        const Certificate certificate(create(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, record.der, length));
        if (!certificate) {
            findings_.problem("The certificate of container " + container + " is damaged.", "Store it again.");
            return facts;
        }
        facts.subject = subjectOf(*certificate);
        facts.expires = dateText(certificate->pCertInfo->NotAfter);
        facts.matchesKey = matches(record, length, key);
        judge(facts, daysLeft(*certificate), container);
        return facts;
    }

    // The public key as the device library reads it out of the certificate, which is what the provider compares too.
    bool matches(const TalvikCertificate& record, DWORD length, const TalvikKeyPair& key) const {
        CertificateDetails details;
        const auto getDetails = library_.get<decltype(talvik_getCertificateDetails)>("talvik_getCertificateDetails");
        const std::size_t modulusLength = std::min<std::size_t>(key.modulusLength, sizeof key.modulus);
        return getDetails(record.der, static_cast<int>(length), details, nullptr) == 0 &&
               std::equal(details.publicKey.begin(), details.publicKey.end(), key.modulus, key.modulus + modulusLength);
    }

    void judge(const CertificateFacts& certificate, long long days, const std::string& container) {
        if (!certificate.matchesKey) {
            findings_.problem("The certificate of container " + container + " is for another key.",
                              "Store the certificate that was issued for this key, or enrol anew.");
        }
        if (days < 0) {
            findings_.problem("The certificate of container " + container + " expired on " + certificate.expires + ".",
                              "Enrol a new certificate.");
        } else if (days < soonDays) {
            findings_.note("The certificate of container " + container + " expires on " + certificate.expires + ".",
                           "Enrol a new certificate before that day.");
        }
    }

    const DeviceLibrary& library_;
    const std::string& id_;
    Findings& findings_;
};

}  // namespace

std::size_t neededOperations() {
    return std::size(deviceLibraryExports);
}

DeviceFacts inspectDevices(Findings& findings) {
    DeviceFacts facts;
    const DeviceLibrary library;
    if (!library) {
        findings.problem("TalvikDSCLibrary.dll cannot be loaded from the system folder: " + errorText(GetLastError()),
                         "Install the token maker's software, or the package's virtual token (ADDLOCAL=VirtualToken). "
                         "A library elsewhere, on PATH for one, is not tried here.");
        return facts;
    }
    facts.library = describeModule(library.path());
    facts.operations = library.exported();
    if (facts.operations != neededOperations()) {
        findings.problem("TalvikDSCLibrary.dll has " + std::to_string(facts.operations) + " of the " +
                             std::to_string(neededOperations()) + " operations that the provider needs.",
                         "Install the version of the token maker's software that goes with this provider.");
        return facts;
    }
    if (!facts.library.version.empty() && facts.library.version != TALVIK_LIBRARY_VERSION) {
        findings.note("TalvikDSCLibrary.dll has version " + facts.library.version + "; the provider was made for " +
                          TALVIK_LIBRARY_VERSION + ".",
                      "Install the version of the token maker's software that goes with this provider.");
    }
    library.get<decltype(talvik_init)>("talvik_init")(0, nullptr, 2);
    const auto ids =
        library.get<decltype(talvik_getConnectedDeviceList)>("talvik_getConnectedDeviceList")(false, nullptr);
    for (const std::string& id : ids) {
        facts.tokens.push_back(TokenInspection(library, id, findings).run());
    }
    if (ids.empty()) {
        findings.problem("No token is attached.", "Plug the token in; with the virtual token: talvik token attach.");
    }
    return facts;
}

}  // namespace talvik_tool
