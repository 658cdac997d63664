#include "text_rules.h"

#include <algorithm>

#include "token_home.h"

namespace talvik_tool {
namespace {

constexpr std::size_t longestLabel = 127;
constexpr std::size_t longestVersion = 31;

bool isControl(unsigned char c) {
    return c < 0x20 || c == 0x7F;
}

bool isPrintableWithoutBlank(unsigned char c) {
    return c > 0x20 && c < 0x7F;
}

bool isVersion(const std::string& version) {
    char before = '.';
    for (const char c : version) {
        const bool isDigit = c >= '0' && c <= '9', isDot = c == '.' && before != '.';
        if (!isDigit && !isDot) {
            return false;
        }
        before = c;
    }
    return before != '.' && version.size() <= longestVersion;
}

std::string unless(bool good, const std::string& rule) {
    return good ? "" : rule;
}

}  // namespace

std::string wrongLabel(const std::string& label) {
    return unless(label.size() <= longestLabel && std::ranges::none_of(label, isControl),
                  "a label has at most 127 bytes and no control characters");
}

std::string wrongVersion(const std::string& version) {
    return unless(isVersion(version), "\"" + version + "\" is no version like 2.1.0, of at most 31 characters");
}

std::string wrongTokenId(const std::string& id) {
    return unless(virtual_token::isTokenId(id),
                  "\"" + id +
                      "\" is no identifier: 1 to 64 letters, digits, '.', '-' and '_', no '.' at either end, and no "
                      "device name of the system such as CON");
}

std::string wrongAsciiName(const std::string& name) {
    return unless(!name.empty() && std::ranges::all_of(name, isPrintableWithoutBlank),
                  "\"" + name + "\" must be ASCII without blanks");
}

}  // namespace talvik_tool
