// talvik.exe: manages virtual tokens, diagnoses an installation, reads the log.
#include <windows.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <shellapi.h>

#include "certs_commands.h"
#include "command_names.h"
#include "completion.h"
#include "doctor.h"
#include "exit_code.h"
#include "key_commands.h"
#include "log_command.h"
#include "printable.h"
#include "request_command.h"
#include "sign_commands.h"
#include "status.h"
#include "system_folder.h"
#include "system_text.h"
#include "token_commands.h"

namespace {

using namespace talvik_tool;
using virtual_token::Status;
using virtual_token::TokenError;
using virtual_token::utf8;

// In UTF-8, whatever the console's code page, last argument first, as the parser takes them.
std::vector<std::string> argumentsReversed() {
    int count = 0;
    wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), &count);
    std::vector<std::string> arguments;
    for (int i = count - 1; i > 0; --i) {
        arguments.push_back(utf8(wide[i]));
    }
    LocalFree(wide);
    return arguments;
}

ExitCode exitCodeOf(Status status) {
    switch (status) {
        case Status::InvalidArgument:
            return Usage;
        case Status::NoSuchDevice:
        case Status::NoSuchObject:
            return NotFound;
        case Status::AlreadyExists:
            return Exists;
        case Status::StorageFailure:
        case Status::OutOfMemory:
        case Status::InternalError:
            return Failed;
        default:
            return Refused;
    }
}

int run() {
    int exitCode = Done;
    CLI::App app("Keys and certificates on Talvik tokens, virtual tokens, and diagnosis of the provider.", "talvik");
    app.set_version_flag("--version", "talvik " TALVIK_VERSION);
    app.require_subcommand(1);
    app.footer(
        "Exit codes: 0 done, 1 refused by the token (PIN, detached) or not valid, 2 wrong usage, 3 no such token, key\n"
        "or certificate, 4 exists already, 5 file or other failure.");
    addKeyCommands(app);
    addRequestCommand(app);
    addCertsCommands(app, exitCode);
    addSignCommands(app);
    addTokenCommands(app);
    addDoctorCommand(app, exitCode);
    addLogCommand(app, exitCode);
    addCompletionCommand(app);
    const std::vector<std::string> reversed = argumentsReversed();
    try {
        app.parse(std::vector(reversed));
        return exitCode;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {  // help was asked for
            return app.exit(error);
        }
        const std::string unknown = unknownCommand(app, {reversed.rbegin(), reversed.rend()});
        std::cerr << "talvik: " << printable(unknown.empty() ? error.what() : unknown)
                  << "\nRun with --help for more information.\n";
        return Usage;
    }
}

}  // namespace

int main() {
    loadFromSystemFolderOnly();
    try {
        return run();
    } catch (const TokenError& error) {
        std::cerr << "talvik: " << printable(error.what()) << "\n";
        return exitCodeOf(error.status());
    } catch (const std::exception& error) {
        std::cerr << "talvik: " << printable(error.what()) << "\n";
        return Failed;
    }
}
