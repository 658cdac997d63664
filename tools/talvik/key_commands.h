// "talvik key": the key pairs of the attached tokens.
#pragma once

#include <CLI/CLI.hpp>

namespace talvik_tool {

void addKeyCommands(CLI::App& app);

}  // namespace talvik_tool
