#include "token_names.h"

#include <windows.h>

#include <algorithm>

#include "certificate.h"
#include "certificate_context.h"
#include "status.h"
#include "system_text.h"

namespace talvik_tool {
namespace {

using virtual_token::CertificateObject;
using virtual_token::KeyPairObject;
using virtual_token::Snapshot;
using virtual_token::upperCase;
using virtual_token::utf8;

bool isNamed(const KeyPairObject& key, const std::string& name) {
    return virtual_token::toHex(key.id) == upperCase(name) || key.label == name;
}

bool isNamed(const CertificateObject& certificate, const Snapshot& token, const std::string& name) {
    const Certificate parsed = parseCertificate(certificate.der);
    const KeyPairObject* key = token.objects->keyPair(certificate.keyId);
    return thumbprintOf(certificate.der) == upperCase(name) || certificate.label == name ||
           (parsed && subjectOf(*parsed) == name) || (key != nullptr && isNamed(*key, name));
}

[[noreturn]] void failName(virtual_token::Status status, const std::string& text) {
    throw virtual_token::TokenError(status, text);
}

}  // namespace

std::string sameButForCase(const std::string& id) {
    for (const auto& token : virtual_token::listTokens()) {
        if (token.id != id && lstrcmpiA(token.id.c_str(), id.c_str()) == 0) {
            return token.id;
        }
    }
    return "";
}

std::shared_ptr<virtual_token::Token> tokenOf(const TokenArguments& arguments) {
    const std::string other = sameButForCase(arguments.id);
    if (!other.empty()) {
        failName(virtual_token::Status::NoSuchDevice,
                 "no token is named " + arguments.id + "; there is " + other + ", and upper and lower case count");
    }
    try {
        return virtual_token::findToken(arguments.id);
    } catch (const virtual_token::TokenError& error) {
        if (error.status() != virtual_token::Status::NoSuchDevice) {
            throw;
        }
        failName(error.status(), "no token is named " + arguments.id + " in " + utf8(virtual_token::tokenHome()) +
                                     ". To see them: talvik token list");
    }
}

const KeyPairObject& keyNamed(const Snapshot& token, const std::string& name) {
    const auto& keyPairs = token.objects->objects().keyPairs;
    const auto found = std::ranges::find_if(keyPairs, [&](const KeyPairObject& key) { return isNamed(key, name); });
    if (found == keyPairs.end()) {
        failName(virtual_token::Status::NoSuchObject, "token " + token.state.id + " holds no key \"" + name +
                                                          "\". To see them: talvik token show " + token.state.id);
    }
    return *found;
}

const CertificateObject& certificateNamed(const Snapshot& token, const std::string& name) {
    const CertificateObject* found = nullptr;
    for (const CertificateObject& each : token.objects->objects().certificates) {
        if (!name.empty() && !isNamed(each, token, name)) {
            continue;
        }
        if (found != nullptr && found->der != each.der) {
            failName(virtual_token::Status::InvalidArgument,
                     (name.empty() ? "the token has several certificates" : "several certificates are named " + name) +
                         ": choose one by its thumbprint, see talvik token show " + token.state.id);
        }
        found = &each;
    }
    if (found == nullptr) {
        failName(virtual_token::Status::NoSuchObject,
                 "token " + token.state.id + " holds no " +
                     (name.empty() ? "certificate" : "certificate \"" + name + "\"") +
                     ". To see them: talvik token show " + token.state.id);
    }
    return *found;
}

CLI::App* addTokenCommand(CLI::App& parent, const SharedTokenArguments& arguments, const char* name, const char* what,
                          std::function<void(const TokenArguments&)> run) {
    CLI::App* command = parent.add_subcommand(name, what);
    command->add_option("id", arguments->id, "Token identifier")->required();
    command->callback([arguments, run = std::move(run)] { run(*arguments); });
    return command;
}

}  // namespace talvik_tool
