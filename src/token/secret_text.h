// A PIN in memory: wiped when it goes.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>
#include <utility>

namespace talvik {

// Owns a NUL-terminated text and overwrites it before its memory is released or reused. It never grows in place, so no
// earlier copy is left behind by a reallocation.
class SecretText {
  public:
    SecretText() = default;
    explicit SecretText(std::string_view text) : text_(text) {}
    SecretText(const SecretText& other) = default;
    SecretText(SecretText&& other) noexcept { text_.swap(other.text_); }
    SecretText& operator=(SecretText other) noexcept {
        text_.swap(other.text_);
        return *this;
    }
    ~SecretText() { wipe(); }

    void clear() noexcept {
        wipe();
        text_.clear();
    }

    bool empty() const noexcept { return text_.empty(); }
    const char* c_str() const noexcept { return text_.c_str(); }
    std::size_t size() const noexcept { return text_.size(); }

  private:
    void wipe() noexcept { SecureZeroMemory(text_.data(), text_.size()); }

    std::string text_;
};

}  // namespace talvik
