// The commands of "talvik token".
#pragma once

#include <CLI/CLI.hpp>

namespace talvik_tool {

void addTokenCommands(CLI::App& app);

}  // namespace talvik_tool
