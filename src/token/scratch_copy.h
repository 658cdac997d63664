// A copy of a caller's data for the length of one call: a ciphertext whose plaintext takes its place.
#pragma once

#include <algorithm>
#include <atomic>
#include <memory>

#include "token/key_encoding.h"

namespace talvik {

// Not wiped: what the caller itself holds in clear is nothing secret. Memory fresh from the system costs several times
// as much as the copy, so the process keeps one buffer between calls, of a size that applications work in.
class ScratchCopy {
  public:
    explicit ScratchCopy(ByteView data) : size_(data.size()), buffer_(takeBuffer(size_)) {
        std::copy(data.begin(), data.end(), buffer_->bytes.get());
    }
    ~ScratchCopy() {
        if (buffer_->capacity <= largestKept) {
            buffer_.reset(keptBuffer().exchange(buffer_.release()));
        }
    }
    ScratchCopy(const ScratchCopy&) = delete;
    ScratchCopy& operator=(const ScratchCopy&) = delete;

    ByteView view() const noexcept { return {buffer_->bytes.get(), size_}; }

  private:
    static constexpr std::size_t largestKept = 2u << 20;

    struct Buffer {
        explicit Buffer(std::size_t room)
            : capacity(room), bytes(std::make_unique_for_overwrite<unsigned char[]>(room)) {}
        std::size_t capacity;
        std::unique_ptr<unsigned char[]> bytes;
    };

    // Whoever takes the buffer has it alone; a second thread makes one of its own.
    static std::atomic<Buffer*>& keptBuffer() noexcept {
        static constinit std::atomic<Buffer*> kept{nullptr};
        return kept;
    }

    static std::unique_ptr<Buffer> takeBuffer(std::size_t size) {
        std::unique_ptr<Buffer> kept(keptBuffer().exchange(nullptr));
        return kept != nullptr && kept->capacity >= size ? std::move(kept) : std::make_unique<Buffer>(size);
    }

    std::size_t size_;
    std::unique_ptr<Buffer> buffer_;
};

}  // namespace talvik
