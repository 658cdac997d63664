// What certificate requests and signatures are written with, beyond the token's own DER.
#pragma once

#include <string_view>

#include "der.h"

namespace talvik_tool {

using virtual_token::Bytes;
using virtual_token::ByteView;

inline constexpr unsigned char derOctetString = 0x04;
inline constexpr unsigned char derUtcTime = 0x17;
inline constexpr unsigned char derGeneralizedTime = 0x18;
inline constexpr unsigned char derExplicit0 = 0xA0;  // [0], constructed

Bytes derObjectId(std::string_view dotted);   // "1.2.840.113549.1.7.2"
Bytes derSmallInteger(unsigned char value);   // 0 to 127
Bytes derSetOf(std::vector<Bytes> elements);  // in the order that DER wants
Bytes derSequenceOf(const std::vector<Bytes>& elements);

}  // namespace talvik_tool
