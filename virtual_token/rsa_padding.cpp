#include "rsa_padding.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <gcrypt.h>

#include "gcrypt_objects.h"

namespace virtual_token {
namespace {

using Sha1Digest = std::array<unsigned char, oaepHashLength>;

Sha1Digest sha1(ByteView data) {
    startGcrypt();
    Sha1Digest digest;
    gcry_md_hash_buffer(GCRY_MD_SHA1, digest.data(), data.data(), data.size());
    return digest;
}

// XORs `target` with MGF1(seed).
SecretBytes unmasked(ByteView target, ByteView seed) {
    SecretBytes result(target.begin(), target.end());
    SecretBytes input(seed.begin(), seed.end());
    input.resize(seed.size() + 4);
    for (std::size_t done = 0, counter = 0; done < result.size(); ++counter) {
        for (std::size_t k = 0; k < 4; ++k) {
            input[seed.size() + k] = static_cast<unsigned char>(counter >> (24 - 8 * k) & 0xFF);
        }
        for (const unsigned char mask : sha1(input)) {
            if (done < result.size()) {
                result[done++] ^= mask;
            }
        }
    }
    return result;
}

}  // namespace

// 00 | masked seed (20) | masked (hash of the label (20) | 00... | 01 | message)
std::optional<SecretBytes> removeOaep(ByteView block) {
    if (block.size() < oaepOverhead || block[0] != 0) {
        return std::nullopt;
    }
    const ByteView maskedSeed = block.subspan(1, oaepHashLength);
    const ByteView maskedData = block.subspan(1 + oaepHashLength);
    const SecretBytes seed = unmasked(maskedSeed, maskedData);
    const SecretBytes data = unmasked(maskedData, seed);
    if (!equalInConstantTime(ByteView(data).first(oaepHashLength), sha1({}))) {
        return std::nullopt;
    }
    const auto mark = std::find_if(data.begin() + oaepHashLength, data.end(), [](unsigned char b) { return b != 0; });
    if (mark == data.end() || *mark != 1) {
        return std::nullopt;
    }
    return SecretBytes(mark + 1, data.end());
}

// 00 | 02 | at least eight bytes, none 00 | 00 | message
std::optional<SecretBytes> removePkcs1(ByteView block) {
    if (block.size() < pkcs1Overhead || block[0] != 0 || block[1] != 2) {
        return std::nullopt;
    }
    const auto end = std::find(block.begin() + 2, block.end(), 0);
    if (end == block.end() || end - block.begin() < static_cast<std::ptrdiff_t>(pkcs1Overhead - 1)) {
        return std::nullopt;
    }
    return SecretBytes(end + 1, block.end());
}

Bytes randomNonZeroBytes(std::size_t length) {
    Bytes bytes = randomBytes(length);
    for (unsigned char& byte : bytes) {
        while (byte == 0) {
            fillRandom(&byte, 1);
        }
    }
    return bytes;
}

}  // namespace virtual_token
