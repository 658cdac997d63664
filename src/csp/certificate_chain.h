// The chain of a token certificate: ordering it among the token's certificates, and encoding it as PKCS#7.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "token/device_library.h"

namespace talvik {

struct FreeCertificateContext {
    void operator()(const CERT_CONTEXT* context) const noexcept { CertFreeCertificateContext(context); }
};
using CertificateContext = std::unique_ptr<const CERT_CONTEXT, FreeCertificateContext>;

// The certificates of one token, each decoded at most once and only when it is looked at, without what its record holds
// behind it. Owns a copy of the records.
class TokenCertificates {
  public:
    explicit TokenCertificates(std::vector<TalvikCertificate> records)
        : records_(std::move(records)), decoded_(records_.size()) {}

    std::size_t size() const noexcept { return records_.size(); }
    const TalvikCertificate& record(std::size_t index) const { return records_[index]; }

    // Null when the record does not decode.
    const CERT_CONTEXT* decoded(std::size_t index);

  private:
    std::vector<TalvikCertificate> records_;
    std::vector<std::optional<CertificateContext>> decoded_;
};

// Places of the leaf, its issuer, the issuer's issuer and so on, up to a self-signed certificate, to the last whose
// issuer is on the token, or to the one before a repetition.
std::vector<std::size_t> orderCertificateChain(std::size_t leaf, TokenCertificates& certificates);

// Encoded certificates of a built chain, root end first. The bytes belong to the chain.
std::vector<CERT_BLOB> rootFirst(const CERT_CHAIN_CONTEXT& chain);

// Encodes the chain that the system builds for the first of `chain` out of all of it, as a PKCS#7 message without
// signers, root first. TRUE with the message in `pbData`; TRUE with its size in `*pcbData` and ERROR_MORE_DATA as the
// last error when `pbData` is null or too small; FALSE when there is nothing to encode (NTE_NO_KEY), the leaf does not
// decode (NTE_BAD_KEY), or the system fails (last error as it left it).
BOOL BuildCertificateChain(const std::vector<std::size_t>& chain, TokenCertificates& certificates, BYTE* pbData,
                           DWORD* pcbData);

}  // namespace talvik
