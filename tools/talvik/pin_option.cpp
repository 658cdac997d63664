#include "pin_option.h"

#include <windows.h>

#include <algorithm>
#include <iostream>

#include "files.h"
#include "status.h"
#include "system_text.h"
#include "token.h"

namespace talvik_tool {
namespace {

using virtual_token::Status;
using virtual_token::TokenError;
using virtual_token::utf8;

constexpr std::string_view utf8Mark = "\xEF\xBB\xBF";
constexpr std::string_view utf16LittleMark = "\xFF\xFE";
constexpr std::string_view utf16BigMark = "\xFE\xFF";
constexpr char pinRule[] = "a PIN has 4 to 63 characters";

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
            std::cerr << "\n";
        }
    }
    SilentConsole(const SilentConsole&) = delete;
    SilentConsole& operator=(const SilentConsole&) = delete;

  private:
    HANDLE console_;
    DWORD mode_ = 0;
    bool isConsole_;
};

std::string fromUtf16(std::string_view bytes, bool bigEndian) {
    std::wstring text;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const auto first = static_cast<unsigned char>(bytes[i]), second = static_cast<unsigned char>(bytes[i + 1]);
        text += static_cast<wchar_t>(bigEndian ? first << 8 | second : second << 8 | first);
    }
    return utf8(text);
}

std::string asUtf8(const std::string& text) {
    if (text.starts_with(utf16LittleMark) || text.starts_with(utf16BigMark)) {
        return fromUtf16(std::string_view(text).substr(2), text.starts_with(utf16BigMark));
    }
    return text.starts_with(utf8Mark) ? text.substr(utf8Mark.size()) : text;
}

std::string lineFromInput() {
    std::string line;
    std::getline(std::cin, line);
    return asUtf8(line);
}

bool isPrintableAscii(const std::string& text) {
    return std::ranges::all_of(text, [](unsigned char c) { return c >= 0x20 && c < 0x7F; });
}

}  // namespace

std::string firstLineOf(const std::string& file) {
    std::string text;
    if (file == "-") {
        text = lineFromInput();
    } else {
        const SecretBytes content = readWholeFile(file);
        text = asUtf8(std::string(content.begin(), content.end()));
    }
    text.erase(std::min(text.find_first_of("\r\n"), text.size()));
    return text;
}

std::string readUnseen(const std::string& what) {
    std::cerr << what << ": " << std::flush;
    const SilentConsole silent;
    std::string line = lineFromInput();
    line.erase(std::min(line.find('\r'), line.size()));
    return line;
}

void PinOption::addTo(CLI::App& command, const std::string& name, const std::string& what) {
    name_ = "--" + name;
    what_ = what;
    CLI::Option* value = command.add_option(name_, value_, what);
    command.add_option(name_ + "-file", file_, what + ": first line of this file, - for standard input")
        ->excludes(value);
}

void PinOption::refuse(const std::string& rule) const {
    const std::string source = value_ ? name_ : file_.empty() ? what_ : name_ + "-file " + file_;
    throw TokenError(Status::InvalidArgument, source + ": " + rule);
}

std::string PinOption::readAny() const {
    return value_ ? *value_ : file_.empty() ? readUnseen(what_) : firstLineOf(file_);
}

std::string PinOption::read() const {
    std::string pin = readAny();
    if (pin.empty()) {
        refuse(file_.empty() ? "no PIN was given" : "there is no PIN in its first line");
    }
    if (pin.size() < virtual_token::shortestPin || pin.size() > virtual_token::longestPin) {
        refuse(pinRule);
    }
    if (std::ranges::any_of(pin, [](unsigned char c) { return c < 0x20 || c == 0x7F; })) {
        refuse("a PIN holds no control characters");
    }
    return pin;
}

std::string PinOption::readNew() const {
    std::string pin = read();
    if (!isPrintableAscii(pin)) {
        refuse("a new PIN has printable ASCII characters only: a dialog would deliver others as other bytes");
    }
    if (!value_ && file_.empty() && readUnseen(what_ + ", once more") != pin) {
        refuse("the two differ");
    }
    return pin;
}

}  // namespace talvik_tool
