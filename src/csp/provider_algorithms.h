// What PP_ENUMALGS and PP_ENUMALGS_EX advertise: more than the provider performs, since applications look for these
// names.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>

#include "token/algorithms.h"

namespace talvik::csp {

struct AdvertisedAlgorithm {
    ALG_ID algId;
    DWORD minimumBits;
    DWORD maximumBits;
    DWORD defaultBits;
    DWORD protocols;
    std::string_view name;
    std::string_view longName;
};

inline constexpr DWORD PROTOCOLS_SIGNING = CRYPT_FLAG_SIGNING;
inline constexpr DWORD PROTOCOLS_SIGNING_IPSEC = CRYPT_FLAG_SIGNING | CRYPT_FLAG_IPSEC;

inline constexpr AdvertisedAlgorithm algorithmsBeforeHashes[] = {
    {CALG_RC2, 40, 128, 128, 0, "RC2", "RSA Data Security's RC2"},
    {CALG_RC4, 40, 128, 128, 0, "RC4", "RSA Data Security's RC4"},
    {CALG_DES, 56, 56, 56, 0, "DES", "Data Encryption Standard (DES)"},
    {CALG_3DES_112, 112, 112, 112, 0, "3DES TWO KEY", "Two Key Triple DES"},
    {CALG_3DES, 168, 168, 168, 0, "3DES", "Three Key Triple DES"},
};

constexpr AdvertisedAlgorithm advertised(const HashAlgorithm& hash) {
    const DWORD bits = hash.digestSize * 8;
    return {hash.algId, bits, bits, bits, PROTOCOLS_SIGNING, hash.name, hash.longName};
}

// Of an RSA algorithm.
constexpr AdvertisedAlgorithm advertised(ALG_ID algId, std::string_view name, std::string_view longName) {
    return {algId,   smallestRsaSize.bits, largestRsaSize.bits, defaultRsaSize.bits, PROTOCOLS_SIGNING_IPSEC, name,
            longName};
}

inline constexpr AdvertisedAlgorithm algorithmsAfterHashes[] = {
    {CALG_SSL3_SHAMD5, 288, 288, 288, 0, "SSL3 SHAMD5", "SSL3 SHAMD5"},
    {CALG_MAC, 0, 0, 0, 0, "MAC", "Message Authentication Code"},
    advertised(CALG_RSA_SIGN, "RSA-Sign", "RSA Signature"),
    advertised(CALG_RSA_KEYX, "RSA-KeyX", "RSA Key Exchange"),
    {CALG_HMAC, 0, 0, 0, 0, "HMAC", "Hugo's MAC (HMAC)"},
    {CALG_AES_128, 128, 128, 128, 0, "AES-128", "Advanced Encryption Standard 128-bit"},
    {CALG_AES_192, 192, 192, 192, 0, "AES-192", "Advanced Encryption Standard 192-bit"},
    {CALG_AES_256, 256, 256, 256, 0, "AES-256", "Advanced Encryption Standard 256-bit"},
};

inline constexpr auto supportedAlgorithms = [] {
    std::array<AdvertisedAlgorithm,
               std::size(algorithmsBeforeHashes) + std::size(hashAlgorithms) + std::size(algorithmsAfterHashes)>
        rows{};
    auto next = std::ranges::copy(algorithmsBeforeHashes, rows.begin()).out;
    next = std::ranges::transform(hashAlgorithms, next, [](const auto& hash) { return advertised(hash); }).out;
    std::ranges::copy(algorithmsAfterHashes, next);
    return rows;
}();

}  // namespace talvik::csp
