// The fuzzer's bytes, taken from the front: each choice costs bytes, and past the end every choice is 0.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>

class Input {
  public:
    Input() = default;
    Input(const std::uint8_t* data, std::size_t size) : rest_(data, size) {}

    template <class Number>
    Number take() {
        Number number{};
        const auto bytes = takeBytes(sizeof number);
        std::copy(bytes.begin(), bytes.end(), reinterpret_cast<std::uint8_t*>(&number));
        return number;
    }

    // Below `bound`, which fits a byte.
    std::size_t below(std::size_t bound) { return take<std::uint8_t>() % bound; }

    template <class Choices>
    const auto& oneOf(const Choices& choices) {
        return std::data(choices)[below(std::size(choices))];
    }

    // As many as there are, at most `count`.
    std::span<const std::uint8_t> takeBytes(std::size_t count) {
        const auto taken = rest_.first(std::min(count, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    std::span<const std::uint8_t> takeRest() { return takeBytes(rest_.size()); }

    bool isAtEnd() const { return rest_.empty(); }

  private:
    std::span<const std::uint8_t> rest_;
};

// A block of the heap of exactly this size, behind and before which nothing may be touched.
class Guarded {
  public:
    explicit Guarded(std::size_t size) : size_(size), bytes_(new unsigned char[size]()) {}
    explicit Guarded(std::span<const std::uint8_t> content) : Guarded(content.size()) {
        std::copy(content.begin(), content.end(), bytes_.get());
    }

    // The bytes and the zeros that end a text of units of `width` bytes, as callers give texts without their length.
    static Guarded text(std::span<const std::uint8_t> content, std::size_t width) {
        Guarded block(content.size() / width * width + width);
        std::copy_n(content.begin(), block.size_ - width, block.bytes_.get());
        return block;
    }

    unsigned char* data() const { return bytes_.get(); }
    std::uint32_t size() const { return static_cast<std::uint32_t>(size_); }

    template <class Unit>
    const Unit* as() const {
        return reinterpret_cast<const Unit*>(bytes_.get());
    }

  private:
    std::size_t size_;
    std::unique_ptr<unsigned char[]> bytes_;
};
