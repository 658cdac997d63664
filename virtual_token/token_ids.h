// The identifiers of tokens, and which of them a folder holds.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace virtual_token {

inline constexpr std::wstring_view tokenExtension = L".json";

// An identifier names a file: letters, digits, '.', '-' and '_', not a device name of the system.
bool isTokenId(std::string_view id);

// In ascending order; none where there is no such folder. A folder whose date tells that no file has come, gone or been
// renamed is not read again.
std::vector<std::string> tokenIdsIn(const std::wstring& folder);

}  // namespace virtual_token
