#include "pin_option.h"

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <iostream>

#include "status.h"

namespace talvik_tool {
namespace {

using virtual_token::require;
using virtual_token::Status;

std::string firstLine(std::istream& input) {
    std::string line;
    require(static_cast<bool>(std::getline(input, line)), Status::InvalidArgument);
    if (line.ends_with('\r')) {
        line.pop_back();
    }
    return line;
}

// Typed characters stay unseen while this lives.
class SilentConsole {
  public:
    SilentConsole() : console_(GetStdHandle(STD_INPUT_HANDLE)), isConsole_(GetConsoleMode(console_, &mode_) != FALSE) {
        if (isConsole_) {
            SetConsoleMode(console_, mode_ & ~static_cast<DWORD>(ENABLE_ECHO_INPUT));
        }
    }
    ~SilentConsole() {
        if (isConsole_) {
            SetConsoleMode(console_, mode_);
        }
    }
    SilentConsole(const SilentConsole&) = delete;
    SilentConsole& operator=(const SilentConsole&) = delete;

  private:
    HANDLE console_;
    DWORD mode_ = 0;
    bool isConsole_;
};

}  // namespace

void PinOption::addTo(CLI::App& command, const std::string& name, const std::string& what) {
    what_ = what;
    CLI::Option* value = command.add_option("--" + name, value_, what);
    command.add_option("--" + name + "-file", file_, what + ": first line of this file, - for standard input")
        ->excludes(value);
}

std::string PinOption::read() const {
    if (!value_.empty()) {
        return value_;
    }
    if (file_ == "-") {
        return firstLine(std::cin);
    }
    if (!file_.empty()) {
        std::ifstream file(std::filesystem::u8path(file_));
        if (!file) {
            throw virtual_token::TokenError(Status::StorageFailure, "cannot read " + file_);
        }
        return firstLine(file);
    }
    std::cerr << what_ << ": " << std::flush;
    const SilentConsole silent;
    std::string pin = firstLine(std::cin);
    std::cerr << "\n";
    return pin;
}

}  // namespace talvik_tool
