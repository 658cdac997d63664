// Key properties whose names are not those of the Windows headers.
#pragma once

#include <string_view>

namespace talvik::ksp {

inline constexpr std::wstring_view chainingModeProperty = L"ChainingMode";
inline constexpr std::wstring_view ivProperty = L"IV";

}  // namespace talvik::ksp
