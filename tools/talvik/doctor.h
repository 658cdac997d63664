// "talvik doctor": one page that says whether this machine can use the provider, and if not, why.
#pragma once

#include <CLI/CLI.hpp>

namespace talvik_tool {

// Sets `exitCode` to Done only when all is well.
void addDoctorCommand(CLI::App& app, int& exitCode);

}  // namespace talvik_tool
