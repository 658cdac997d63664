#include "certs_commands.h"

#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "certs_import.h"
#include "certs_watch.h"
#include "exit_code.h"
#include "output.h"
#include "publication.h"

namespace talvik_tool {
namespace {

using Json = nlohmann::ordered_json;

struct CertsArguments {
    TokenOption token;
    std::string face = "auto";
    bool json = false;
};

const std::map<std::string, Face> faces = {{"auto", Face::Auto}, {"cryptoapi", Face::CryptoApi}, {"cng", Face::Cng}};

Json describe(const TokenCertificate& certificate, const UserStore& store) {
    const Certificate parsed = parseCertificate(certificate.der);
    Json facts = {{"token", certificate.token},
                  {"subject", parsed ? subjectOf(*parsed) : "(damaged)"},
                  {"issuer", parsed ? issuerOf(*parsed) : ""},
                  {"validFrom", parsed ? dateText(parsed->pCertInfo->NotBefore) : ""},
                  {"validTo", parsed ? dateText(parsed->pCertInfo->NotAfter) : ""},
                  {"usages", parsed ? usagesOf(*parsed) : std::vector<std::string>()},
                  {"thumbprint", thumbprintOf(certificate.der)}};
    if (certificate.key) {
        const StandingFacts standing = standingOf(store, certificate.der, *certificate.key);
        facts["container"] = containerName(certificate.key->keyId);
        facts["keyType"] = keyTypeName(certificate.key->keyType);
        facts["keyUsage"] = usageName(certificate.key->usage);
        facts["inStore"] = nameOf(standing.standing);
        facts["provider"] = standing.provider;
        facts["face"] = standing.face;
    }
    return facts;
}

std::string text(const Json& json, const char* name) {
    return json.at(name).get<std::string>();
}

void printCertificate(const Json& facts) {
    print(text(facts, "subject"));
    std::string usages;
    for (const auto& usage : facts.at("usages")) {
        usages += (usages.empty() ? "" : ", ") + usage.get<std::string>();
    }
    print("    issued by " + text(facts, "issuer") + ", valid " + text(facts, "validFrom") + " to " +
          text(facts, "validTo") + (usages.empty() ? "" : ", for " + usages));
    if (!facts.contains("container")) {
        print("    of no key of token " + text(facts, "token"));
        return;
    }
    print("    key " + text(facts, "container") + ", " + text(facts, "keyType") + ", " + text(facts, "keyUsage") +
          ", on " + text(facts, "token"));
    print("    in the user's store: " + text(facts, "inStore") +
          (text(facts, "provider").empty() ? "" : ", " + text(facts, "face") + ", " + text(facts, "provider")));
}

void list(const CertsArguments& arguments) {
    const UserStore store(L"MY");
    Json all = Json::array();
    for (const TokenCertificate& certificate : certificatesOn(arguments.token.devices())) {
        all.push_back(describe(certificate, store));
    }
    if (arguments.json) {
        printJson(all);
        return;
    }
    for (const Json& facts : all) {
        printCertificate(facts);
    }
    if (all.empty()) {
        print("No certificate. To get one: talvik request, then talvik certs import");
    }
}

int report(const std::vector<Outcome>& outcomes, bool json, const char* nothing) {
    Json all = Json::array();
    bool refused = false;
    for (const Outcome& outcome : outcomes) {
        refused = refused || outcome.refused;
        if (json) {
            all.push_back({{"subject", outcome.subject},
                           {"token", outcome.token},
                           {"outcome", outcome.done},
                           {"reason", outcome.reason}});
        } else {
            print(outcome.done + ": " + outcome.subject + ", token " + outcome.token +
                  (outcome.reason.empty() ? "" : ": " + outcome.reason));
        }
    }
    if (json) {
        printJson(all);
    } else if (outcomes.empty()) {
        print(nothing);
    }
    return refused ? Refused : Done;
}

}  // namespace

void addCertsCommands(CLI::App& app, int& exitCode) {
    CLI::App* family = app.add_subcommand("certs", "Certificates on the attached tokens, and the user's store");
    family->require_subcommand(1);
    const auto arguments = std::make_shared<CertsArguments>();
    const auto add = [&](const char* name, const char* what) {
        CLI::App* command = family->add_subcommand(name, what);
        command->add_flag("--json", arguments->json, "As JSON");
        return command;
    };
    CLI::App* listing = add("list", "List the certificates, and whether programs find them");
    arguments->token.addTo(*listing);
    listing->callback([arguments] { list(*arguments); });

    CLI::App* publishing = add("publish", "Put them into the user's store, with the link to their keys");
    arguments->token.addTo(*publishing);
    publishing
        ->add_option("--face", arguments->face, "Link through cng, cryptoapi, or auto: CNG where it opens the key")
        ->check(CLI::IsMember({"auto", "cryptoapi", "cng"}))
        ->capture_default_str();
    publishing->callback([arguments, &exitCode] {
        exitCode = report(publish(certificatesOn(arguments->token.devices()), faces.at(arguments->face)),
                          arguments->json, "No certificate to publish.");
    });

    add("withdraw", "Take out of the user's store what was published")->callback([arguments, &exitCode] {
        exitCode = report(withdraw(std::nullopt), arguments->json, "Nothing was published.");
    });
    addCertsWatch(*family, exitCode);
    addCertsImport(*family);
}

}  // namespace talvik_tool
