// AES in CBC and ECB with PKCS#7 padding: what `openssl enc` makes and reads by default.
#pragma once

#include "bytes.h"

namespace virtual_token {

inline constexpr std::size_t aesBlockLength = 16;

// The padding adds 1 to 16 bytes: an empty message gives one block.
constexpr std::size_t aesCiphertextLength(std::size_t plaintextLength) {
    return (plaintextLength / aesBlockLength + 1) * aesBlockLength;
}

// An empty `iv` means ECB, one of 16 bytes CBC; others throw TokenError(BadInitialVector).
// `ciphertext` has room for aesCiphertextLength.
void aesEncrypt(ByteView key, ByteView iv, ByteView plaintext, unsigned char* ciphertext);

// `plaintext` has room for as many bytes as the ciphertext has, and may be the ciphertext itself. Gives the plaintext's
// length; throws TokenError(BadData), leaving nothing of the plaintext, when the padding is not there.
std::size_t aesDecrypt(ByteView key, ByteView iv, ByteView ciphertext, unsigned char* plaintext);

}  // namespace virtual_token
