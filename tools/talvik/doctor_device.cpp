#include "doctor_device.h"

#include <algorithm>
#include <optional>

#include "device_library.h"
#include "doctor_virtual.h"
#include "publication.h"
#include "status.h"
#include "system_text.h"

namespace talvik_tool {
namespace {

using virtual_token::systemErrorText;
using virtual_token::TokenError;

constexpr int soonDays = 30;

// The user's store, if it can be opened: a page about the token is worth having without it.
const UserStore* ownStore() {
    static const std::optional<UserStore> store = []() -> std::optional<UserStore> {
        try {
            return std::optional<UserStore>(std::in_place, L"MY");
        } catch (const TokenError&) {
            return std::nullopt;
        }
    }();
    return store ? &*store : nullptr;
}

void judge(const CertificateFacts& certificate, long long days, const std::string& container, Findings& findings) {
    const std::string name = "The certificate of container " + container;
    if (!certificate.matchesKey) {
        findings.problem(name + " is for another key.",
                         "Store the certificate that was issued for this key, or enrol anew.");
    }
    if (days < 0) {
        findings.problem(name + " expired on " + certificate.expires + ".",
                         "Enrol a new certificate: talvik request --key " + container);
    } else if (days < soonDays) {
        findings.note(name + " expires on " + certificate.expires + ".", "Enrol a new certificate before that day.");
    }
    if (certificate.matchesKey && days >= 0 && !certificate.published) {
        findings.note(name + " is not in the user's store with a link to its key: most programs do not find it.",
                      "talvik certs publish");
    }
}

CertificateFacts inspectCertificate(ByteView der, const TalvikKeyPair& key, const std::string& container,
                                    Findings& findings) {
    CertificateFacts facts;
    const Certificate certificate = parseCertificate(der);
    if (!certificate) {
        findings.problem("The certificate of container " + container + " is damaged.", "Store it again.");
        return facts;
    }
    facts.subject = subjectOf(*certificate);
    facts.expires = dateText(certificate->pCertInfo->NotAfter);
    facts.matchesKey = isFor(der, key);
    if (const UserStore* store = ownStore()) {
        const Standing standing = standingOf(*store, der, key).standing;
        facts.published = standing == Standing::Published || standing == Standing::Foreign;
    }
    judge(facts, daysLeft(*certificate), container, findings);
    return facts;
}

ContainerFacts inspectKey(const TalvikKeyPair& key, const std::vector<TalvikCertificate>& certificates,
                          Findings& findings) {
    ContainerFacts container{containerName(key.keyId),
                             keyTypeName(key.keyType),
                             usageName(key.usage),
                             textOf(key.label),
                             {},
                             (key.usage & TALVIK_USAGE_SIGN) != 0};
    for (const TalvikCertificate& certificate : certificates) {
        if (belongTogether(certificate, key)) {
            container.certificates.push_back(inspectCertificate(derOf(certificate), key, container.name, findings));
        }
    }
    if (container.certificates.empty()) {
        findings.note("Container " + container.name + " has no certificate.",
                      "Programs that look for a certificate do not find this key: enrol one for it.");
    }
    return container;
}

TokenFacts inspectToken(const DeviceLibrary& library, const std::string& id, Findings& findings) {
    TokenFacts token{id, "", false, false, 0, 0, {}};
    token.initStatus = TALVIK_CALL(library, talvik_initDevice)(id.c_str(), true, nullptr);
    if (token.initStatus != 0) {
        findings.problem("Token " + id + " cannot be initialised: status " + std::to_string(token.initStatus),
                         "Unplug it and plug it in again; if that does not help, try it on another machine.");
        return token;
    }
    const TokenInfo info = TALVIK_CALL(library, talvik_getTokenInfo)(id.c_str(), nullptr);
    token.firmware = info.firmwareVersion;
    token.signedOn = !info.tokenId.empty() && info.loginState == 1 && info.ssoState == 1;
    if (info.tokenId.empty()) {
        findings.problem("Token " + id + " does not answer.", "Unplug it and plug it in again.");
    }
    const std::vector keys(TALVIK_CALL(library, talvik_getKeyPairList)(id.c_str(), nullptr));
    const std::vector certificates(TALVIK_CALL(library, talvik_getCertificateList)(id.c_str(), nullptr));
    token.aesKeys = TALVIK_CALL(library, talvik_getAesKeyList)(id.c_str(), nullptr).size();
    for (const TalvikKeyPair& key : keys) {
        token.containers.push_back(inspectKey(key, certificates, findings));
    }
    if (keys.empty()) {
        findings.note("Token " + id + " holds no key.",
                      "Generate one (talvik key generate) and enrol a certificate for it (talvik request).");
    }
    return token;
}

void inspectTokens(const DeviceLibrary& library, DeviceFacts& facts, Findings& findings) {
    TALVIK_CALL(library, talvik_init)(0, nullptr, 2);
    const auto ids = TALVIK_CALL(library, talvik_getConnectedDeviceList)(false, nullptr);
    for (const std::string& id : ids) {
        facts.tokens.push_back(inspectToken(library, id, findings));
    }
    if (isVirtualToken(facts.library)) {
        const auto takingNoPin = inspectVirtualTokens(ids, findings);
        for (TokenFacts& token : facts.tokens) {
            token.takesNoPin = std::ranges::find(takingNoPin, token.id) != takingNoPin.end();
        }
    } else if (ids.empty()) {
        findings.problem("No token is attached.",
                         "Plug it in. If it is, start the token maker's software: its service or driver does not see "
                         "the token.");
    }
}

}  // namespace

std::size_t neededOperations() {
    return DeviceLibrary::operations();
}

DeviceFacts inspectDevices(bool withTokens, Findings& findings) {
    DeviceFacts facts;
    facts.inspected = withTokens;
    const DeviceLibrary library;
    if (!library) {
        findings.problem(
            "TalvikDSCLibrary.dll cannot be loaded from the system folder: " + systemErrorText(GetLastError()),
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
    if (withTokens) {
        inspectTokens(library, facts, findings);
    }
    return facts;
}

}  // namespace talvik_tool
