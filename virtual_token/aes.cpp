#include "aes.h"

#include <algorithm>
#include <array>

#include "gcrypt_objects.h"
#include "status.h"

namespace virtual_token {
namespace {

Cipher openChained(ByteView key, ByteView iv) {
    require(iv.empty() || iv.size() == aesBlockLength, Status::BadInitialVector);
    Cipher cipher = openCipher(key, iv.empty() ? GCRY_CIPHER_MODE_ECB : GCRY_CIPHER_MODE_CBC);
    if (!iv.empty()) {
        check(gcry_cipher_setiv(cipher.get(), iv.data(), iv.size()));
    }
    return cipher;
}

// 0 when the last block does not end in PKCS#7 padding.
std::size_t paddingLength(const unsigned char* lastBlock) {
    const std::size_t length = lastBlock[aesBlockLength - 1];
    const bool valid = length >= 1 && length <= aesBlockLength &&
                       std::all_of(lastBlock + aesBlockLength - length, lastBlock + aesBlockLength,
                                   [length](unsigned char byte) { return byte == length; });
    return valid ? length : 0;
}

}  // namespace

void aesEncrypt(ByteView key, ByteView iv, ByteView plaintext, unsigned char* ciphertext) {
    const Cipher cipher = openChained(key, iv);
    const std::size_t whole = plaintext.size() / aesBlockLength * aesBlockLength;
    const ByteView tail = plaintext.subspan(whole);
    std::array<unsigned char, aesBlockLength> lastBlock;
    lastBlock.fill(static_cast<unsigned char>(aesBlockLength - tail.size()));
    std::ranges::copy(tail, lastBlock.begin());
    if (whole > 0) {
        check(gcry_cipher_encrypt(cipher.get(), ciphertext, whole, plaintext.data(), whole));
    }
    check(gcry_cipher_encrypt(cipher.get(), ciphertext + whole, aesBlockLength, lastBlock.data(), aesBlockLength));
    SecureZeroMemory(lastBlock.data(), lastBlock.size());
}

std::size_t aesDecrypt(ByteView key, ByteView iv, ByteView ciphertext, unsigned char* plaintext) {
    require(!ciphertext.empty() && ciphertext.size() % aesBlockLength == 0, Status::BadData);
    const Cipher cipher = openChained(key, iv);
    check(gcry_cipher_decrypt(cipher.get(), plaintext, ciphertext.size(), ciphertext.data(), ciphertext.size()));
    const std::size_t padding = paddingLength(plaintext + ciphertext.size() - aesBlockLength);
    if (padding == 0) {
        SecureZeroMemory(plaintext, ciphertext.size());
        throw TokenError(Status::BadData);
    }
    const std::size_t length = ciphertext.size() - padding;
    SecureZeroMemory(plaintext + length, padding);
    return length;
}

}  // namespace virtual_token
