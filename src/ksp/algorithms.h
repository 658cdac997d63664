// The algorithms that the provider offers, and the names of the token's key types.
#pragma once

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include <cstdint>
#include <string_view>

#include "token/device_library.h"

namespace talvik::ksp {

struct Algorithm {
    std::wstring_view name;  // NUL-terminated
    DWORD interfaceClass;
    DWORD operations;
};

inline constexpr Algorithm algorithms[] = {
    {L"RSA", NCRYPT_ASYMMETRIC_ENCRYPTION_INTERFACE,
     NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION | NCRYPT_SIGNATURE_OPERATION},
    {L"ECDSA_P256", NCRYPT_SIGNATURE_INTERFACE, NCRYPT_SIGNATURE_OPERATION},
    {L"ECDSA_P384", NCRYPT_SIGNATURE_INTERFACE, NCRYPT_SIGNATURE_OPERATION},
    {L"ECDSA_P521", NCRYPT_SIGNATURE_INTERFACE, NCRYPT_SIGNATURE_OPERATION},
    {L"SHA1", NCRYPT_HASH_INTERFACE, NCRYPT_HASH_OPERATION},
    {L"SHA256", NCRYPT_HASH_INTERFACE, NCRYPT_HASH_OPERATION},
    {L"SHA384", NCRYPT_HASH_INTERFACE, NCRYPT_HASH_OPERATION},
    {L"SHA512", NCRYPT_HASH_INTERFACE, NCRYPT_HASH_OPERATION},
};

// What key pairs can be made of, by the name that an application asks for.
struct KeyPairAlgorithm {
    std::wstring_view name;  // NUL-terminated
    std::wstring_view group;
    std::uint32_t keyType;  // 0: chosen by size when the key is made
};

inline constexpr KeyPairAlgorithm keyPairAlgorithms[] = {
    {L"RSA", L"RSA", 0},
    {L"ECDSA_P256", L"ECDSA", TALVIK_KEY_EC_P256},
    {L"ECDSA_P384", L"ECDSA", TALVIK_KEY_EC_P384},
    {L"ECDSA_P521", L"ECDSA", TALVIK_KEY_EC_P521},
};

// Of a key type; everything that is no elliptic-curve key is called RSA.
constexpr const KeyPairAlgorithm& algorithmOfType(std::uint32_t keyType) {
    for (const KeyPairAlgorithm& algorithm : keyPairAlgorithms) {
        if (algorithm.keyType == keyType) {
            return algorithm;
        }
    }
    return keyPairAlgorithms[0];
}

// RSA sizes that the token knows, with what goes by them.
struct RsaSize {
    std::uint32_t bits;
    std::uint32_t keyType;
    EncryptionType encryption;
};

inline constexpr RsaSize rsaSizes[] = {
    {1024, TALVIK_KEY_RSA_1024, EncryptionType::Rsa1024},
    {2048, TALVIK_KEY_RSA_2048, EncryptionType::Rsa2048},
    {3072, TALVIK_KEY_RSA_3072, EncryptionType::Rsa3072},
    {4096, TALVIK_KEY_RSA_4096, EncryptionType::Rsa4096},
};
inline constexpr const RsaSize& defaultRsaSize = rsaSizes[1];

// Null for a size that the token does not know.
constexpr const RsaSize* findRsaSize(std::uint32_t bits) {
    for (const RsaSize& size : rsaSizes) {
        if (size.bits == bits) {
            return &size;
        }
    }
    return nullptr;
}

constexpr const RsaSize& rsaSizeOrDefault(std::uint32_t bits) {
    const RsaSize* const size = findRsaSize(bits);
    return size != nullptr ? *size : defaultRsaSize;
}

}  // namespace talvik::ksp
