// The form in which the device library takes an RSA public key.
#pragma once

#include <string_view>

#include "token/key_encoding.h"

namespace talvik {

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

}  // namespace talvik
