// "talvik certs": the certificates of the attached tokens, and the user's store.
#pragma once

#include <CLI/CLI.hpp>

namespace talvik_tool {

void addCertsCommands(CLI::App& app, int& exitCode);

}  // namespace talvik_tool
