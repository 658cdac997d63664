#include "system_rsa.h"

#include <windows.h>

#include <bcrypt.h>

#include <bit>
#include <cstring>
#include <memory>

namespace virtual_token {
namespace {

constexpr auto invalidSignature = static_cast<NTSTATUS>(0xC000A000);  // STATUS_INVALID_SIGNATURE
constexpr std::size_t longestExponent = 8;

struct DestroyKey {
    void operator()(BCRYPT_KEY_HANDLE key) const { BCryptDestroyKey(key); }
};
using KeyHandle = std::unique_ptr<void, DestroyKey>;

// Open as long as the process lives; null where the system has no RSA, and every function refuses it.
BCRYPT_ALG_HANDLE rsa() {
    static const BCRYPT_ALG_HANDLE algorithm = [] {
        BCRYPT_ALG_HANDLE opened = nullptr;
        BCryptOpenAlgorithmProvider(&opened, BCRYPT_RSA_ALGORITHM, nullptr, 0);
        return opened;
    }();
    return algorithm;
}

ULONG lengthOf(ByteView bytes) {
    return static_cast<ULONG>(bytes.size());
}

// What BCrypt reads it takes by pointers that would let it write.
unsigned char* inputOf(ByteView bytes) {
    return const_cast<unsigned char*>(bytes.data());
}

KeyHandle import(const wchar_t* blobType, ByteView blob) {
    BCRYPT_KEY_HANDLE key = nullptr;
    BCryptImportKeyPair(rsa(), nullptr, blobType, &key, inputOf(blob), lengthOf(blob), 0);
    return KeyHandle(key);
}

class Padding {
  public:
    Padding(const DigestType& type, bool pss)
        : pkcs1_{type.systemName}, pss_{type.systemName, static_cast<ULONG>(type.length)}, isPss_(pss) {}

    // Wine refuses PSS with SHA-1, with a line on the standard error of whatever program has loaded us.
    bool offered() const { return !isPss_ || pss_.cbSalt > 20; }

    void* information() { return isPss_ ? static_cast<void*>(&pss_) : &pkcs1_; }
    ULONG flag() const { return isPss_ ? BCRYPT_PAD_PSS : BCRYPT_PAD_PKCS1; }

  private:
    BCRYPT_PKCS1_PADDING_INFO pkcs1_;
    BCRYPT_PSS_PADDING_INFO pss_;
    bool isPss_;
};

}  // namespace

std::optional<RsaNumbers> generateBySystem(unsigned bits) {
    BCRYPT_KEY_HANDLE made = nullptr;
    BCryptGenerateKeyPair(rsa(), &made, bits, 0);
    const KeyHandle key(made);
    BCRYPT_RSAKEY_BLOB header;
    SecretBytes blob(sizeof header + longestExponent + bits / 8 + bits / 8);
    ULONG length = 0;
    if (!key || !BCRYPT_SUCCESS(BCryptFinalizeKeyPair(made, 0)) ||
        !BCRYPT_SUCCESS(
            BCryptExportKey(made, nullptr, BCRYPT_RSAPRIVATE_BLOB, blob.data(), lengthOf(blob), &length, 0))) {
        return std::nullopt;
    }
    std::memcpy(&header, blob.data(), sizeof header);
    const std::size_t primesLength = std::size_t{header.cbPrime1} + header.cbPrime2;
    if (header.cbModulus != bits / 8 || header.cbPrime1 != bits / 16 || header.cbPrime2 != bits / 16 ||
        length != sizeof header + header.cbPublicExp + header.cbModulus + primesLength) {
        return std::nullopt;
    }
    const auto exponent = blob.begin() + sizeof header;
    const auto modulus = exponent + header.cbPublicExp;
    const auto primes = modulus + header.cbModulus;
    return RsaNumbers{
        {modulus, primes}, {exponent, modulus}, {primes, primes + static_cast<std::ptrdiff_t>(primesLength)}};
}

SystemRsaKey::SystemRsaKey(ByteView modulus, ByteView exponent, ByteView primes)
    : blobType_(primes.empty() ? BCRYPT_RSAPUBLIC_BLOB : BCRYPT_RSAPRIVATE_BLOB),
      modulusLength_(modulus.size()),
      blob_(sizeof(BCRYPT_RSAKEY_BLOB)) {
    const ULONG primeLength = lengthOf(primes) / 2;
    const BCRYPT_RSAKEY_BLOB header = {
        static_cast<ULONG>(primes.empty() ? BCRYPT_RSAPUBLIC_MAGIC : BCRYPT_RSAPRIVATE_MAGIC),
        lengthOf(modulus) * 8 - static_cast<ULONG>(std::countl_zero(modulus[0])),
        lengthOf(exponent),
        lengthOf(modulus),
        primeLength,
        primeLength};
    std::memcpy(blob_.data(), &header, sizeof header);
    blob_.reserve(sizeof header + exponent.size() + modulus.size() + primes.size());
    for (const ByteView number : {exponent, modulus, primes}) {
        blob_.insert(blob_.end(), number.begin(), number.end());
    }
}

std::optional<Bytes> SystemRsaKey::sign(const DigestType& type, ByteView digest, bool pss) const {
    Padding padding(type, pss);
    const KeyHandle key = padding.offered() ? import(blobType_, blob_) : nullptr;
    Bytes signature(modulusLength_);
    ULONG length = 0;
    if (!key || !BCRYPT_SUCCESS(BCryptSignHash(key.get(), padding.information(), inputOf(digest), lengthOf(digest),
                                               signature.data(), lengthOf(signature), &length, padding.flag()))) {
        return std::nullopt;
    }
    return signature;
}

std::optional<bool> SystemRsaKey::verify(const DigestType& type, ByteView digest, ByteView signature, bool pss) const {
    Padding padding(type, pss);
    const KeyHandle key = padding.offered() ? import(blobType_, blob_) : nullptr;
    if (!key) {
        return std::nullopt;
    }
    const NTSTATUS status = BCryptVerifySignature(key.get(), padding.information(), inputOf(digest), lengthOf(digest),
                                                  inputOf(signature), lengthOf(signature), padding.flag());
    if (!BCRYPT_SUCCESS(status) && status != invalidSignature) {
        return std::nullopt;
    }
    return BCRYPT_SUCCESS(status);
}

}  // namespace virtual_token
