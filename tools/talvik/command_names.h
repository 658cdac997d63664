// What is said of a word on the command line that is no command.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace talvik_tool {

// "there is no command \"tokn\"; did you mean token?", or empty when the words name commands as far as they go.
std::string unknownCommand(const CLI::App& app, const std::vector<std::string>& words);

}  // namespace talvik_tool
