// A PIN from the command line, a file, standard input or the keyboard.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace talvik_tool {

class PinOption {
  public:
    // Adds --NAME and --NAME-file to the command. `what` names the PIN to the user.
    void addTo(CLI::App& command, const std::string& name, const std::string& what);

    bool given() const { return !value_.empty() || !file_.empty(); }
    std::string read() const;  // asks when neither option was given

  private:
    std::string what_;
    std::string value_;
    std::string file_;
};

}  // namespace talvik_tool
