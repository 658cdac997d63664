// The process-wide settings that both faces, or several contexts, share on purpose.
#pragma once

#include <atomic>
#include <memory>

#include "token/key_encoding.h"

namespace talvik {

// The initialisation vector as it was when it was asked for: stays as it is while another thread sets a new one.
class IvSnapshot {
  public:
    explicit IvSnapshot(std::shared_ptr<const Bytes> bytes) noexcept : bytes_(std::move(bytes)) {}

    bool empty() const noexcept { return bytes_ == nullptr || bytes_->empty(); }

    // As the device library takes it: no vector is a null pointer with length 0.
    const unsigned char* data() const noexcept { return empty() ? nullptr : bytes_->data(); }
    int length() const noexcept { return empty() ? 0 : static_cast<int>(bytes_->size()); }

  private:
    std::shared_ptr<const Bytes> bytes_;
};

// The initialisation vector of every AES operation of both faces; empty until set. Deliberately not per key.
IvSnapshot sharedIv();
void setSharedIv(ByteView bytes);

// Set once any caller has read PP_CONTAINER or PP_UNIQUE_CONTAINER; widens what CPGetUserKey accepts.
extern std::atomic<bool> containerQueried;

// PP_USE_HARDWARE_RNG: whether random bytes come from the token's generator.
extern std::atomic<unsigned int> useHardwareRng;

}  // namespace talvik
