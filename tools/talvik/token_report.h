// What "talvik token list" and "talvik token show" print.
#pragma once

#include <ostream>
#include <vector>

#include "token_home.h"

namespace talvik_tool {

void printTokens(std::ostream& out, const std::vector<virtual_token::ListedToken>& tokens, bool json);
void printToken(std::ostream& out, const virtual_token::Snapshot& token, bool json);

}  // namespace talvik_tool
