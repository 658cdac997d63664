// A buffer for key material or plaintext: wiped when it goes.
#pragma once

#include <cstddef>
#include <memory>

#include "token/key_encoding.h"

namespace talvik {

// Fixed size, and not cleared at first: it may be as large as a message, and the device library overwrites it.
//
// Applications decrypt a file in many calls. Fresh pages for each would cost more than decrypting into them, so a block
// of 1 MiB serves every buffer of 64 KiB or more that fits, and is kept, wiped, for the process's next one.
class SecretBytes {
  public:
    explicit SecretBytes(std::size_t size);
    ~SecretBytes();
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
