// Private keys that were made elsewhere.
#pragma once

#include "asymmetric_key.h"

namespace virtual_token {

// The key of a DER PrivateKeyInfo (PKCS #8): RSA of a size that tokens have, with the exponent 65537 that the provider
// takes every token's key to have, or P-256, P-384, P-521. Its numbers are proved to belong together.
// Throws TokenError(BadKey), with a text that says what is wrong.
GeneratedKey readPrivateKeyInfo(ByteView der);

}  // namespace virtual_token
