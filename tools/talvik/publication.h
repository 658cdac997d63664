// From a token's certificates to the user's store and back.
#pragma once

#include "device.h"
#include "user_store.h"

namespace talvik_tool {

enum class Face { Auto, CryptoApi, Cng };

// How a certificate of a token stands in the user's store.
enum class Standing {
    Absent,     // not there, or without a link
    Published,  // linked by this program, and the link leads to the key
    Broken,     // linked by this program, but the link does not lead to the key
    Foreign,    // linked by somebody else
};
struct StandingFacts {
    Standing standing = Standing::Absent;
    std::string provider;  // that it is linked to
    std::string face;      // "CNG" or "CryptoAPI"
};
const char* nameOf(Standing standing);
StandingFacts standingOf(const UserStore& store, ByteView certificate, const TalvikKeyPair& key);

// Whether the certificate holds this key's public half.
bool isFor(ByteView certificate, const TalvikKeyPair& key);

struct TokenCertificate {
    std::string token;
    Bytes der;
    std::optional<TalvikKeyPair> key;  // none of an issuer
};
std::vector<TokenCertificate> certificatesOn(const std::vector<Device>& devices);

// What was done with one certificate.
struct Outcome {
    std::string subject;
    std::string token;
    std::string done;      // "published", "mended", "unchanged", "left alone", "refused", "withdrawn"
    std::string reason;    // of the last two but one
    bool refused = false;  // it cannot be linked
};

// Every certificate with a key goes into MY, and issuers that are not self-issued into CA.
std::vector<Outcome> publish(const std::vector<TokenCertificate>& certificates, Face face);

// Takes back what was published, of one token or of all.
std::vector<Outcome> withdraw(const std::optional<std::string>& token);

}  // namespace talvik_tool
