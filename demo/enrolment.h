// From an empty token to a signing key with its certificate, as an enrolment client goes about it.
#pragma once

#include <optional>

#include "cryptoapi.h"

namespace demo {

// What uses the private key or writes to the token needs the PIN: the provider asks for it in its dialog, once.

// The context's key for AT_SIGNATURE or AT_KEYEXCHANGE, or nothing when the token has none.
std::optional<Key> findKey(const Context& context, DWORD keySpec);

// A new RSA-2048 key, generated on the token: CALG_RSA_SIGN or CALG_RSA_KEYX.
Key generateKey(const Context& context, ALG_ID algorithm);

// DER of a PKCS#10 request for the signing key, signed by that key with SHA-256.
Bytes certificateRequest(const Context& context, const char* subject);

// DER of the SubjectPublicKeyInfo of the context's key.
Bytes publicKey(const Context& context, DWORD keySpec);

// The certificate stored with `key` on the token; empty when there is none.
Bytes storedCertificate(const Key& key);

// Stores `certificate` (DER) with `key` on the token.
void storeCertificate(const Key& key, const Bytes& certificate);

// Whether `certificate` (DER) speaks of the context's key.
bool certifiesKey(const Context& context, DWORD keySpec, const Bytes& certificate);

// The chain of the context's certificate out of those on the token, as a PKCS#7 message (DER).
Bytes certificateChain(const Context& context);

}  // namespace demo
