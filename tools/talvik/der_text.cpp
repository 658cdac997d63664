#include "der_text.h"

#include <algorithm>
#include <charconv>

namespace talvik_tool {
namespace {

void appendArc(Bytes& content, unsigned value) {
    const std::size_t at = content.size();
    content.push_back(static_cast<unsigned char>(value & 0x7F));
    for (value >>= 7; value > 0; value >>= 7) {
        content.insert(content.begin() + static_cast<std::ptrdiff_t>(at),
                       static_cast<unsigned char>(0x80 | (value & 0x7F)));
    }
}

Bytes joined(const std::vector<Bytes>& elements) {
    Bytes all;
    for (const Bytes& element : elements) {
        all.insert(all.end(), element.begin(), element.end());
    }
    return all;
}

}  // namespace

Bytes derObjectId(std::string_view dotted) {
    std::vector<unsigned> arcs;
    for (const char *at = dotted.data(), *end = at + dotted.size(); at < end; ++at) {
        at = std::from_chars(at, end, arcs.emplace_back()).ptr;
    }
    Bytes content;
    appendArc(content, arcs[0] * 40 + arcs[1]);
    for (std::size_t i = 2; i < arcs.size(); ++i) {
        appendArc(content, arcs[i]);
    }
    return virtual_token::derElement(virtual_token::derObjectIdentifier, {content});
}

Bytes derSmallInteger(unsigned char value) {
    return {virtual_token::derInteger, 1, value};
}

Bytes derSetOf(std::vector<Bytes> elements) {
    std::ranges::sort(elements);
    return virtual_token::derElement(virtual_token::derSet, {joined(elements)});
}

Bytes derSequenceOf(const std::vector<Bytes>& elements) {
    return virtual_token::derElement(virtual_token::derSequence, {joined(elements)});
}

}  // namespace talvik_tool
