#include "token/key_encoding.h"

#include <algorithm>
#include <charconv>

#include "log/utils.h"

namespace talvik {
namespace {

constexpr unsigned char tagInteger = 0x02;
constexpr unsigned char tagBitString = 0x03;
constexpr unsigned char tagSequence = 0x30;

// AlgorithmIdentifier { rsaEncryption 1.2.840.113549.1.1.1, NULL }.
constexpr unsigned char rsaAlgorithmIdentifier[] = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                                    0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};

unsigned char hexDigitValue(char digit) {
    if (digit >= '0' && digit <= '9') {
        return static_cast<unsigned char>(digit - '0');
    }
    if (digit >= 'a' && digit <= 'f') {
        return static_cast<unsigned char>(digit - 'a' + 10);
    }
    if (digit >= 'A' && digit <= 'F') {
        return static_cast<unsigned char>(digit - 'A' + 10);
    }
    return 0;
}

void appendTlv(Bytes& target, unsigned char tag, ByteView content) {
    target.push_back(tag);
    append(target, derEncodeLength(content.size()));
    append(target, content);
}

}  // namespace

void append(Bytes& bytes, ByteView more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

Bytes hexStringToBytes(std::string_view text) {
    if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        text.remove_prefix(2);
    }
    Bytes bytes;
    bytes.reserve((text.size() + 1) / 2);
    if (text.size() % 2 != 0) {
        bytes.push_back(hexDigitValue(text.front()));
        text.remove_prefix(1);
    }
    for (; !text.empty(); text.remove_prefix(2)) {
        bytes.push_back(static_cast<unsigned char>(hexDigitValue(text[0]) << 4 | hexDigitValue(text[1])));
    }
    return bytes;
}

std::string bytesToHexString(const unsigned char* bytes, int count) {
    return Utils().bytesToHexString(bytes, count);
}

std::string uintToHexString(std::uint32_t value) {
    char digits[8];
    return {digits, std::to_chars(digits, digits + sizeof digits, value, 16).ptr};
}

Bytes uintToBigEndianBytes(std::int32_t value, std::uint32_t width) {
    Bytes bytes(width);
    for (auto at = bytes.rbegin(); at != bytes.rend() && value > 0; ++at) {
        *at = static_cast<unsigned char>(value % 256);
        value /= 256;
    }
    return bytes;
}

Bytes derEncodeLength(std::uint64_t length) {
    if (length < 0x80) {
        return {static_cast<unsigned char>(length)};
    }
    Bytes octets;
    for (std::uint64_t rest = length; rest > 0; rest >>= 8) {
        octets.push_back(static_cast<unsigned char>(rest));
    }
    octets.push_back(static_cast<unsigned char>(0x80 | octets.size()));
    std::ranges::reverse(octets);
    return octets;
}

Bytes derEncodeTlv(unsigned char tag, ByteView content) {
    Bytes encoded;
    encoded.reserve(content.size() + 10);
    appendTlv(encoded, tag, content);
    return encoded;
}

Bytes derEncodeInteger(ByteView magnitude) {
    if (magnitude.empty() || magnitude.front() < 0x80) {
        return derEncodeTlv(tagInteger, magnitude);
    }
    Bytes guarded{0x00};
    append(guarded, magnitude);
    return derEncodeTlv(tagInteger, guarded);
}

std::optional<DerHeader> derReadHeader(ByteView der) {
    if (der.size() < 2) {
        return std::nullopt;
    }
    DerHeader header = {der[0], 2, der[1]};
    if (header.contentSize < 0x80) {
        return header;
    }
    const std::size_t octets = header.contentSize - 0x80;
    if (octets == 0 || octets > sizeof(std::uint32_t) || der.size() - header.size < octets) {
        return std::nullopt;
    }
    header.contentSize = 0;
    for (; header.size < 2 + octets; ++header.size) {
        header.contentSize = header.contentSize << 8 | der[header.size];
    }
    return header;
}

std::optional<DerElement> derReadElement(ByteView der) {
    const std::optional<DerHeader> header = derReadHeader(der);
    if (!header || der.size() - header->size < header->contentSize) {
        return std::nullopt;
    }
    const ByteView behind = der.subspan(header->size);
    return DerElement{header->tag, behind.first(header->contentSize), behind.subspan(header->contentSize)};
}

Bytes buildRsaPublicKeyDer(std::string_view modulusHex, std::string_view exponentHex) {
    return buildRsaPublicKeyDerFromBytes(hexStringToBytes(modulusHex), hexStringToBytes(exponentHex));
}

Bytes buildRsaPublicKeyDerFromBytes(ByteView modulus, ByteView exponent) {
    Bytes numbers = derEncodeInteger(modulus);
    append(numbers, derEncodeInteger(exponent));

    Bytes bitString{0x00};  // no unused bits
    appendTlv(bitString, tagSequence, numbers);

    Bytes body(std::begin(rsaAlgorithmIdentifier), std::end(rsaAlgorithmIdentifier));
    appendTlv(body, tagBitString, bitString);
    return derEncodeTlv(tagSequence, body);
}

bool isDerPublicKey(ByteView publicKey) {
    return publicKey.empty() || publicKey.front() == tagSequence;
}

Bytes reverseBytes(ByteView bytes) {
    return {bytes.rbegin(), bytes.rend()};
}

std::string narrowed(std::wstring_view text) {
    std::string narrow(text.size(), '\0');
    std::ranges::transform(text, narrow.begin(), [](wchar_t unit) { return static_cast<char>(unit); });
    return narrow;
}

}  // namespace talvik
