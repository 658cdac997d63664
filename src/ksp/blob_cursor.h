// Reading of key blobs: a cursor that knows its end.
#pragma once

#include <cstring>
#include <optional>
#include <type_traits>

#include "token/key_encoding.h"

namespace talvik::ksp {

// Nothing past the end is ever read, whatever lengths the data itself claims; a piece that is not all there fails and
// leaves the cursor where it was.
class BlobCursor {
  public:
    explicit BlobCursor(ByteView data) noexcept : rest_(data) {}

    std::optional<ByteView> take(std::size_t count) noexcept {
        if (count > rest_.size()) {
            return std::nullopt;
        }
        const ByteView piece = rest_.first(count);
        rest_ = rest_.subspan(count);
        return piece;
    }

    // A fixed-size record, for example a blob's header.
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

}  // namespace talvik::ksp
