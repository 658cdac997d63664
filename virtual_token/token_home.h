// Where the tokens are, and the tokens of this process.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "token.h"
#include "token_ids.h"

namespace virtual_token {

// %TALVIK_TOKEN_HOME%, else %LOCALAPPDATA%\Quorvel\VirtualToken. Read anew each time; empty when neither is set.
std::wstring tokenHome();

std::wstring tokenPath(std::string_view id);  // throws TokenError(InvalidArgument) unless isTokenId

// Throws TokenError(NoSuchDevice).
std::shared_ptr<Token> findToken(std::string_view id);

// Identifiers in ascending order, with what went wrong for a file that cannot be read.
struct ListedToken {
    std::string id;
    SnapshotPointer snapshot;  // null when the file cannot be read
    std::string problem;
};
std::vector<ListedToken> listTokens();

void createToken(TokenState state, std::string_view pin, std::string_view adminPin);

// Throws TokenError(NoSuchDevice) when there is no such file; the identifier may be that of a damaged one.
void deleteToken(std::string_view id);

}  // namespace virtual_token
