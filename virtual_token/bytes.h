// Byte arrays: plain ones, secret ones that are wiped when they go, and their texts.
#pragma once

#include <windows.h>

#include <cstddef>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace virtual_token {

using Bytes = std::vector<unsigned char>;
using ByteView = std::span<const unsigned char>;

// Wipes what it gives back, so that growing, copying and destroying a container leaves no secret behind.
template <class T>
struct WipingAllocator {
    using value_type = T;
    WipingAllocator() = default;
    template <class U>
    WipingAllocator(const WipingAllocator<U>&) {}

    T* allocate(std::size_t count) { return static_cast<T*>(::operator new(count * sizeof(T))); }
    void deallocate(T* memory, std::size_t count) {
        SecureZeroMemory(memory, count * sizeof(T));
        ::operator delete(memory);
    }
    bool operator==(const WipingAllocator&) const { return true; }
};

using SecretBytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;

inline ByteView viewOf(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

// Takes the same time wherever the two differ.
bool equalInConstantTime(ByteView left, ByteView right);

std::string toHex(ByteView bytes);        // upper case
Bytes fromHex(std::string_view text);     // throws TokenError(InvalidArgument)
std::string toBase64(ByteView bytes);     // with padding, no line breaks
Bytes fromBase64(std::string_view text);  // throws TokenError(InvalidArgument)

// From the operating system's generator; more than 64 bytes are the AES-256 key stream of a key from there.
void fillRandom(unsigned char* buffer, std::size_t length);
Bytes randomBytes(std::size_t length);

}  // namespace virtual_token
