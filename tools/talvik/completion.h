// "talvik completion": what a shell needs to complete this program's command lines.
#pragma once

#include <CLI/CLI.hpp>

namespace talvik_tool {

void addCompletionCommand(CLI::App& app);

}  // namespace talvik_tool
