// RSA and elliptic-curve keys. Public keys travel as DER SubjectPublicKeyInfo; numbers, signatures and ciphertexts are
// big-endian. An ECDSA signature is r and s side by side, each as wide as a coordinate of the curve.
#pragma once

#include <optional>

#include "gcrypt_objects.h"
#include "key_types.h"
#include "system_rsa.h"

namespace virtual_token {

// A key's public half, and what its owner keeps secret: p and q side by side (RSA) or the scalar (elliptic curve).
struct GeneratedKey {
    Bytes publicKey;
    SecretBytes secret;
};

GeneratedKey generateKey(const KeyType& type);

class PublicKey {
  public:
    // Throws TokenError(BadKey) on anything but an RSA key of 1024 to 4096 bits or a point on P-256, P-384 or P-521.
    explicit PublicKey(ByteView subjectPublicKeyInfo);

    bool isRsa() const { return curve_ == nullptr; }
    const Bytes& modulus() const { return modulus_; }    // RSA; no zeros in front
    const Bytes& exponent() const { return exponent_; }  // RSA
    const KeyType* curve() const { return curve_; }      // null for RSA
    const Bytes& point() const { return point_; }        // elliptic curve, uncompressed
    std::size_t signatureLength() const;                 // bytes

    // Throws TokenError(BadSignature), or Unsupported for a digest of no known length.
    void verify(ByteView digest, ByteView signature, bool pss) const;

    // RSA only; OAEP with SHA-1 and an empty label, or PKCS#1 v1.5.
    Bytes encrypt(ByteView plaintext, bool oaep) const;

  private:
    void readRsa(ByteView rsaPublicKey);
    void readPoint(ByteView curveOid, ByteView point);
    Expression expression() const;

    const KeyType* curve_ = nullptr;
    Bytes modulus_;
    Bytes exponent_;
    Bytes point_;
};

// A private key, ready for use. Several threads may use one at once.
class PrivateKey {
  public:
    PrivateKey(ByteView subjectPublicKeyInfo, ByteView secret);

    std::size_t signatureLength() const { return publicKey_.signatureLength(); }
    Bytes sign(ByteView digest, bool pss) const;

    // RSA only. Recognises both paddings that PublicKey::encrypt makes; throws TokenError(BadData) when it is neither.
    SecretBytes decrypt(ByteView ciphertext) const;

  private:
    PublicKey publicKey_;
    Expression key_;
    std::optional<SystemRsaKey> system_;  // RSA
};

}  // namespace virtual_token
