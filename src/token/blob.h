// Key blobs: a cursor that knows its end, and CryptoAPI's form of a public key, which both faces take and give.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <type_traits>

#include "token/key_encoding.h"
#include "token/public_key.h"

namespace talvik {

// Nothing past the end is ever read, whatever lengths the data itself claims; a piece that is not all there fails and
// leaves the cursor where it was.
class BlobCursor {
  public:
    explicit BlobCursor(ByteView data) noexcept : rest_(data) {}

    ByteView rest() const noexcept { return rest_; }

    std::optional<ByteView> take(std::size_t count) noexcept {
        if (count > rest_.size()) {
            return std::nullopt;
        }
        const ByteView piece = rest_.first(count);
        rest_ = rest_.subspan(count);
        return piece;
    }

    // A number, or a fixed-size record, for example a blob's header.
    template <class Record>
    std::optional<Record> read() noexcept {
        static_assert(std::is_trivially_copyable_v<Record>);
        const std::optional<ByteView> bytes = take(sizeof(Record));
        if (!bytes) {
            return std::nullopt;
        }
        Record record;
        std::memcpy(&record, bytes->data(), sizeof record);
        return record;
    }

  private:
    ByteView rest_;
};

inline constexpr std::uint32_t RSA_PUBLIC_MAGIC = 0x31415352;  // "RSA1"

// The head of a PUBLICKEYBLOB; the modulus follows, least significant byte first.
struct PublicKeyBlobHeader {
    PUBLICKEYSTRUC blob;
    RSAPUBKEY key;
};
static_assert(sizeof(PublicKeyBlobHeader) == 20);

constexpr PublicKeyBlobHeader publicKeyBlobHeader(ALG_ID algId, std::size_t modulusSize) noexcept {
    return {{PUBLICKEYBLOB, CUR_BLOB_VERSION, 0, algId},
            {RSA_PUBLIC_MAGIC, static_cast<DWORD>(modulusSize * 8), DEFAULT_EXPONENT}};
}

}  // namespace talvik
