// "talvik sign" and "talvik verify": CMS signatures of files.
#pragma once

#include <CLI/CLI.hpp>

namespace talvik_tool {

void addSignCommands(CLI::App& app);

}  // namespace talvik_tool
