// Byte-level helpers that both faces share: hex text, DER, byte order. Pure functions: no token, no log, no state.
// Numbers are big-endian byte arrays unless said otherwise; results belong to the caller.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace talvik {

using Bytes = std::vector<unsigned char>;
using ByteView = std::span<const unsigned char>;

void append(Bytes& bytes, ByteView more);

// Drops a leading "0x" or "0X" and reads an odd text as if it began with '0'. A character that is no hex digit counts
// as 0.
Bytes hexStringToBytes(std::string_view text);

// Upper case, two characters a byte; "" for a count below 1.
std::string bytesToHexString(const unsigned char* bytes, int count);

// Lower case, no prefix, no leading zeros.
std::string uintToHexString(std::uint32_t value);

// Exactly `width` bytes, high bits cut off. A negative value gives zeros.
Bytes uintToBigEndianBytes(std::int32_t value, std::uint32_t width);

Bytes derEncodeLength(std::uint64_t length);
Bytes derEncodeTlv(unsigned char tag, ByteView content);

// A magnitude with its top bit set gets a zero in front; zeros that are already there stay.
Bytes derEncodeInteger(ByteView magnitude);

// The head of a DER element.
struct DerHeader {
    unsigned char tag;
    std::size_t size;         // bytes of the head itself
    std::size_t contentSize;  // as it says, there or not
};

// Reads no byte behind the head. Nothing where none begins, or where the length is indefinite or has more than four
// octets.
std::optional<DerHeader> derReadHeader(ByteView der);

// The element at the start of DER: its content, and what comes after it. Nothing where it is not all there.
struct DerElement {
    unsigned char tag;
    ByteView content;
    ByteView rest;
};
std::optional<DerElement> derReadElement(ByteView der);

// DER SubjectPublicKeyInfo of an RSA key, from hex texts or from bytes.
Bytes buildRsaPublicKeyDer(std::string_view modulusHex, std::string_view exponentHex);
Bytes buildRsaPublicKeyDerFromBytes(ByteView modulus, ByteView exponent);

// A held public key is either DER already or a bare modulus. Nothing but the first byte tells: 0x30 is DER, and so is
// an empty key, which passes through.
bool isDerPublicKey(ByteView publicKey);

// CryptoAPI hands signatures, RSA ciphertexts and moduli least significant byte first, the token most significant
// first.
Bytes reverseBytes(ByteView bytes);

// Keeps the low 8 bits of each character; names are expected to be ASCII.
std::string narrowed(std::wstring_view text);

}  // namespace talvik
