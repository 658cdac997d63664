// The form in which the device library takes an RSA public key.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "token/key_encoding.h"

namespace talvik {

// The public exponent of every key of which only the modulus is known.
inline constexpr std::uint32_t DEFAULT_EXPONENT = 0x10001;
inline constexpr unsigned char DEFAULT_EXPONENT_BYTES[] = {0x01, 0x00, 0x01};

// The face's DEBUG lines about the form that a held public key has.
struct PublicKeyTexts {
    std::string_view alreadyDer;
    std::string_view bareModulus;
};

// DER SubjectPublicKeyInfo of a key that is held either in that form or as a bare modulus with the default exponent; an
// empty key stays empty.
Bytes derPublicKeyOf(ByteView publicKey, const PublicKeyTexts& texts);

// The same of a key that is known to be a bare modulus, whatever its first byte.
Bytes derOfModulus(ByteView modulus);

// The same of a key as CryptoAPI's blobs have it: the modulus with its least significant byte first, and an exponent of
// which the low three bytes count and are logged behind `exponentText`. Nothing when there is no room for the modulus.
std::optional<Bytes> derOfBlobKey(ByteView modulus, std::uint32_t exponent, std::string_view exponentText);

}  // namespace talvik
