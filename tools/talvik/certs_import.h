// "talvik certs import": puts issued certificates on a token.
#pragma once

#include <CLI/CLI.hpp>

namespace talvik_tool {

void addCertsImport(CLI::App& family);

}  // namespace talvik_tool
