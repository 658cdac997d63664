#include "asymmetric_key.h"

#include <algorithm>

#include "der.h"
#include "public_key_info.h"
#include "rsa_padding.h"
#include "status.h"

namespace virtual_token {
namespace {

constexpr std::size_t smallestModulus = 1024 / 8;
constexpr std::size_t largestModulus = 4096 / 8;

int intLength(ByteView bytes) {
    return static_cast<int>(bytes.size());
}

GeneratedKey generateRsa(const KeyType& type) {
    if (std::optional<RsaNumbers> numbers = generateBySystem(type.bits)) {
        return {rsaPublicKeyInfo(numbers->modulus, numbers->exponent), std::move(numbers->primes)};
    }
    const Expression request = buildExpression("(genkey(rsa(nbits %u)(rsa-use-e 5:65537)))", type.bits);
    gcry_sexp_t made = nullptr;
    check(gcry_pk_genkey(&made, request.get()));
    const Expression key(made);
    const std::size_t half = type.bits / 16;
    GeneratedKey generated;
    generated.publicKey = rsaPublicKeyInfo(bytesOf(integerIn(key, "n"), 2 * half), bytesOf(integerIn(key, "e"), 4));
    generated.secret = bytesOf(integerIn(key, "p"), half);
    const SecretBytes q = bytesOf(integerIn(key, "q"), half);
    generated.secret.insert(generated.secret.end(), q.begin(), q.end());
    return generated;
}

GeneratedKey generateEc(const KeyType& type) {
    const Expression request = buildExpression("(genkey(ecc(curve %s)))", type.curve);
    gcry_sexp_t made = nullptr;
    check(gcry_pk_genkey(&made, request.get()));
    const Expression key(made);
    return {ecPublicKeyInfo(type, bytesOf(integerIn(key, "q"), 1 + 2 * type.coordinateLength)),
            bytesOf(integerIn(key, "d"), type.coordinateLength)};
}

// The private exponent and the CRT coefficient follow from the primes; libgcrypt wants p below q.
Expression rsaPrivateKey(const PublicKey& publicKey, ByteView primes) {
    const Integer n = integerFrom(publicKey.modulus());
    const Integer e = integerFrom(publicKey.exponent());
    Integer p = integerFrom(primes.first(primes.size() / 2));
    Integer q = integerFrom(primes.last(primes.size() / 2));
    if (gcry_mpi_cmp(p.get(), q.get()) > 0) {
        std::swap(p, q);
    }
    const Integer product = newInteger();
    gcry_mpi_mul(product.get(), p.get(), q.get());
    require(gcry_mpi_cmp(product.get(), n.get()) == 0, Status::BadKey);

    const Integer pMinus1 = newInteger(), qMinus1 = newInteger(), common = newInteger(), lambda = newInteger();
    gcry_mpi_sub_ui(pMinus1.get(), p.get(), 1);
    gcry_mpi_sub_ui(qMinus1.get(), q.get(), 1);
    gcry_mpi_gcd(common.get(), pMinus1.get(), qMinus1.get());
    gcry_mpi_mul(lambda.get(), pMinus1.get(), qMinus1.get());
    gcry_mpi_div(lambda.get(), nullptr, lambda.get(), common.get(), 0);

    const Integer d = newInteger(), u = newInteger();
    require(gcry_mpi_invm(d.get(), e.get(), lambda.get()) != 0, Status::BadKey);
    require(gcry_mpi_invm(u.get(), p.get(), q.get()) != 0, Status::BadKey);
    return buildExpression("(private-key(rsa(n %m)(e %m)(d %m)(p %m)(q %m)(u %m)))", n.get(), e.get(), d.get(), p.get(),
                           q.get(), u.get());
}

Expression ecPrivateKey(const PublicKey& publicKey, ByteView scalar) {
    return buildExpression("(private-key(ecc(curve %s)(q %b)(d %b)))", publicKey.curve()->curve,
                           intLength(publicKey.point()), publicKey.point().data(), intLength(scalar), scalar.data());
}

// The digest's length tells its algorithm. The salt of PSS is as long as the digest.
const DigestType& digestFor(const PublicKey& key, ByteView digest, bool pss) {
    const DigestType* type = digestOfLength(digest.size());
    require(type != nullptr, Status::Unsupported);
    require(!key.isRsa() || !pss || key.modulus().size() >= 2 * digest.size() + 2, Status::Unsupported);
    return *type;
}

// The digest to be padded and signed, or verified. A signer with PSS gives its own salt.
Expression dataToSign(const PublicKey& key, const DigestType& type, ByteView digest, bool pss, const Bytes& salt) {
    const int length = intLength(digest);
    if (!key.isRsa()) {
        return buildExpression("(data(flags rfc6979)(hash %s %b))", type.name, length, digest.data());
    }
    if (!pss) {
        return buildExpression("(data(flags pkcs1)(hash %s %b))", type.name, length, digest.data());
    }
    if (salt.empty()) {
        return buildExpression("(data(flags pss)(salt-length %d)(hash %s %b))", length, type.name, length,
                               digest.data());
    }
    return buildExpression("(data(flags pss)(salt-length %d)(random-override %b)(hash %s %b))", length, intLength(salt),
                           salt.data(), type.name, length, digest.data());
}

}  // namespace

GeneratedKey generateKey(const KeyType& type) {
    startGcrypt();
    return type.isRsa() ? generateRsa(type) : generateEc(type);
}

PublicKey::PublicKey(ByteView subjectPublicKeyInfo) try {
    DerReader document(subjectPublicKeyInfo);
    DerReader info = document.enter(derSequence);
    document.finish();
    DerReader algorithm = info.enter(derSequence);
    const ByteView key = info.read(derBitString);
    info.finish();
    require(!key.empty() && key[0] == 0, Status::BadKey);
    const ByteView oid = algorithm.read(derObjectIdentifier);
    if (std::ranges::equal(oid, viewOf(oidRsaEncryption))) {
        readRsa(key.subspan(1));
    } else if (std::ranges::equal(oid, viewOf(oidEcPublicKey))) {
        readPoint(algorithm.read(derObjectIdentifier), key.subspan(1));
    } else {
        throw TokenError(Status::BadKey);
    }
} catch (const TokenError&) {
    throw TokenError(Status::BadKey);
}

void PublicKey::readRsa(ByteView rsaPublicKey) {
    DerReader document(rsaPublicKey);
    DerReader numbers = document.enter(derSequence);
    document.finish();
    const ByteView n = withoutLeadingZeros(numbers.read(derInteger));
    const ByteView e = withoutLeadingZeros(numbers.read(derInteger));
    numbers.finish();
    require(n.size() >= smallestModulus && n.size() <= largestModulus && n.back() % 2 == 1, Status::BadKey);
    const bool atLeast3 = e.size() > 1 || (e.size() == 1 && e[0] >= 3);
    require(atLeast3 && e.size() <= 8 && e.back() % 2 == 1, Status::BadKey);
    modulus_.assign(n.begin(), n.end());
    exponent_.assign(e.begin(), e.end());
}

void PublicKey::readPoint(ByteView curveOid, ByteView point) {
    curve_ = keyTypeOfCurve(curveOid);
    require(curve_ != nullptr, Status::BadKey);
    require(point.size() == 1 + 2 * curve_->coordinateLength && point[0] == 4, Status::BadKey);
    point_.assign(point.begin(), point.end());
}

std::size_t PublicKey::signatureLength() const {
    return isRsa() ? modulus_.size() : 2 * curve_->coordinateLength;
}

Expression PublicKey::expression() const {
    if (isRsa()) {
        return buildExpression("(public-key(rsa(n %m)(e %m)))", integerFrom(modulus_).get(),
                               integerFrom(exponent_).get());
    }
    return buildExpression("(public-key(ecc(curve %s)(q %b)))", curve_->curve, intLength(point_), point_.data());
}

void PublicKey::verify(ByteView digest, ByteView signature, bool pss) const {
    const DigestType& type = digestFor(*this, digest, pss);
    require(signature.size() == signatureLength(), Status::BadSignature);
    if (isRsa()) {
        const SystemRsaKey key(modulus_, exponent_, {});
        if (const std::optional<bool> valid = key.verify(type, digest, signature, pss)) {
            return require(*valid, Status::BadSignature);
        }
    }
    const Expression data = dataToSign(*this, type, digest, pss, {});
    const ByteView r = signature.first(signature.size() / 2), s = signature.last(signature.size() / 2);
    const Expression value =
        isRsa() ? buildExpression("(sig-val(rsa(s %m)))", integerFrom(signature).get())
                : buildExpression("(sig-val(ecdsa(r %m)(s %m)))", integerFrom(r).get(), integerFrom(s).get());
    require(gcry_pk_verify(value.get(), data.get(), expression().get()) == 0, Status::BadSignature);
}

Bytes PublicKey::encrypt(ByteView plaintext, bool oaep) const {
    require(isRsa(), Status::Unsupported);
    const std::size_t overhead = oaep ? oaepOverhead : pkcs1Overhead;
    require(plaintext.size() + overhead <= modulus_.size(), Status::BadData);
    const Bytes random =
        oaep ? randomBytes(oaepHashLength) : randomNonZeroBytes(modulus_.size() - 3 - plaintext.size());
    const char* format = oaep ? "(data(flags oaep)(hash-algo sha1)(random-override %b)(value %b))"
                              : "(data(flags pkcs1)(random-override %b)(value %b))";
    const Expression data =
        buildExpression(format, intLength(random), random.data(), intLength(plaintext), plaintext.data());
    gcry_sexp_t made = nullptr;
    check(gcry_pk_encrypt(&made, data.get(), expression().get()));
    const SecretBytes ciphertext = bytesOf(integerIn(Expression(made), "a"), modulus_.size());
    return Bytes(ciphertext.begin(), ciphertext.end());
}

PrivateKey::PrivateKey(ByteView subjectPublicKeyInfo, ByteView secret)
    : publicKey_(subjectPublicKeyInfo),
      key_(publicKey_.isRsa() ? rsaPrivateKey(publicKey_, secret) : ecPrivateKey(publicKey_, secret)) {
    if (publicKey_.isRsa()) {
        system_.emplace(publicKey_.modulus(), publicKey_.exponent(), secret);
    }
}

Bytes PrivateKey::sign(ByteView digest, bool pss) const {
    const DigestType& type = digestFor(publicKey_, digest, pss);
    if (system_) {
        if (std::optional<Bytes> signature = system_->sign(type, digest, pss)) {
            return *std::move(signature);
        }
    }
    const Bytes salt = pss && publicKey_.isRsa() ? randomBytes(digest.size()) : Bytes();
    const Expression data = dataToSign(publicKey_, type, digest, pss, salt);
    gcry_sexp_t made = nullptr;
    check(gcry_pk_sign(&made, data.get(), key_.get()));
    const Expression signature(made);
    const std::size_t length = signatureLength();
    if (publicKey_.isRsa()) {
        const SecretBytes s = bytesOf(integerIn(signature, "s"), length);
        return Bytes(s.begin(), s.end());
    }
    const SecretBytes r = bytesOf(integerIn(signature, "r"), length / 2);
    const SecretBytes s = bytesOf(integerIn(signature, "s"), length / 2);
    Bytes both(r.begin(), r.end());
    both.insert(both.end(), s.begin(), s.end());
    return both;
}

SecretBytes PrivateKey::decrypt(ByteView ciphertext) const {
    require(publicKey_.isRsa(), Status::Unsupported);
    require(ciphertext.size() == publicKey_.modulus().size(), Status::BadData);
    const Integer number = integerFrom(ciphertext);
    require(gcry_mpi_cmp(number.get(), integerFrom(publicKey_.modulus()).get()) < 0, Status::BadData);
    const Expression data = buildExpression("(enc-val(flags raw)(rsa(a %m)))", number.get());
    gcry_sexp_t made = nullptr;
    check(gcry_pk_decrypt(&made, data.get(), key_.get()));
    const SecretBytes block = bytesOf(integerIn(Expression(made), "value"), ciphertext.size());
    for (const auto& remove : {removeOaep, removePkcs1}) {
        if (std::optional<SecretBytes> plaintext = remove(block)) {
            return *std::move(plaintext);
        }
    }
    throw TokenError(Status::BadData);
}

}  // namespace virtual_token
