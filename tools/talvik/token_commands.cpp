#include "token_commands.h"

#include <algorithm>
#include <iostream>

#include "pin_option.h"
#include "printable.h"
#include "status.h"
#include "system_text.h"
#include "text_rules.h"
#include "token_names.h"
#include "token_report.h"

namespace talvik_tool {
namespace {

using namespace virtual_token;
using Arguments = TokenArguments;
using SharedArguments = SharedTokenArguments;

constexpr const char* defaultAdminPin = "12345678";

// --- the commands ---

void requireNewId(const std::string& id) {
    const auto tokens = listTokens();
    if (std::ranges::find(tokens, id, &ListedToken::id) != tokens.end()) {
        throw TokenError(Status::AlreadyExists, "--id: there is a token " + id + " already");
    }
    const std::string other = sameButForCase(id);
    if (!other.empty()) {
        throw TokenError(Status::AlreadyExists,
                         "--id: there is a token " + other + ", whose file would be the one of " + id);
    }
}

void create(const Arguments& arguments) {
    requireNewId(arguments.id);
    TokenState state;
    state.id = arguments.id;
    state.label = arguments.label.empty() ? arguments.id : arguments.label;
    state.firmwareVersion = arguments.firmware;
    state.attached = !arguments.detached;
    const std::string pin = arguments.pin.readNew();
    createToken(std::move(state), pin, arguments.adminPin.given() ? arguments.adminPin.readNew() : defaultAdminPin);
}

void listAll(const Arguments& arguments) {
    const auto tokens = listTokens();
    printTokens(std::cout, tokens, arguments.json);
    if (tokens.empty()) {
        std::cerr << "No token in " << printable(utf8(tokenHome())) << ". To make one: talvik token create --id T1\n";
    }
}

void setAttached(const Arguments& arguments, bool attached) {
    tokenOf(arguments)->changeState([attached](TokenState& state) { state.attached = attached; });
}

void changePin(const Arguments& arguments) {
    const std::string pin = arguments.pin.read();
    tokenOf(arguments)->changePin(pin, arguments.newPin.readNew());
}

void unblock(const Arguments& arguments) {
    const std::string adminPin = arguments.adminPin.read();
    tokenOf(arguments)->unblock(adminPin, arguments.newPin.readNew());
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

void changeAdminPin(const Arguments& arguments) {
    const std::string adminPin = arguments.adminPin.read();
    tokenOf(arguments)->changeAdminPin(adminPin, arguments.newAdminPin.readNew());
}

// Its keys are gone with it: whoever runs this says so, on the command line or when asked.
void deleteWholeToken(const Arguments& arguments) {
    const auto tokens = listTokens();
    if (std::ranges::find(tokens, arguments.id, &ListedToken::id) == tokens.end()) {
        tokenOf(arguments);  // says what is wrong with the name
    }
    if (!arguments.yes) {
        std::cerr << "This deletes token " << arguments.id
                  << " with its keys, for good. Its identifier, to confirm: " << std::flush;
        if (firstLineOf("-") != arguments.id) {
            throw TokenError(Status::InvalidArgument, "not confirmed; nothing was deleted");
        }
    }
    deleteToken(arguments.id);
}

CLI::App* addCommand(CLI::App& parent, const SharedArguments& arguments, const char* name, const char* what,
                     std::function<void(const Arguments&)> run) {
    CLI::App* command = parent.add_subcommand(name, what);
    command->callback([arguments, run = std::move(run)] { run(*arguments); });
    return command;
}

void addStateCommands(CLI::App& family, const SharedArguments& arguments) {
    CLI::App* made = addCommand(family, arguments, "create", "Make a new token", create);
    made->add_option("--id", arguments->id, "Identifier: letters, digits, '.', '-', '_'")
        ->required()
        ->check(wrongTokenId);
    made->add_option("--label", arguments->label, "Label (the identifier if not given)")->check(wrongLabel);
    made->add_option("--firmware", arguments->firmware, "Firmware version that the token reports")
        ->check(wrongVersion)
        ->capture_default_str();
    made->add_flag("--detached", arguments->detached, "Leave it unplugged");
    arguments->pin.addTo(*made, "pin", "User PIN, 4 to 63 printable ASCII characters");
    arguments->adminPin.addTo(*made, "admin-pin", "Administrator PIN (12345678 if not given)");

    CLI::App* list = addCommand(family, arguments, "list", "List all tokens", listAll);
    list->add_flag("--json", arguments->json, "As JSON");
    CLI::App* show =
        addTokenCommand(family, arguments, "show", "Show a token and what it holds",
                        [](const Arguments& given) { printToken(std::cout, *tokenOf(given)->snapshot(), given.json); });
    show->add_flag("--json", arguments->json, "As JSON");

    addTokenCommand(family, arguments, "delete", "Delete a token with all that it holds, a damaged one too",
                    deleteWholeToken)
        ->add_flag("--yes", arguments->yes, "Do not ask");

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
    arguments->newPin.addTo(*change, "new-pin", "New PIN, 4 to 63 printable ASCII characters");

    CLI::App* unblocking =
        addTokenCommand(family, arguments, "unblock", "Set a new user PIN with the administrator's", unblock);
    arguments->adminPin.addTo(*unblocking, "admin-pin", "Administrator PIN");
    arguments->newPin.addTo(*unblocking, "new-pin", "New PIN, 4 to 63 printable ASCII characters");

    CLI::App* admin =
        addTokenCommand(family, arguments, "change-admin-pin", "Change the administrator's PIN", changeAdminPin);
    arguments->adminPin.addTo(*admin, "admin-pin", "Current administrator PIN");
    arguments->newAdminPin.addTo(*admin, "new-admin-pin", "New administrator PIN, 4 to 63 printable ASCII characters");

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

}  // namespace

void addTokenCommands(CLI::App& app) {
    CLI::App* family = app.add_subcommand("token", "Virtual tokens");
    family->require_subcommand(1);
    const auto arguments = std::make_shared<TokenArguments>();
    addStateCommands(*family, arguments);
    addPinCommands(*family, arguments);
    addTokenObjectCommands(*family, arguments);
}

}  // namespace talvik_tool
