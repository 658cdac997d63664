// RSA by the system's own library, BCrypt: key pairs, signatures and their verification. Numbers and signatures are
// big-endian. Each operation gives nothing where the system cannot do it.
#pragma once

#include <optional>

#include "key_types.h"

namespace virtual_token {

// Modulus and exponent, and the primes side by side, equally long.
struct RsaNumbers {
    Bytes modulus;
    Bytes exponent;
    SecretBytes primes;
};

std::optional<RsaNumbers> generateBySystem(unsigned bits);  // with the exponent 65537

// A key in the form in which the system takes it. Several threads may use one at once: each operation gives it to the
// system anew. Under Wine a handle keeps the padding of its last operation and is refused another's, so one that is
// kept would need a twin and a lock; making one takes a seventieth of the time of a signature.
class SystemRsaKey {
  public:
    // Modulus and exponent without zeros in front; the primes, side by side, make it a private key.
    SystemRsaKey(ByteView modulus, ByteView exponent, ByteView primes);

    // PKCS#1 v1.5, or PSS with a salt as long as the digest.
    std::optional<Bytes> sign(const DigestType& type, ByteView digest, bool pss) const;
    std::optional<bool> verify(const DigestType& type, ByteView digest, ByteView signature, bool pss) const;

  private:
    const wchar_t* blobType_;
    std::size_t modulusLength_;
    SecretBytes blob_;
};

}  // namespace virtual_token
