#include "token_commands.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

#include "pin_option.h"
#include "status.h"
#include "token_report.h"

namespace talvik_tool {
namespace {

using namespace virtual_token;

constexpr const char* defaultFirmware = "2.1.0";
constexpr const char* defaultAdminPin = "12345678";
constexpr std::string_view pemBegin = "-----BEGIN CERTIFICATE-----";
constexpr std::string_view pemEnd = "-----END CERTIFICATE-----";
constexpr std::size_t pemLineLength = 64;

// What the options of all commands are read into; one command runs per process.
struct Arguments {
    std::string id;
    std::string label;
    std::string firmware = defaultFirmware;
    std::string choice;
    std::string key;
    std::string file;
    PinOption pin;
    PinOption newPin;
    PinOption adminPin;
    bool detached = false;
    bool json = false;
    bool der = false;
};

std::shared_ptr<Token> tokenOf(const Arguments& arguments) {
    return findToken(arguments.id);
}

// --- certificates as files ---

Bytes readCertificateFile(const std::string& name) {
    std::ifstream file(std::filesystem::u8path(name), std::ios::binary);
    if (!file) {
        throw TokenError(Status::StorageFailure, "cannot read " + name);
    }
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    const auto begin = content.find(pemBegin);
    if (begin == std::string::npos) {
        return Bytes(content.begin(), content.end());
    }
    const auto body = begin + pemBegin.size();
    const auto end = content.find(pemEnd, body);
    require(end != std::string::npos, Status::BadCertificate);
    std::string base64 = content.substr(body, end - body);
    std::erase_if(base64, [](unsigned char c) { return std::isspace(c) != 0; });
    try {
        return fromBase64(base64);
    } catch (const TokenError&) {
        throw TokenError(Status::BadCertificate);
    }
}

std::string pemOf(ByteView der) {
    const std::string base64 = toBase64(der);
    std::string pem(pemBegin);
    for (std::size_t i = 0; i < base64.size(); i += pemLineLength) {
        pem += "\n" + base64.substr(i, pemLineLength);
    }
    return pem + "\n" + std::string(pemEnd) + "\n";
}

// --- keys named on the command line: by identifier or by label ---

const KeyPairObject& keyNamed(const Snapshot& token, const std::string& name) {
    std::string upper = name;
    std::ranges::transform(upper, upper.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    const auto& keyPairs = token.objects->objects().keyPairs;
    const auto found = std::ranges::find_if(
        keyPairs, [&](const KeyPairObject& key) { return toHex(key.id) == upper || key.label == name; });
    require(found != keyPairs.end(), Status::NoSuchObject);
    return *found;
}

const CertificateObject& certificateFor(const Snapshot& token, const std::string& keyName) {
    const auto& certificates = token.objects->objects().certificates;
    if (keyName.empty() && certificates.size() == 1) {
        return certificates.front();
    }
    if (keyName.empty() && certificates.size() > 1) {
        throw TokenError(Status::InvalidArgument, "the token has several certificates: name one with --key");
    }
    require(!certificates.empty(), Status::NoSuchObject);
    const ObjectId id = keyNamed(token, keyName).id;
    const auto found = std::ranges::find(certificates, id, &CertificateObject::keyId);
    require(found != certificates.end(), Status::NoSuchObject);
    return *found;
}

// --- the commands ---

void create(const Arguments& arguments) {
    TokenState state;
    state.id = arguments.id;
    state.label = arguments.label.empty() ? arguments.id : arguments.label;
    state.firmwareVersion = arguments.firmware;
    state.attached = !arguments.detached;
    const std::string pin = arguments.pin.read();
    createToken(std::move(state), pin, arguments.adminPin.given() ? arguments.adminPin.read() : defaultAdminPin);
}

void setAttached(const Arguments& arguments, bool attached) {
    tokenOf(arguments)->changeState([attached](TokenState& state) { state.attached = attached; });
}

void changePin(const Arguments& arguments) {
    const std::string pin = arguments.pin.read();
    tokenOf(arguments)->changePin(pin, arguments.newPin.read());
}

void unblock(const Arguments& arguments) {
    const std::string adminPin = arguments.adminPin.read();
    tokenOf(arguments)->unblock(adminPin, arguments.newPin.read());
}

void singleSignOn(const Arguments& arguments) {
    if (arguments.choice == "on") {
        tokenOf(arguments)->signOn(arguments.pin.read());
    } else {
        tokenOf(arguments)->endSignOn(arguments.choice == "off" ? SignOn::Off : SignOn::Expired);
    }
}

void clock(const Arguments& arguments) {
    const bool skewed = arguments.choice == "skew";
    tokenOf(arguments)->changeState([skewed](TokenState& state) { state.clockSkewed = skewed; });
}

void importCertificate(const Arguments& arguments) {
    const std::shared_ptr<Token> token = tokenOf(arguments);
    CertificateObject certificate;
    certificate.der = readCertificateFile(arguments.file);
    require(certificate.der.size() <= sizeof(TalvikCertificate::der), Status::BadCertificate);
    certificate.label = arguments.label;
    if (!arguments.key.empty()) {
        certificate.keyId = keyNamed(*token->snapshot(), arguments.key).id;
    }
    token->importCertificate(arguments.pin.read(), std::move(certificate));
}

void exportCertificate(const Arguments& arguments) {
    const SnapshotPointer token = tokenOf(arguments)->snapshot();
    const Bytes& der = certificateFor(*token, arguments.key).der;
    const std::string content = arguments.der ? std::string(der.begin(), der.end()) : pemOf(der);
    if (arguments.file.empty()) {
        std::cout << content;
        return;
    }
    std::ofstream file(std::filesystem::u8path(arguments.file), std::ios::binary);
    file << content << std::flush;
    if (!file) {
        throw TokenError(Status::StorageFailure, "cannot write " + arguments.file);
    }
}

void deleteKey(const Arguments& arguments) {
    const std::shared_ptr<Token> token = tokenOf(arguments);
    const ObjectId id = keyNamed(*token->snapshot(), arguments.key).id;
    token->deleteKeyPair(arguments.pin.read(), id);
}

using SharedArguments = std::shared_ptr<Arguments>;

CLI::App* addCommand(CLI::App& parent, const SharedArguments& arguments, const char* name, const char* what,
                     std::function<void(const Arguments&)> run) {
    CLI::App* command = parent.add_subcommand(name, what);
    command->callback([arguments, run = std::move(run)] { run(*arguments); });
    return command;
}

CLI::App* addTokenCommand(CLI::App& parent, const SharedArguments& arguments, const char* name, const char* what,
                          std::function<void(const Arguments&)> run) {
    CLI::App* command = addCommand(parent, arguments, name, what, std::move(run));
    command->add_option("id", arguments->id, "Token identifier")->required();
    return command;
}

void addStateCommands(CLI::App& family, const SharedArguments& arguments) {
    CLI::App* made = addCommand(family, arguments, "create", "Make a new token", create);
    made->add_option("--id", arguments->id, "Identifier: letters, digits, '.', '-', '_'")->required();
    made->add_option("--label", arguments->label, "Label (the identifier if not given)");
    made->add_option("--firmware", arguments->firmware, "Firmware version that the token reports")
        ->capture_default_str();
    made->add_flag("--detached", arguments->detached, "Leave it unplugged");
    arguments->pin.addTo(*made, "pin", "User PIN, 4 to 63 characters");
    arguments->adminPin.addTo(*made, "admin-pin", "Administrator PIN (12345678 if not given)");

    CLI::App* list = addCommand(family, arguments, "list", "List all tokens",
                                [](const Arguments& given) { printTokens(std::cout, listTokens(), given.json); });
    list->add_flag("--json", arguments->json, "As JSON");
    CLI::App* show =
        addTokenCommand(family, arguments, "show", "Show a token and what it holds",
                        [](const Arguments& given) { printToken(std::cout, *tokenOf(given)->snapshot(), given.json); });
    show->add_flag("--json", arguments->json, "As JSON");

    addTokenCommand(family, arguments, "attach", "Plug a token in",
                    [](const Arguments& given) { setAttached(given, true); });
    addTokenCommand(family, arguments, "detach", "Unplug a token",
                    [](const Arguments& given) { setAttached(given, false); });

    CLI::App* clocks = family.add_subcommand("clock", "Whether the token agrees with the computer's clock");
    clocks->require_subcommand(1);
    addTokenCommand(*clocks, arguments, "skew", "Refuse logins with the time-mismatch status", clock)
        ->preparse_callback([arguments](std::size_t) { arguments->choice = "skew"; });
    addTokenCommand(*clocks, arguments, "ok", "Accept logins", clock)->preparse_callback([arguments](std::size_t) {
        arguments->choice = "ok";
    });
}

void addPinCommands(CLI::App& family, const SharedArguments& arguments) {
    CLI::App* change = addTokenCommand(family, arguments, "change-pin", "Change the user PIN", changePin);
    arguments->pin.addTo(*change, "pin", "Current PIN");
    arguments->newPin.addTo(*change, "new-pin", "New PIN, 4 to 63 characters");

    CLI::App* unblocking =
        addTokenCommand(family, arguments, "unblock", "Set a new user PIN with the administrator's", unblock);
    arguments->adminPin.addTo(*unblocking, "admin-pin", "Administrator PIN");
    arguments->newPin.addTo(*unblocking, "new-pin", "New PIN, 4 to 63 characters");

    CLI::App* signOn = family.add_subcommand("sso", "Single sign-on");
    signOn->require_subcommand(1);
    const auto addChoice = [&](const char* choice, const char* what) {
        CLI::App* command = addTokenCommand(*signOn, arguments, choice, what, singleSignOn);
        command->preparse_callback([arguments, choice](std::size_t) { arguments->choice = choice; });
        return command;
    };
    arguments->pin.addTo(*addChoice("on", "Log the user in for all processes"), "pin", "User PIN");
    addChoice("off", "End the sign-on");
    addChoice("expire", "Let the sign-on expire: private-key operations ask for a new login");
}

void addObjectCommands(CLI::App& family, const SharedArguments& arguments) {
    CLI::App* import = addTokenCommand(family, arguments, "import-cert", "Store a certificate", importCertificate);
    import->add_option("file", arguments->file, "Certificate, PEM or DER")->required();
    import->add_option("--key", arguments->key, "Key pair, by identifier or label (by public key if not given)");
    import->add_option("--label", arguments->label, "Label of the certificate");
    arguments->pin.addTo(*import, "pin", "User PIN");

    CLI::App* exported = addTokenCommand(family, arguments, "export-cert", "Write a certificate", exportCertificate);
    exported->add_option("--key", arguments->key, "Key pair, by identifier or label");
    exported->add_option("--out", arguments->file, "File to write (standard output if not given)");
    exported->add_flag("--der", arguments->der, "DER instead of PEM; needs --out")->needs("--out");

    CLI::App* deletion =
        addTokenCommand(family, arguments, "delete-key", "Delete a key pair and its certificate", deleteKey);
    deletion->add_option("key", arguments->key, "Key pair, by identifier or label")->required();
    arguments->pin.addTo(*deletion, "pin", "User PIN");
}

}  // namespace

void addTokenCommands(CLI::App& app) {
    CLI::App* family = app.add_subcommand("token", "Virtual tokens");
    family->require_subcommand(1);
    const auto arguments = std::make_shared<Arguments>();
    addStateCommands(*family, arguments);
    addPinCommands(*family, arguments);
    addObjectCommands(*family, arguments);
}

}  // namespace talvik_tool
