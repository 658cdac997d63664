#include "text_rules.h"

#include <algorithm>

#include "status.h"

namespace talvik_tool {
namespace {

using virtual_token::Status;
using virtual_token::TokenError;

constexpr std::size_t longestLabel = 127;
constexpr std::size_t longestVersion = 31;

bool isControl(unsigned char c) {
    return c < 0x20 || c == 0x7F;
}

}  // namespace

void requireLabel(const std::string& option, const std::string& label) {
    if (label.size() > longestLabel || std::ranges::any_of(label, isControl)) {
        throw TokenError(Status::InvalidArgument, option + ": a label has at most 127 bytes and no control characters");
    }
}

void requireFirmware(const std::string& option, const std::string& version) {
    bool good = !version.empty() && version.size() <= longestVersion;
    char before = '.';
    for (const char c : version) {
        good = good && ((c >= '0' && c <= '9') || (c == '.' && before != '.'));
        before = c;
    }
    if (!good || before == '.') {
        throw TokenError(Status::InvalidArgument,
                         option + ": \"" + version + "\" is no version like 2.1.0, of at most 31 characters");
    }
}

}  // namespace talvik_tool
