#include "token_report.h"

#include <iomanip>
#include <nlohmann/json.hpp>

#include "certificate.h"
#include "certificate_context.h"
#include "key_types.h"
#include "printable.h"
#include "status.h"

namespace talvik_tool {
namespace {

using namespace virtual_token;
using Json = nlohmann::ordered_json;

Json summaryOf(const Snapshot& token) {
    const TokenState& state = token.state;
    const TokenObjects& objects = token.objects->objects();
    return {{"id", state.id},
            {"label", state.label},
            {"firmwareVersion", state.firmwareVersion},
            {"attached", state.attached},
            {"attemptsLeft", state.userPin.attemptsLeft},
            {"adminAttemptsLeft", state.adminPin.attemptsLeft},
            {"singleSignOn", nameOf(state.signOn)},
            {"clockSkewed", state.clockSkewed},
            {"keyPairCount", objects.keyPairs.size()},
            {"certificateCount", objects.certificates.size()},
            {"aesKeyCount", objects.aesKeys.size()}};
}

std::string subjectOf(const CertificateObject& certificate) {
    try {
        return readCertificate(certificate.der).subject;
    } catch (const TokenError& error) {
        return error.what();
    }
}

Json detailsOf(const Snapshot& token) {
    Json details = summaryOf(token);
    Json keyPairs = Json::array(), certificates = Json::array(), aesKeys = Json::array();
    for (const KeyPairObject& key : token.objects->objects().keyPairs) {
        keyPairs.push_back({{"id", toHex(key.id)},
                            {"label", key.label},
                            {"type", keyTypeOf(key.type)->name},
                            {"usage", nameOfUsage(key.usage)}});
    }
    for (const CertificateObject& certificate : token.objects->objects().certificates) {
        certificates.push_back({{"keyId", toHex(certificate.keyId)},
                                {"label", certificate.label},
                                {"subject", subjectOf(certificate)},
                                {"thumbprint", thumbprintOf(certificate.der)},
                                {"length", certificate.der.size()}});
    }
    for (const AesKeyObject& key : token.objects->objects().aesKeys) {
        aesKeys.push_back({{"id", toHex(key.id)}, {"label", key.label}, {"type", key.type}});
    }
    details["keyPairs"] = std::move(keyPairs);
    details["certificates"] = std::move(certificates);
    details["aesKeys"] = std::move(aesKeys);
    return details;
}

std::string stateText(const TokenState& state) {
    std::string text = state.attached ? "attached" : "detached";
    text += ", sign-on " + std::string(nameOf(state.signOn));
    text += state.clockSkewed ? ", clock skewed" : "";
    text += state.userPin.attemptsLeft == 0 ? ", PIN locked" : "";
    return text;
}

}  // namespace

void printTokens(std::ostream& out, const std::vector<ListedToken>& tokens, bool json) {
    Json list = Json::array();
    for (const ListedToken& token : tokens) {
        if (json) {
            list.push_back(token.snapshot ? summaryOf(*token.snapshot)
                                          : Json{{"id", token.id}, {"problem", token.problem}});
        } else if (token.snapshot) {
            out << std::left << std::setw(16) << token.id << " " << stateText(token.snapshot->state) << "  "
                << printable(token.snapshot->state.label) << "\n";
        } else {
            out << std::left << std::setw(16) << token.id << " unusable: " << printable(token.problem) << "\n";
        }
    }
    if (json) {
        out << jsonText(list);
    }
}

void printToken(std::ostream& out, const Snapshot& token, bool json) {
    if (json) {
        out << jsonText(detailsOf(token));
        return;
    }
    const TokenState& state = token.state;
    out << "Token " << state.id << ", \"" << printable(state.label) << "\", firmware "
        << printable(state.firmwareVersion) << "\n"
        << "  " << stateText(state) << "\n"
        << "  PIN attempts left: " << state.userPin.attemptsLeft << " of " << state.userPin.attemptsAllowed
        << " (administrator: " << state.adminPin.attemptsLeft << " of " << state.adminPin.attemptsAllowed << ")\n";
    for (const KeyPairObject& key : token.objects->objects().keyPairs) {
        out << "  key pair    " << toHex(key.id) << "  " << keyTypeOf(key.type)->name << ", " << nameOfUsage(key.usage)
            << "  " << printable(key.label) << "\n";
    }
    for (const CertificateObject& certificate : token.objects->objects().certificates) {
        out << "  certificate " << thumbprintOf(certificate.der) << "  " << printable(subjectOf(certificate))
            << (token.objects->keyPair(certificate.keyId) == nullptr ? ", of no key" : "") << "\n";
    }
    for (const AesKeyObject& key : token.objects->objects().aesKeys) {
        out << "  AES key     " << toHex(key.id) << "  " << printable(key.label) << "\n";
    }
}

}  // namespace talvik_tool
