// Rules for texts of the command line; what breaks one is named, with the rule.
#pragma once

#include <string>

namespace talvik_tool {

// UTF-8 of at most 127 bytes, which is what a token's record has room for, without control characters.
void requireLabel(const std::string& option, const std::string& label);

// Numbers with dots between them: "2.1.0". The provider compares it.
void requireFirmware(const std::string& option, const std::string& version);

}  // namespace talvik_tool
