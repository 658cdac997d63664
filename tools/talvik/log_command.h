// "talvik log": prints and follows what the provider has logged, and sets how much it logs.
#pragma once

#include <CLI/CLI.hpp>

namespace talvik_tool {

void addLogCommand(CLI::App& app, int& exitCode);

}  // namespace talvik_tool
