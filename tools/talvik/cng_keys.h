// Whether CNG of this system finds a token's key. ncrypt.dll is asked for when it is needed: not every system's CNG
// loads the provider.
#pragma once

#include <string>

namespace talvik_tool {

bool cngOpens(const std::wstring& container);

}  // namespace talvik_tool
