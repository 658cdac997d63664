#include "bytes.h"

#include <wincrypt.h>

#include <algorithm>
#include <cstring>
#include <ntsecapi.h>

#include "gcrypt_objects.h"
#include "status.h"

namespace virtual_token {
namespace {

constexpr std::string_view hexDigits = "0123456789ABCDEF";

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
    if (bytes.empty()) {
        return "";
    }
    constexpr DWORD form = CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF;
    const auto size = static_cast<DWORD>(bytes.size());
    DWORD length = 0;
    require(CryptBinaryToStringA(bytes.data(), size, form, nullptr, &length), Status::InternalError);
    std::string text(length, '\0');  // with room for a NUL
    require(CryptBinaryToStringA(bytes.data(), size, form, text.data(), &length), Status::InternalError);
    text.resize(length);
    return text;
}

Bytes fromBase64(std::string_view text) {
    Bytes bytes(text.size() / 4 * 3);
    auto length = static_cast<DWORD>(bytes.size());
    const auto size = static_cast<DWORD>(text.size());
    require(text.size() % 4 == 0, Status::InvalidArgument);
    require(text.empty() ||
                CryptStringToBinaryA(text.data(), size, CRYPT_STRING_BASE64, bytes.data(), &length, nullptr, nullptr),
            Status::InvalidArgument);
    bytes.resize(length);
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
