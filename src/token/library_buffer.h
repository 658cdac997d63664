// A buffer that the device library allocates for its caller.
#pragma once

#include <windows.h>

#include <cstdlib>

#include "token/key_encoding.h"

namespace talvik {

// Receives `unsigned char**` and `int*` outputs of the device library and releases them with free, wiped when they
// carry plaintexts or keys. The caller says how long an honest result can be at most; a longer or negative length, or
// one without a buffer, counts as a failed operation.
class LibraryBuffer {
  public:
    enum class Content { Secret, Ciphertext };

    explicit LibraryBuffer(std::size_t longest, Content content = Content::Secret) noexcept
        : longest_(longest), content_(content) {}
    ~LibraryBuffer() { release(); }
    LibraryBuffer(const LibraryBuffer&) = delete;
    LibraryBuffer& operator=(const LibraryBuffer&) = delete;

    // For one library call; whatever an earlier call left is released.
    unsigned char** bytesOut() noexcept {
        release();
        return &bytes_;
    }
    int* lengthOut() noexcept { return &length_; }

    bool isHonest() const noexcept {
        return length_ == 0 || (length_ > 0 && static_cast<std::size_t>(length_) <= longest_ && bytes_ != nullptr);
    }

    // Only of an honest result.
    ByteView view() const noexcept { return {bytes_, static_cast<std::size_t>(length_)}; }

  private:
    void release() noexcept {
        if (content_ == Content::Secret && bytes_ != nullptr && isHonest()) {
            SecureZeroMemory(bytes_, static_cast<SIZE_T>(length_));
        }
        std::free(bytes_);
        bytes_ = nullptr;
        length_ = 0;
    }

    std::size_t longest_;
    Content content_;
    unsigned char* bytes_ = nullptr;
    int length_ = 0;
};

}  // namespace talvik
