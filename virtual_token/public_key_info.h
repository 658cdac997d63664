// DER SubjectPublicKeyInfo, the form in which public keys travel.
#pragma once

#include "key_types.h"

namespace virtual_token {

// Contents of OBJECT IDENTIFIERs.
inline constexpr std::string_view oidRsaEncryption("\x2A\x86\x48\x86\xF7\x0D\x01\x01\x01", 9);
inline constexpr std::string_view oidEcPublicKey("\x2A\x86\x48\xCE\x3D\x02\x01", 7);

Bytes rsaPublicKeyInfo(ByteView modulus, ByteView exponent);  // big-endian numbers
Bytes ecPublicKeyInfo(const KeyType& curve, ByteView point);  // uncompressed
ByteView withoutLeadingZeros(ByteView number);

}  // namespace virtual_token
