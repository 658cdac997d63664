// Every fact about a kind of key or digest, once: sizes, the device library's codes, the names and codes of both faces.
// A new one is a row here, beside its code in the device library's contract.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "token/device_library.h"
#include "token/table.h"

namespace talvik {

// --- RSA key pairs ---------------------------------------------------------------------------------------------------

struct RsaSize {
    std::uint32_t bits;
    std::uint32_t keyType;
    EncryptionType encryption;

    constexpr std::uint32_t bytes() const noexcept { return bits / 8; }
};

// Smallest first.
inline constexpr RsaSize rsaSizes[] = {
    {1024, TALVIK_KEY_RSA_1024, EncryptionType::Rsa1024},
    {2048, TALVIK_KEY_RSA_2048, EncryptionType::Rsa2048},
    {3072, TALVIK_KEY_RSA_3072, EncryptionType::Rsa3072},
    {4096, TALVIK_KEY_RSA_4096, EncryptionType::Rsa4096},
};
inline constexpr const RsaSize& smallestRsaSize = rsaSizes[0];
inline constexpr const RsaSize& largestRsaSize = rsaSizes[std::size(rsaSizes) - 1];
inline constexpr const RsaSize& defaultRsaSize = *findRow(rsaSizes, &RsaSize::keyType, TALVIK_KEY_RSA_2048);

// Null for a size that the token does not know.
constexpr const RsaSize* findRsaSize(std::uint32_t bits) {
    return findRow(rsaSizes, &RsaSize::bits, bits);
}

constexpr const RsaSize& rsaSizeOrDefault(std::uint32_t bits) {
    const RsaSize* const size = findRsaSize(bits);
    return size != nullptr ? *size : defaultRsaSize;
}

// Room for the result of an operation with any key pair: as long as the longest modulus that a record can carry, and
// longer than every size above, for a library that writes more than it should.
inline constexpr std::size_t largestRsaResult = sizeof TalvikKeyPair::modulus;
static_assert(largestRsaSize.bytes() < largestRsaResult);

// --- elliptic-curve key pairs ----------------------------------------------------------------------------------------

struct EllipticCurve {
    std::uint32_t keyType;
    std::uint32_t bits;
    std::wstring_view name;  // CNG's; NUL-terminated
};

inline constexpr EllipticCurve ellipticCurves[] = {
    {TALVIK_KEY_EC_P256, 256, L"ECDSA_P256"},
    {TALVIK_KEY_EC_P384, 384, L"ECDSA_P384"},
    {TALVIK_KEY_EC_P521, 521, L"ECDSA_P521"},
};

// Null for a type that is no elliptic-curve key.
constexpr const EllipticCurve* findCurve(std::uint32_t keyType) {
    return findRow(ellipticCurves, &EllipticCurve::keyType, keyType);
}

// Size of a key pair in bits by its type; 0 for a type that is no key pair.
constexpr std::uint32_t keyBitsOfType(std::uint32_t keyType) {
    if (const RsaSize* const size = findRow(rsaSizes, &RsaSize::keyType, keyType)) {
        return size->bits;
    }
    const EllipticCurve* const curve = findCurve(keyType);
    return curve != nullptr ? curve->bits : 0;
}

// --- AES keys --------------------------------------------------------------------------------------------------------

// CryptoAPI's triple DES keys go by the code of the 24-byte keys, whose vector is therefore that of the shorter block.
struct AesLength {
    std::uint32_t bytes;
    std::uint32_t keyType;
    ALG_ID algId;  // of the CryptoAPI keys that go by this code
    EncryptionType cbc;
    EncryptionType ecb;
    std::size_t ivSize;  // bytes
    bool unwraps;        // whether a key of the token is tried as one that wraps others

    constexpr EncryptionType encryption(bool isChained) const noexcept { return isChained ? cbc : ecb; }
};

inline constexpr AesLength aesLengths[] = {
    {16, TALVIK_KEY_AES_128, CALG_AES_128, EncryptionType::Aes128Cbc, EncryptionType::Aes128Ecb, 16, true},
    {24, TALVIK_KEY_AES_192, CALG_3DES, EncryptionType::Aes256Cbc, EncryptionType::Aes256Ecb, 8, false},
    {32, TALVIK_KEY_AES_256, CALG_AES_256, EncryptionType::Aes256Cbc, EncryptionType::Aes256Ecb, 16, true},
};
inline constexpr const AesLength& longestAes = aesLengths[std::size(aesLengths) - 1];

// Null for a length that no AES key has.
constexpr const AesLength* findAesLength(std::size_t bytes) {
    return findRow(aesLengths, &AesLength::bytes, bytes);
}

// How the library encrypts with a key of `bytes`; a length that no AES key has counts as the longest.
constexpr EncryptionType aesEncryption(std::size_t bytes, bool isChained) {
    const AesLength* const length = findAesLength(bytes);
    return (length != nullptr ? *length : longestAes).encryption(isChained);
}

// --- digests ---------------------------------------------------------------------------------------------------------

struct HashAlgorithm {
    std::uint32_t algId;        // CryptoAPI's
    std::uint32_t mechanism;    // the device library's
    std::uint32_t digestSize;   // bytes
    std::wstring_view cngName;  // NUL-terminated
    std::string_view name;      // CryptoAPI's, as are the two that follow
    std::string_view longName;
    std::string_view logName;
};

inline constexpr HashAlgorithm hashAlgorithms[] = {
    {CALG_SHA1, TALVIK_HASH_SHA1, 20, L"SHA1", "SHA-1", "Secure Hash Algorithm (SHA-1)", "sha1"},
    {CALG_SHA_256, TALVIK_HASH_SHA256, 32, L"SHA256", "SHA-256", "Secure Hash Algorithm 256 (SHA-256)", "256"},
    {CALG_SHA_384, TALVIK_HASH_SHA384, 48, L"SHA384", "SHA-384", "Secure Hash Algorithm 384 (SHA-384)", "384"},
    {CALG_SHA_512, TALVIK_HASH_SHA512, 64, L"SHA512", "SHA-512", "Secure Hash Algorithm 512 (SHA-512)", "512"},
};

}  // namespace talvik
