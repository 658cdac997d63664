// CMS signed messages (RFC 5652), built for a token's key and taken apart again.
#pragma once

#include <optional>

#include "signing.h"

namespace talvik_tool {

// DER SignedData by one signer, with signing time and the certificates, the signer's first. `content` is left out of a
// detached message, of which only the digest is needed.
Bytes signedMessage(const KeyOnToken& signer, const DigestType& digest, ByteView contentDigest,
                    const std::optional<ByteView>& content, const std::vector<Bytes>& certificates);

// One signature of a message that was read.
struct MessageSigner {
    Bytes certificate;  // DER
    const DigestType* digest;
    Bytes signedAttributes;   // DER SET; empty when the content is signed directly
    Bytes messageDigest;      // out of these
    std::string signingTime;  // "2027-11-24 12:00:00Z" as the signer claims it; may be empty
    Bytes signature;
};

struct SignedMessage {
    std::optional<Bytes> content;  // none in a detached message
    std::vector<Bytes> certificates;
    std::vector<MessageSigner> signers;
};

// Throws TokenError(BadData) on what is no DER SignedData.
SignedMessage readSignedMessage(ByteView der);

// Throws TokenError(BadSignature) with what is wrong.
void verifySignature(const MessageSigner& signer, ByteView contentDigest);

}  // namespace talvik_tool
