// A buffer for key material or plaintext: wiped when it goes.
#pragma once

#include <windows.h>

#include <cstddef>
#include <memory>

#include "token/key_encoding.h"

namespace talvik {

// Fixed size, and not cleared at first: it may be as large as a message, and the device library overwrites it.
class SecretBytes {
  public:
    explicit SecretBytes(std::size_t size)
        : size_(size), bytes_(std::make_unique_for_overwrite<unsigned char[]>(size)) {}
    ~SecretBytes() { SecureZeroMemory(bytes_.get(), size_); }
    SecretBytes(const SecretBytes&) = delete;
    SecretBytes& operator=(const SecretBytes&) = delete;

    unsigned char* data() noexcept { return bytes_.get(); }
    std::size_t size() const noexcept { return size_; }
    ByteView first(std::size_t count) const noexcept { return {bytes_.get(), count}; }

  private:
    std::size_t size_;
    std::unique_ptr<unsigned char[]> bytes_;
};

}  // namespace talvik
