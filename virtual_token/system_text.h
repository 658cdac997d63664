// Texts on their way between this program and the system.
#pragma once

#include <string>
#include <string_view>

namespace virtual_token {

std::string utf8(std::wstring_view text);  // unpaired surrogates become replacement characters
std::wstring wide(std::string_view text);  // of UTF-8; what is none becomes replacement characters
std::string upperCase(std::string text);   // ASCII letters alone

// "0x00000005 (Access is denied.)": what the system says of its error.
std::string systemErrorText(unsigned long error);

}  // namespace virtual_token
