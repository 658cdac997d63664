// PKCS #12 files (RFC 7292): a key with its certificate and the certificates of its issuers.
#pragma once

#include "asymmetric_key.h"
#include "files.h"

namespace talvik_tool {

struct Pkcs12Content {
    virtual_token::GeneratedKey key;
    std::vector<Bytes> certificates;  // DER, in the file's order
};

// Throws TokenError: WrongPin for a wrong password, otherwise with what is wrong with the file; without its name.
Pkcs12Content readPkcs12(ByteView der, const std::string& password);

}  // namespace talvik_tool
