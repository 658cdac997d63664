// Opening what was encrypted to a certificate on the token.
#pragma once

#include "cryptoapi.h"

namespace demo {

// Whether CRYPT32 knows the object identifier of AES-256 in CBC mode. Wine's does not yet.
bool systemKnowsAes();

// Installs what it lacks, in this process: an import function for AES-256 content keys, by way of CryptoAPI's own
// registration of such functions.
void teachSystemAes();

// The content of a CMS EnvelopedData (DER) with one recipient, the exchange key of `context`: the token decrypts the
// content key, and the content with it.
Bytes openEnvelope(const Context& context, const Bytes& envelope);

}  // namespace demo
