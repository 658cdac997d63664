#include "certs_import.h"

#include <algorithm>
#include <memory>

#include "certificate.h"
#include "certificate_context.h"
#include "device.h"
#include "files.h"
#include "output.h"
#include "status.h"
#include "text_rules.h"

namespace talvik_tool {
namespace {

using virtual_token::Status;
using virtual_token::TokenError;

struct ImportArguments {
    TokenOption token;
    std::string file;
    std::string label;
    bool issuers = false;
};

// What is to be stored: issuers first, so that a key has its new certificate only when all the rest is there.
struct Plan {
    Device device;
    std::vector<Bytes> issuers;
    std::vector<std::pair<Bytes, TalvikKeyPair>> own;
};

std::vector<Bytes> readCertificates(const std::string& name) {
    std::vector<Bytes> certificates;
    for (const EncodedObject& object : readObjects(name)) {
        if (!object.label.empty() && object.label.find("CERTIFICATE") == std::string::npos) {
            continue;  // a key or a parameter beside them
        }
        if (!parseCertificate(object.der)) {
            throw TokenError(Status::BadCertificate, name + ": this is no certificate in DER or PEM");
        }
        if (object.der.size() > sizeof(TalvikCertificate::der)) {
            throw TokenError(Status::BadCertificate, name + ": a certificate of " + std::to_string(object.der.size()) +
                                                         " bytes; a token takes at most 3072");
        }
        certificates.emplace_back(object.der.begin(), object.der.end());
    }
    if (certificates.empty()) {
        throw TokenError(Status::BadCertificate, name + ": there is no certificate in it");
    }
    return certificates;
}

std::optional<TalvikKeyPair> keyOf(const Bytes& certificate, const std::vector<TalvikKeyPair>& keys) {
    const Bytes wanted = virtual_token::readCertificate(certificate).publicKeyInfo;
    const auto found = std::ranges::find(keys, wanted, publicKeyInfoOf);
    return found == keys.end() ? std::nullopt : std::optional(*found);
}

Plan planFor(Device device, const std::vector<Bytes>& certificates) {
    Plan plan{std::move(device), {}, {}};
    const std::vector<TalvikKeyPair> keys = plan.device.keys();
    for (const Bytes& certificate : certificates) {
        if (const auto key = keyOf(certificate, keys)) {
            plan.own.emplace_back(certificate, *key);
        } else {
            plan.issuers.push_back(certificate);
        }
    }
    return plan;
}

// The token with a key for one of them: the named one, or the only one that has such a key.
Plan choosePlan(const ImportArguments& arguments, const std::vector<Bytes>& certificates) {
    std::vector<Plan> fitting;
    for (Device& device : arguments.token.devices()) {
        Plan plan = planFor(device, certificates);
        if (!plan.own.empty()) {
            fitting.push_back(std::move(plan));
        }
    }
    if (fitting.empty() && arguments.issuers) {
        return planFor(arguments.token.device(), certificates);
    }
    if (fitting.empty()) {
        throw TokenError(Status::NoSuchObject, arguments.file +
                                                   ": no attached token holds the key of this certificate. "
                                                   "To store it as an issuer: --issuer");
    }
    if (fitting.size() > 1) {
        throw TokenError(Status::InvalidArgument, "several tokens hold this key: choose one with --token");
    }
    return fitting.front();
}

// An issuer is one that a certificate of a key leads to.
void requireRelated(const Plan& plan, const std::string& file) {
    for (const Bytes& issuer : plan.issuers) {
        const bool related = std::ranges::any_of(plan.own, [&](const auto& own) {
            const std::vector<Bytes> chain = chainOf(own.first, plan.issuers);
            return std::ranges::find(chain, issuer) != chain.end();
        });
        if (!related) {
            throw TokenError(Status::NoSuchObject, file + ": \"" + subjectOf(*parseCertificate(issuer)) +
                                                       "\" is for no key of the token and issued none of the others. "
                                                       "To store it as an issuer: --issuer");
        }
    }
}

void importCertificates(const ImportArguments& arguments) {
    Plan plan = choosePlan(arguments, readCertificates(arguments.file));
    if (!arguments.issuers) {
        requireRelated(plan, arguments.file);
    }
    arguments.token.login(plan.device);
    for (const Bytes& issuer : plan.issuers) {
        plan.device.store(issuer, nullptr, plan.own.empty() ? arguments.label : "");
        print("Issuer " + subjectOf(*parseCertificate(issuer)));
    }
    for (const auto& [certificate, key] : plan.own) {
        plan.device.store(certificate, &key, arguments.label);
        print("Certificate " + subjectOf(*parseCertificate(certificate)) + " of key " + containerName(key.keyId));
    }
}

}  // namespace

void addCertsImport(CLI::App& family) {
    CLI::App* command = family.add_subcommand("import", "Store an issued certificate, and its issuers, on the token");
    const auto arguments = std::make_shared<ImportArguments>();
    arguments->token.addTo(*command);
    command->add_option("file", arguments->file, "Certificates, PEM (all of them) or DER")->required();
    command->add_option("--label", arguments->label, "Label (the key's if not given)")->check(wrongLabel);
    command->add_flag("--issuer", arguments->issuers, "Also store certificates for no key of the token");
    arguments->token.pin.addTo(*command, "pin", "User PIN");
    command->callback([arguments] { importCertificates(*arguments); });
}

}  // namespace talvik_tool
