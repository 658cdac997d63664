#include "key_import.h"

#include <algorithm>

#include "der.h"
#include "public_key_info.h"
#include "status.h"

namespace virtual_token {
namespace {

constexpr unsigned char derOctetString = 0x04;
constexpr unsigned char usualExponent[] = {1, 0, 1};

void requireKey(bool holds, const char* otherwise) {
    if (!holds) {
        throw TokenError(Status::BadKey, otherwise);
    }
}

void append(SecretBytes& bytes, ByteView number, std::size_t width) {
    requireKey(number.size() <= width, "the key's primes differ in length");
    bytes.resize(bytes.size() + width - number.size());
    bytes.insert(bytes.end(), number.begin(), number.end());
}

void requirePrime(ByteView number) {
    startGcrypt();
    requireKey(gcry_prime_check(integerFrom(number).get(), 0) == 0, "a prime of the key is none");
}

GeneratedKey readRsa(ByteView rsaPrivateKey) {
    DerReader document(rsaPrivateKey);
    DerReader numbers = document.enter(derSequence);
    const auto next = [&numbers] { return withoutLeadingZeros(numbers.read(derInteger)); };
    next();  // version
    const ByteView modulus = next(), exponent = next();
    next();  // the private exponent follows from the primes
    const ByteView p = next(), q = next();
    requireKey(keyTypeOfModulus(modulus) != nullptr, "an RSA key has 1024, 2048, 3072 or 4096 bits");
    requireKey(std::ranges::equal(exponent, usualExponent), "the public exponent of an RSA key must be 65537");
    requirePrime(p);
    requirePrime(q);
    GeneratedKey key{rsaPublicKeyInfo(modulus, exponent), {}};
    append(key.secret, p, modulus.size() / 2);
    append(key.secret, q, modulus.size() / 2);
    return key;
}

struct EcRelease {
    void operator()(gcry_ctx_t context) const { gcry_ctx_release(context); }
    void operator()(gcry_mpi_point_t point) const { gcry_mpi_point_release(point); }
};
using EcContext = std::unique_ptr<gcry_context, EcRelease>;
using EcPoint = std::unique_ptr<gcry_mpi_point, EcRelease>;

// The public point is the base point times the scalar: what the file says of it is not needed.
Bytes pointOf(const KeyType& curve, ByteView scalar) {
    startGcrypt();
    gcry_ctx_t made = nullptr;
    check(gcry_mpi_ec_new(&made, nullptr, curve.curve));
    const EcContext context(made);
    const EcPoint base(gcry_mpi_ec_get_point("g", made, 1)), point(gcry_mpi_point_new(0));
    const Integer order(gcry_mpi_ec_get_mpi("n", made, 1)), factor = integerFrom(scalar);
    requireKey(gcry_mpi_cmp_ui(factor.get(), 0) > 0 && gcry_mpi_cmp(factor.get(), order.get()) < 0,
               "the private number is out of the curve's range");
    gcry_mpi_ec_mul(point.get(), factor.get(), base.get(), made);
    const Integer x = newInteger(), y = newInteger();
    requireKey(gcry_mpi_ec_get_affine(x.get(), y.get(), point.get(), made) == 0, "the key has no public point");
    Bytes uncompressed{4};
    for (const Integer* coordinate : {&x, &y}) {
        const SecretBytes bytes = bytesOf(*coordinate, curve.coordinateLength);
        uncompressed.insert(uncompressed.end(), bytes.begin(), bytes.end());
    }
    return uncompressed;
}

GeneratedKey readEc(const KeyType& curve, ByteView ecPrivateKey) {
    DerReader document(ecPrivateKey);
    DerReader key = document.enter(derSequence);
    key.read(derInteger);  // version
    const ByteView scalar = withoutLeadingZeros(key.read(derOctetString));
    requireKey(scalar.size() <= curve.coordinateLength, "the private number is out of the curve's range");
    GeneratedKey read{ecPublicKeyInfo(curve, pointOf(curve, scalar)), {}};
    append(read.secret, scalar, curve.coordinateLength);
    return read;
}

GeneratedKey readAny(ByteView der) try {
    DerReader document(der);
    DerReader info = document.enter(derSequence);
    document.finish();
    info.read(derInteger);  // version
    DerReader algorithm = info.enter(derSequence);
    const ByteView oid = algorithm.read(derObjectIdentifier);
    const ByteView key = info.read(derOctetString);
    if (std::ranges::equal(oid, viewOf(oidRsaEncryption))) {
        return readRsa(key);
    }
    requireKey(std::ranges::equal(oid, viewOf(oidEcPublicKey)), "the key is neither RSA nor on an elliptic curve");
    const KeyType* curve = keyTypeOfCurve(algorithm.read(derObjectIdentifier));
    requireKey(curve != nullptr, "an elliptic-curve key must be on P-256, P-384 or P-521");
    return readEc(*curve, key);
} catch (const TokenError& error) {
    if (error.status() == Status::BadData) {
        throw TokenError(Status::BadKey, "this is no unencrypted PKCS #8 private key");
    }
    throw;
}

}  // namespace

GeneratedKey readPrivateKeyInfo(ByteView der) {
    GeneratedKey key = readAny(der);
    try {
        const Bytes digest(32, 1);
        PublicKey(key.publicKey).verify(digest, PrivateKey(key.publicKey, key.secret).sign(digest, false), false);
    } catch (const TokenError&) {
        throw TokenError(Status::BadKey, "the numbers of the private key do not belong together");
    }
    return key;
}

}  // namespace virtual_token
