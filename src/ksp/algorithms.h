// The algorithms that the provider offers, and what CNG calls the token's key types.
#pragma once

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "token/algorithms.h"

namespace talvik::ksp {

struct Algorithm {
    std::wstring_view name;  // NUL-terminated
    DWORD interfaceClass;
    DWORD operations;
};

inline constexpr std::wstring_view rsaAlgorithmName = L"RSA";

inline constexpr auto algorithms = [] {
    std::array<Algorithm, 1 + std::size(ellipticCurves) + std::size(hashAlgorithms)> rows{
        {{rsaAlgorithmName, NCRYPT_ASYMMETRIC_ENCRYPTION_INTERFACE,
          NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION | NCRYPT_SIGNATURE_OPERATION}}};
    const auto ofCurve = [](const EllipticCurve& curve) {
        return Algorithm{curve.name, NCRYPT_SIGNATURE_INTERFACE, NCRYPT_SIGNATURE_OPERATION};
    };
    const auto ofHash = [](const HashAlgorithm& hash) {
        return Algorithm{hash.cngName, NCRYPT_HASH_INTERFACE, NCRYPT_HASH_OPERATION};
    };
    const auto next = std::ranges::transform(ellipticCurves, rows.begin() + 1, ofCurve).out;
    std::ranges::transform(hashAlgorithms, next, ofHash);
    return rows;
}();

// Room for the longest of these names, with its NUL.
inline constexpr std::size_t algorithmNameRoom =
    std::ranges::max(algorithms, {}, [](const Algorithm& row) { return row.name.size(); }).name.size() + 1;

// Of a key type; everything that is no elliptic-curve key is called RSA.
constexpr std::wstring_view algorithmNameOf(std::uint32_t keyType) {
    const EllipticCurve* const curve = findCurve(keyType);
    return curve != nullptr ? curve->name : rsaAlgorithmName;
}
constexpr std::wstring_view algorithmGroupOf(std::uint32_t keyType) {
    return findCurve(keyType) != nullptr ? std::wstring_view(L"ECDSA") : rsaAlgorithmName;
}

}  // namespace talvik::ksp
