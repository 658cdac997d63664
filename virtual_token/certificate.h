// What the token reads out of an X.509 certificate.
#pragma once

#include <string>

#include "bytes.h"

namespace virtual_token {

struct CertificateFacts {
    std::string subject;  // "C=DE, CN=name", in the certificate's order
    std::string issuer;
    std::string serialNumber;  // upper-case hexadecimal
    std::string validFrom;     // "2024-05-31 12:00:00Z"
    std::string validTo;
    Bytes publicKeyInfo;  // DER SubjectPublicKeyInfo
    Bytes publicKey;      // RSA: the modulus; otherwise the SubjectPublicKeyInfo
};

// Throws TokenError(BadCertificate) unless `der` is one whole certificate.
CertificateFacts readCertificate(ByteView der);

}  // namespace virtual_token
