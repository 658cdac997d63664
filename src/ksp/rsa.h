// What signing and encrypting with a key pair have in common.
#pragma once

#include <cstddef>

#include "token/algorithms.h"
#include "token/key_encoding.h"
#include "token/public_key.h"

namespace talvik::ksp {

// Receives a signature or ciphertext. The library gets a buffer with room for the largest instead of the caller's: it
// may produce more than the key's length says, as ECDSA signatures do.
class RsaResult {
  public:
    unsigned char* bytesOut() noexcept { return bytes_; }

    // For one library call: presets the length with the room that there is.
    int* lengthOut() noexcept {
        length_ = static_cast<int>(sizeof bytes_);
        return &length_;
    }

    bool isHonest() const noexcept { return length_ >= 0 && static_cast<std::size_t>(length_) <= sizeof bytes_; }

    // Only of an honest result.
    ByteView view() const noexcept { return {bytes_, static_cast<std::size_t>(length_)}; }

  private:
    unsigned char bytes_[largestRsaResult] = {};
    int length_ = 0;
};

inline constexpr PublicKeyTexts publicKeyTexts = {"KSP: Public key is already DER encoded",
                                                  "KSP: Public key is raw modulus, converting to DER"};

}  // namespace talvik::ksp
