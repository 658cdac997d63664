// The virtual tokens, keys and certificates that command lines name.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>

#include "pin_option.h"
#include "token_home.h"

namespace talvik_tool {

// What the options of all commands of "talvik token" are read into; one command runs per process.
struct TokenArguments {
    std::string id;
    std::string label;
    std::string firmware = "2.1.0";
    std::string choice;
    std::string key;
    std::string certificate;
    std::string usage;
    std::string file;
    PinOption pin;
    PinOption newPin;
    PinOption adminPin;
    PinOption newAdminPin;
    PinOption password;
    bool detached = false;
    bool json = false;
    bool der = false;
    bool yes = false;
};
using SharedTokenArguments = std::shared_ptr<TokenArguments>;

// Throws NoSuchDevice, and says so when a name differs in case only, or when the user has no token at all.
std::shared_ptr<virtual_token::Token> tokenOf(const TokenArguments& arguments);

// The identifier of a token whose file the system takes for `id`'s; empty when there is none.
std::string sameButForCase(const std::string& id);

// By identifier or label.
const virtual_token::KeyPairObject& keyNamed(const virtual_token::Snapshot& token, const std::string& name);

// By thumbprint, subject or label, or by its key's identifier or label; the only one without a name.
const virtual_token::CertificateObject& certificateNamed(const virtual_token::Snapshot& token, const std::string& name);

CLI::App* addTokenCommand(CLI::App& parent, const SharedTokenArguments& arguments, const char* name, const char* what,
                          std::function<void(const TokenArguments&)> run);

// Keys and certificates in and out (token_imports.cpp).
void addTokenObjectCommands(CLI::App& family, const SharedTokenArguments& arguments);

}  // namespace talvik_tool
