// A detached CMS signature over a file.
#pragma once

#include "cryptoapi.h"

namespace demo {

// DER of a CMS SignedData without content: SHA-256, signing time, the signer's certificate (DER) included. The file
// is read in pieces, so its size does not matter.
Bytes signFile(const Context& context, const Bytes& signerCertificate, const std::wstring& path);

}  // namespace demo
