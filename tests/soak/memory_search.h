// Looks for a secret in this process's own memory without ever holding it in clear.
#pragma once

#include <windows.h>

#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace soak {

// A text that exists only masked; `reveal` lends it in clear for the length of one call and wipes it.
class MaskedText {
  public:
    template <std::size_t Length>
    consteval explicit MaskedText(const char (&text)[Length]) : size_(Length - 1) {
        static_assert(Length <= capacity);
        for (std::size_t i = 0; i + 1 < Length; ++i) {
            masked_[i] = static_cast<char>(text[i] ^ mask);
        }
    }

    template <class Use>
    auto reveal(Use use) const {
        struct Clear {
            char text[capacity] = {};
            ~Clear() { SecureZeroMemory(text, sizeof text); }
        } clear;
        for (std::size_t i = 0; i < size_; ++i) {
            clear.text[i] = at(i);
        }
        return use(static_cast<char*>(clear.text));
    }

    char at(std::size_t i) const { return static_cast<char>(masked_[i] ^ mask); }
    std::size_t size() const { return size_; }

  private:
    static constexpr std::size_t capacity = 64;
    static constexpr char mask = 0x25;
    std::array<char, capacity> masked_{};
    std::size_t size_;
};

// Where the secret's second half lies in committed writable memory, as bytes or as UTF-16: one text for each place. A
// copy that has lost its beginning, as a moved-from string and a freed block have, counts.
std::vector<std::string> findCopies(const MaskedText& secret);

}  // namespace soak
