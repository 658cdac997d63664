// "talvik certs watch": publishes when a token is attached.
#pragma once

#include <CLI/CLI.hpp>

namespace talvik_tool {

void addCertsWatch(CLI::App& family, int& exitCode);

}  // namespace talvik_tool
