// A PIN from the command line, a file, standard input or the keyboard.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

namespace talvik_tool {

class PinOption {
  public:
    // Adds --NAME and --NAME-file to the command. `what` names the PIN to the user.
    void addTo(CLI::App& command, const std::string& name, const std::string& what);

    bool given() const { return value_.has_value() || !file_.empty(); }

    // Asks when neither option was given. What can be no PIN is refused here, before it costs an attempt.
    std::string read() const;

    // A PIN to be set: printable ASCII, since a dialog on another code page would deliver other bytes. Typed twice.
    std::string readNew() const;

    // Any text, empty too: the password of a file, for which there are no rules here.
    std::string readAny() const;

  private:
    [[noreturn]] void refuse(const std::string& rule) const;

    std::string name_;
    std::string what_;
    std::optional<std::string> value_;
    std::string file_;
};

// A text without a trailing line end, typed unseen where there is a console. `what` is the question.
std::string readUnseen(const std::string& what);

// The first line of a file that Windows tools may have written: a byte order mark is dropped, UTF-16 becomes UTF-8.
// `-` is the standard input.
std::string firstLineOf(const std::string& file);

}  // namespace talvik_tool
