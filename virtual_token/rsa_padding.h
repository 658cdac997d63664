// Undoing RSA encryption paddings on the decrypted block, and what making them needs.
#pragma once

#include <optional>

#include "bytes.h"

namespace virtual_token {

// Both take the whole block, as long as the modulus, and give nothing when the padding is not theirs.
std::optional<SecretBytes> removeOaep(ByteView block);   // SHA-1, MGF1 with SHA-1, empty label
std::optional<SecretBytes> removePkcs1(ByteView block);  // PKCS#1 v1.5, block type 2

// What the two paddings add to a message at least.
inline constexpr std::size_t oaepHashLength = 20;
inline constexpr std::size_t oaepOverhead = 2 * oaepHashLength + 2;
inline constexpr std::size_t pkcs1Overhead = 11;

Bytes randomNonZeroBytes(std::size_t length);

}  // namespace virtual_token
