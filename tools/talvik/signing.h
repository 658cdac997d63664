// Signatures of token keys in the forms that requests and messages hold, and digests of files.
#pragma once

#include <string_view>

#include "device.h"
#include "gcrypt_objects.h"
#include "key_types.h"

namespace talvik_tool {

using virtual_token::DigestType;

inline constexpr const char* digestNames[] = {"sha256", "sha384", "sha512"};

// The digest of this name, else the one that goes with the key's strength.
const DigestType& digestFor(const TalvikKeyPair& key, std::string_view name);
Bytes digestAlgorithm(const DigestType& digest);          // DER AlgorithmIdentifier
const DigestType* digestOfAlgorithm(ByteView algorithm);  // of that; null when it is none of the three

// A signature's AlgorithmIdentifier: a CMS message names RSA alone, a request the digest with it.
enum class SignatureOf { Request, Message };
Bytes signatureAlgorithm(const TalvikKeyPair& key, const DigestType& digest, SignatureOf where);

// PKCS #1 v1.5, or ECDSA as the sequence of r and s. The device must be logged in.
Bytes signatureOver(const KeyOnToken& signer, ByteView digest);

class Hasher {
  public:
    explicit Hasher(const DigestType& type) : type_(type), handle_(virtual_token::openDigest(type.algorithm)) {}
    void add(ByteView data) { gcry_md_write(handle_.get(), data.data(), data.size()); }
    Bytes finish();

  private:
    const DigestType& type_;
    virtual_token::Digest handle_;
};

Bytes digestOf(const DigestType& type, ByteView data);
Bytes digestOfFile(const DigestType& type, const std::string& name);

}  // namespace talvik_tool
