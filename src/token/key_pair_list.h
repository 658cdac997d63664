// The key pairs of a token, as it listed them when they were asked for.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "token/device_library.h"

namespace talvik {

// A copy, made at once: the library's own list may be rebuilt by its next call.
//
// Almost every operation asks for the list. A record has 1.3 KiB, and fresh pages for a long list would cost far more
// than copying it, so the memory of one list is kept for the process's next one.
class KeyPairList {
  public:
    using Records = std::vector<TalvikKeyPair>;

    // Empty where the device is not known or holds no keys.
    KeyPairList(const std::string& deviceId, void* reserved);
    ~KeyPairList();
    KeyPairList(const KeyPairList&) = delete;
    KeyPairList& operator=(const KeyPairList&) = delete;

    bool empty() const noexcept { return records_->empty(); }
    std::size_t size() const noexcept { return records_->size(); }
    Records::const_iterator begin() const noexcept { return records_->begin(); }
    Records::const_iterator end() const noexcept { return records_->end(); }
    Records::const_reverse_iterator rbegin() const noexcept { return records_->rbegin(); }
    Records::const_reverse_iterator rend() const noexcept { return records_->rend(); }

  private:
    std::unique_ptr<Records> records_;
};

}  // namespace talvik
