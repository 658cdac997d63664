// From an empty token to a signing key with its certificate, as an enrolment client goes about it.
#pragma once

#include <optional>

#include "cryptoapi.h"

namespace demo {

// What uses the private key or writes to the token needs the PIN: the provider asks for it in its dialog, once.

// The token's signing key, or nothing when the token holds no key.
std::optional<Key> findSigningKey(const Context& context);

// A new RSA-2048 signing key, generated on the token.
Key generateSigningKey(const Context& context);

// DER of a PKCS#10 request for the signing key, signed by that key with SHA-256.
Bytes certificateRequest(const Context& context, const char* subject);

// The certificate stored with `key` on the token; empty when there is none.
Bytes storedCertificate(const Key& key);

// Stores `certificate` (DER) with `key` on the token.
void storeCertificate(const Key& key, const Bytes& certificate);

// Whether `certificate` (DER) speaks of the context's signing key.
bool certifiesSigningKey(const Context& context, const Bytes& certificate);

}  // namespace demo
