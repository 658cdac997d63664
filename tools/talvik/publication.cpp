#include "publication.h"

#include <algorithm>

#include "certificate.h"
#include "cng_keys.h"
#include "doctor_system.h"
#include "status.h"
#include "system_text.h"

namespace talvik_tool {
namespace {

using virtual_token::utf8;

bool isEllipticCurve(const TalvikKeyPair& key) {
    return key.keyType >= TALVIK_KEY_EC_P256 && key.keyType <= TALVIK_KEY_EC_P521;
}

std::wstring containerOf(const TalvikKeyPair& key) {
    const std::string name = containerName(key.keyId);
    return std::wstring(name.begin(), name.end());
}

// A key for both is an exchange key, with which programs sign as well as decrypt.
KeyLink cryptoApiLink(const TalvikKeyPair& key) {
    const DWORD keySpec = key.usage == TALVIK_USAGE_SIGN ? AT_SIGNATURE : AT_KEYEXCHANGE;
    return {containerOf(key), providerName, PROV_RSA_FULL, keySpec};
}

KeyLink cngLink(const TalvikKeyPair& key) {
    return {containerOf(key), providerName, 0, 0};
}

// Nothing, with the reason, when no face that is wanted opens the key.
std::optional<KeyLink> chooseLink(const TalvikKeyPair& key, Face face, std::string& reason) {
    if (face != Face::CryptoApi && cngOpens(containerOf(key))) {
        return cngLink(key);
    }
    if (face == Face::Cng) {
        reason = "CNG of this system does not open its key";
        return std::nullopt;
    }
    if (isEllipticCurve(key)) {
        reason = std::string("CryptoAPI has no elliptic-curve keys") +
                 (face == Face::CryptoApi ? "" : ", and CNG of this system does not open it");
        return std::nullopt;
    }
    return cryptoApiLink(key);
}

bool leadsTo(const KeyLink& link, const TalvikKeyPair& key) {
    return link == cryptoApiLink(key) || (link == cngLink(key) && cngOpens(link.container));
}

Outcome outcomeFor(const TokenCertificate& certificate) {
    const Certificate parsed = parseCertificate(certificate.der);
    return {parsed ? subjectOf(*parsed) : "(damaged)", certificate.token, "", "", false};
}

Outcome refused(Outcome outcome, const std::string& reason) {
    outcome.done = "refused";
    outcome.reason = reason;
    outcome.refused = true;
    return outcome;
}

Outcome publishOwn(UserStore& store, const TokenCertificate& certificate, const TalvikKeyPair& key, Face face) {
    Outcome outcome = outcomeFor(certificate);
    const Certificate parsed = parseCertificate(certificate.der);
    if (!parsed || !isFor(certificate.der, key)) {
        return refused(outcome, parsed ? "it is for another key than the one it is stored with" : "it is damaged");
    }
    const StandingFacts found = standingOf(store, certificate.der, key);
    if (found.standing == Standing::Foreign) {
        outcome.done = "left alone";
        outcome.reason = "it is there with a link of somebody else, to " + found.provider;
        return outcome;
    }
    std::string reason;
    const std::optional<KeyLink> link = chooseLink(key, face, reason);
    if (!link) {
        return refused(outcome, reason);
    }
    const Certificate present = store.find(certificate.der);
    if (found.standing == Standing::Published && (face == Face::Auto || linkOf(*present) == link)) {
        outcome.done = "unchanged";
        return outcome;
    }
    store.put(certificate.der, certificate.token, &*link, shortNameOf(*parsed) + " (token " + certificate.token + ")");
    outcome.done = found.standing == Standing::Absent ? "published" : "mended";
    return outcome;
}

bool isIntermediate(const TokenCertificate& certificate) {
    const Certificate parsed = parseCertificate(certificate.der);
    return !certificate.key && parsed && !isSelfIssued(*parsed) && isAuthority(*parsed);
}

Outcome publishIssuer(UserStore& store, const TokenCertificate& certificate) {
    Outcome outcome = outcomeFor(certificate);
    outcome.done = store.find(certificate.der) ? "unchanged" : "published";
    if (outcome.done == "published") {
        store.put(certificate.der, certificate.token, nullptr, "");
    }
    return outcome;
}

}  // namespace

const char* nameOf(Standing standing) {
    static constexpr const char* names[] = {"no", "published", "broken", "linked by somebody else"};
    return names[static_cast<int>(standing)];
}

bool isFor(ByteView certificate, const TalvikKeyPair& key) {
    try {
        return virtual_token::readCertificate(certificate).publicKeyInfo == publicKeyInfoOf(key);
    } catch (const virtual_token::TokenError&) {
        return false;
    }
}

StandingFacts standingOf(const UserStore& store, ByteView certificate, const TalvikKeyPair& key) {
    const Certificate present = store.find(certificate);
    if (!present) {
        return {};
    }
    const std::optional<KeyLink> link = linkOf(*present);
    const bool isOurs = markOf(*present).has_value();
    if (!link) {
        return {isOurs ? Standing::Broken : Standing::Absent, "", ""};
    }
    const Standing standing = !isOurs               ? Standing::Foreign
                              : leadsTo(*link, key) ? Standing::Published
                                                    : Standing::Broken;
    return {standing, utf8(link->provider), link->providerType == 0 ? "CNG" : "CryptoAPI"};
}

std::vector<TokenCertificate> certificatesOn(const std::vector<Device>& devices) {
    std::vector<TokenCertificate> all;
    for (const Device& device : devices) {
        const std::vector<TalvikKeyPair> keys = device.keys();
        for (const TalvikCertificate& certificate : device.certificates()) {
            const ByteView der = derOf(certificate);
            const auto key = std::ranges::find_if(
                keys, [&certificate](const TalvikKeyPair& each) { return belongTogether(certificate, each); });
            all.push_back(
                {device.id(), Bytes(der.begin(), der.end()), key == keys.end() ? std::nullopt : std::optional(*key)});
        }
    }
    return all;
}

std::vector<Outcome> publish(const std::vector<TokenCertificate>& certificates, Face face) {
    std::vector<Outcome> outcomes;
    UserStore own(L"MY"), issuers(L"CA");
    for (const TokenCertificate& certificate : certificates) {
        if (certificate.key) {
            outcomes.push_back(publishOwn(own, certificate, *certificate.key, face));
        } else if (isIntermediate(certificate)) {
            outcomes.push_back(publishIssuer(issuers, certificate));
        }
    }
    own.commit();
    issuers.commit();
    return outcomes;
}

std::vector<Outcome> withdraw(const std::optional<std::string>& token) {
    std::vector<Outcome> outcomes;
    for (const wchar_t* name : {L"MY", L"CA"}) {
        UserStore store(name);
        for (const Certificate& certificate : store.marked()) {
            const Mark mark = *markOf(*certificate);
            if (!token || mark.token == *token) {
                outcomes.push_back({subjectOf(*certificate), mark.token, "withdrawn", "", false});
                store.takeBack(*certificate);
            }
        }
        store.commit();
    }
    return outcomes;
}

}  // namespace talvik_tool
