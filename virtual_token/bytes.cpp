#include "bytes.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <ntsecapi.h>

#include "gcrypt_objects.h"
#include "status.h"

namespace virtual_token {
namespace {

constexpr std::string_view hexDigits = "0123456789ABCDEF";
constexpr std::string_view base64Digits = TALVIK_BASE64_ALPHABET;
constexpr unsigned char notADigit = 0xFF;

constexpr std::array<unsigned char, 256> base64Values = [] {
    std::array<unsigned char, 256> values{};
    values.fill(notADigit);
    for (std::size_t i = 0; i < base64Digits.size(); ++i) {
        values[static_cast<unsigned char>(base64Digits[i])] = static_cast<unsigned char>(i);
    }
    return values;
}();

unsigned char hexValue(char digit) {
    const char upper = digit >= 'a' && digit <= 'f' ? static_cast<char>(digit - 'a' + 'A') : digit;
    const auto value = hexDigits.find(upper);
    require(value != std::string_view::npos, Status::InvalidArgument);
    return static_cast<unsigned char>(value);
}

void askForRandom(unsigned char* buffer, std::size_t length) {
    require(RtlGenRandom(buffer, static_cast<ULONG>(length)) != FALSE, Status::InternalError);
}

}  // namespace

bool equalInConstantTime(ByteView left, ByteView right) {
    if (left.size() != right.size()) {
        return false;
    }
    unsigned char difference = 0;
    for (std::size_t i = 0; i < left.size(); ++i) {
        difference = static_cast<unsigned char>(difference | (left[i] ^ right[i]));
    }
    return difference == 0;
}

std::string toHex(ByteView bytes) {
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const unsigned char byte : bytes) {
        text += hexDigits[byte >> 4];
        text += hexDigits[byte & 15];
    }
    return text;
}

Bytes fromHex(std::string_view text) {
    require(text.size() % 2 == 0, Status::InvalidArgument);
    Bytes bytes(text.size() / 2);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(hexValue(text[2 * i]) << 4 | hexValue(text[2 * i + 1]));
    }
    return bytes;
}

std::string toBase64(ByteView bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t present = std::min<std::size_t>(3, bytes.size() - i);
        std::uint32_t group = 0;
        for (std::size_t k = 0; k < 3; ++k) {
            group = group << 8 | (k < present ? bytes[i + k] : 0u);
        }
        for (std::size_t k = 0; k < 4; ++k) {
            text += k <= present ? base64Digits[group >> (18 - 6 * k) & 63] : '=';
        }
    }
    return text;
}

Bytes fromBase64(std::string_view text) {
    require(text.size() % 4 == 0, Status::InvalidArgument);
    const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
    Bytes bytes;
    bytes.reserve(text.size() / 4 * 3);
    std::uint32_t group = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool pad = i >= text.size() - padding;
        const unsigned char value = pad ? 0 : base64Values[static_cast<unsigned char>(text[i])];
        require(value != notADigit, Status::InvalidArgument);
        group = group << 6 | value;
        if (i % 4 == 3) {
            bytes.insert(bytes.end(),
                         {static_cast<unsigned char>(group >> 16 & 0xFF), static_cast<unsigned char>(group >> 8 & 0xFF),
                          static_cast<unsigned char>(group & 0xFF)});
        }
    }
    bytes.resize(bytes.size() - padding);
    return bytes;
}

void fillRandom(unsigned char* buffer, std::size_t length) {
    constexpr std::size_t keyLength = 32;
    if (length <= 2 * keyLength) {
        askForRandom(buffer, length);
        return;
    }
    // The system's generator takes tens of microseconds a kilobyte under Wine. It gives a key, of which this is the
    // stream.
    SecretBytes key(keyLength);
    askForRandom(key.data(), key.size());
    const Cipher cipher = openCipher(key, GCRY_CIPHER_MODE_CTR);
    std::memset(buffer, 0, length);
    check(gcry_cipher_encrypt(cipher.get(), buffer, length, nullptr, 0));
}

Bytes randomBytes(std::size_t length) {
    Bytes bytes(length);
    fillRandom(bytes.data(), length);
    return bytes;
}

}  // namespace virtual_token
