// "talvik request": a certificate request that the token signs.
#pragma once

#include <CLI/CLI.hpp>

namespace talvik_tool {

void addRequestCommand(CLI::App& app);

}  // namespace talvik_tool
