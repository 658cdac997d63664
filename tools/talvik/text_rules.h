// Rules for texts of the command line, for CLI::Option::check: each gives the rule that a text breaks, or nothing.
#pragma once

#include <string>

namespace talvik_tool {

// UTF-8 of at most 127 bytes, which is what a token's record has room for, without control characters.
std::string wrongLabel(const std::string& label);

// Numbers with dots between them: "2.1.0". The provider compares it.
std::string wrongVersion(const std::string& version);

// The identifier of a virtual token, which names a file.
std::string wrongTokenId(const std::string& id);

// A host's name or a mail address, as certificates hold them.
std::string wrongAsciiName(const std::string& name);

}  // namespace talvik_tool
