// Reading and writing CryptoAPI key blobs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "token/key_encoding.h"

namespace talvik::csp {

// Layout of a blob, in bytes from its start. All numbers are little-endian.
inline constexpr std::size_t BLOB_TYPE = 0;           // 8-bit
inline constexpr std::size_t BLOB_VERSION = 1;        // 8-bit
inline constexpr std::size_t BLOB_ALG_ID = 4;         // 32-bit
inline constexpr std::size_t BLOB_RSA_MAGIC = 8;      // 32-bit, of a PUBLICKEYBLOB
inline constexpr std::size_t BLOB_PAYLOAD = 12;       // of every other blob
inline constexpr std::size_t BLOB_RSA_BITS = 12;      // 32-bit
inline constexpr std::size_t BLOB_RSA_EXPONENT = 16;  // 32-bit
inline constexpr std::size_t BLOB_RSA_MODULUS = 20;   // least significant byte first

inline constexpr std::uint32_t RSA_PUBLIC_MAGIC = 0x31415352;  // "RSA1"

// A blob of the caller's. What lies beyond its end reads as 0.
class BlobReader {
  public:
    explicit BlobReader(ByteView blob) noexcept : blob_(blob) {}

    std::uint8_t byteAt(std::size_t offset) const noexcept { return numberAt<std::uint8_t>(offset); }
    std::uint32_t wordAt(std::size_t offset) const noexcept { return numberAt<std::uint32_t>(offset); }

    ByteView from(std::size_t offset) const noexcept {
        return offset < blob_.size() ? blob_.subspan(offset) : ByteView();
    }

    std::size_t size() const noexcept { return blob_.size(); }

  private:
    template <class Number>
    Number numberAt(std::size_t offset) const noexcept {
        Number number = 0;
        if (const ByteView rest = from(offset); rest.size() >= sizeof number) {
            std::memcpy(&number, rest.data(), sizeof number);
        }
        return number;
    }

    ByteView blob_;
};

}  // namespace talvik::csp
