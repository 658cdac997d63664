#include "printable.h"

#include <cstdio>

namespace talvik_tool {
namespace {

// The bytes of the control character that `text` begins with: one, two for those that UTF-8 writes after 0xC2; 0 for
// none.
std::size_t controlLength(std::string_view text) {
    const auto byte = static_cast<unsigned char>(text[0]);
    if (byte < 0x20 || byte == 0x7F) {
        return 1;
    }
    const auto next = static_cast<unsigned char>(text.size() > 1 ? text[1] : '\0');
    return byte == 0xC2 && next >= 0x80 && next < 0xA0 ? 2 : 0;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string shown;
    shown.reserve(text.size());
    while (!text.empty()) {
        const std::size_t control = controlLength(text);
        for (std::size_t i = 0; i < control; ++i) {
            char escape[5];
            std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned char>(text[i]));
            shown += escape;
        }
        if (control == 0) {
            shown += text[0];
        }
        text.remove_prefix(control == 0 ? 1 : control);
    }
    return shown;
}

}  // namespace talvik_tool
