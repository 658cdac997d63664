#include "key_commands.h"

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "device.h"
#include "key_types.h"
#include "output.h"
#include "status.h"
#include "text_rules.h"

namespace talvik_tool {
namespace {

using virtual_token::Status;
using virtual_token::TokenError;
using Json = nlohmann::ordered_json;

struct KeyArguments {
    TokenOption token;
    std::string type = "RSA-2048";
    std::string usage;
    std::string label;
    std::string key;
    bool json = false;
};

Json toJson(const std::string& token, const TalvikKeyPair& key, bool hasCertificate) {
    return {{"token", token},
            {"container", containerName(key.keyId)},
            {"type", keyTypeName(key.keyType)},
            {"usage", usageName(key.usage)},
            {"label", textOf(key.label)},
            {"certificate", hasCertificate}};
}

void list(const KeyArguments& arguments) {
    Json all = Json::array();
    for (const Device& device : arguments.token.devices()) {
        const auto certificates = device.certificates();
        for (const TalvikKeyPair& key : device.keys()) {
            const bool hasCertificate = std::ranges::any_of(
                certificates, [&key](const TalvikCertificate& each) { return belongTogether(each, key); });
            all.push_back(toJson(device.id(), key, hasCertificate));
        }
    }
    if (arguments.json) {
        printJson(all);
        return;
    }
    for (const Json& key : all) {
        print(key.at("container").get<std::string>() + "  " + key.at("type").get<std::string>() + ", " +
              key.at("usage").get<std::string>() + ", on " + key.at("token").get<std::string>() +
              (key.at("certificate").get<bool>() ? "" : ", no certificate") + "  " +
              key.at("label").get<std::string>());
    }
    if (all.empty()) {
        print("No key. To make one: talvik key generate");
    }
}

const char* const typeNames[] = {"RSA-2048", "RSA-3072", "RSA-4096", "P-256", "P-384", "P-521"};

// Elliptic-curve keys sign, and RSA keys do both unless told otherwise.
std::uint32_t usageFor(const virtual_token::KeyType& type, const std::string& wanted) {
    if (wanted.empty()) {
        return type.isRsa() ? TALVIK_USAGE_BOTH : TALVIK_USAGE_SIGN;
    }
    if (!type.isRsa() && wanted != "sign") {
        throw TokenError(Status::InvalidArgument, "--usage: an elliptic-curve key can only sign");
    }
    return wanted == "sign" ? TALVIK_USAGE_SIGN : wanted == "exchange" ? TALVIK_USAGE_EXCHANGE : TALVIK_USAGE_BOTH;
}

void generate(const KeyArguments& arguments) {
    const virtual_token::KeyType& type = *virtual_token::keyTypeNamed(arguments.type);
    const std::uint32_t usage = usageFor(type, arguments.usage);
    Device device = arguments.token.device();
    arguments.token.login(device);
    const TalvikKeyPair key = device.generate(type.code, usage, arguments.label);
    if (arguments.json) {
        printJson(toJson(device.id(), key, false));
    } else {
        print(containerName(key.keyId));
    }
}

void remove(const KeyArguments& arguments) {
    KeyOnToken found = arguments.token.key(arguments.key);
    arguments.token.login(found.device);
    found.device.remove(found.key);
}

}  // namespace

void addKeyCommands(CLI::App& app) {
    CLI::App* family = app.add_subcommand("key", "Key pairs on the attached tokens, hardware and virtual ones");
    family->require_subcommand(1);
    const auto arguments = std::make_shared<KeyArguments>();
    const auto add = [&](const char* name, const char* what, void (*run)(const KeyArguments&)) {
        CLI::App* command = family->add_subcommand(name, what);
        arguments->token.addTo(*command);
        command->callback([arguments, run] { run(*arguments); });
        return command;
    };
    CLI::App* listing = add("list", "List the keys", list);
    listing->add_flag("--json", arguments->json, "As JSON");

    CLI::App* making = add("generate", "Make a key on the token and print its container", generate);
    making->add_option("--type", arguments->type, "RSA-2048, RSA-3072, RSA-4096, P-256, P-384 or P-521")
        ->check(CLI::IsMember(std::vector<std::string>(std::begin(typeNames), std::end(typeNames))))
        ->capture_default_str();
    making->add_option("--usage", arguments->usage, "sign, exchange or both (all that the type can if not given)")
        ->check(CLI::IsMember({"sign", "exchange", "both"}));
    making->add_option("--label", arguments->label, "Label, at most 127 bytes")->check(wrongLabel);
    making->add_flag("--json", arguments->json, "As JSON");
    arguments->token.pin.addTo(*making, "pin", "User PIN");

    CLI::App* deletion = add("delete", "Delete a key and its certificate, for good", remove);
    deletion->add_option("key", arguments->key, "Container or label")->required();
    arguments->token.pin.addTo(*deletion, "pin", "User PIN");
}

}  // namespace talvik_tool
