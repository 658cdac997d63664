// A PIN in memory: wiped when it goes.
#pragma once

#include <windows.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

namespace talvik {

// Owns a NUL-terminated text and overwrites it before its memory is released. The text lives in a block of its own that
// moves from owner to owner: a string would keep a short text inside itself and leave a copy behind when it is moved.
class SecretText {
  public:
    SecretText() = default;
    explicit SecretText(std::string_view text) : size_(text.size()) {
        if (size_ != 0) {
            text_ = std::make_unique<char[]>(size_ + 1);
            std::copy(text.begin(), text.end(), text_.get());
        }
    }
    SecretText(const SecretText& other) : SecretText(std::string_view(other.c_str(), other.size())) {}
    SecretText(SecretText&& other) noexcept { swap(other); }
    SecretText& operator=(SecretText other) noexcept {
        swap(other);
        return *this;
    }
    ~SecretText() { clear(); }

    void clear() noexcept {
        if (text_ != nullptr) {
            SecureZeroMemory(text_.get(), size_);
        }
        text_.reset();
        size_ = 0;
    }

    bool empty() const noexcept { return size_ == 0; }
    const char* c_str() const noexcept { return text_ != nullptr ? text_.get() : ""; }
    std::size_t size() const noexcept { return size_; }

  private:
    void swap(SecretText& other) noexcept {
        std::swap(text_, other.text_);
        std::swap(size_, other.size_);
    }

    std::unique_ptr<char[]> text_;
    std::size_t size_ = 0;
};

}  // namespace talvik
