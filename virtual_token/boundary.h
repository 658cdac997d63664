// What every exported operation needs: nothing thrown leaves it, and every argument is looked at.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "bytes.h"
#include "status.h"
#include "token_home.h"

namespace virtual_token {

template <class Operation>
int guarded(Operation operation) noexcept {
    try {
        operation();
        return static_cast<int>(Status::Ok);
    } catch (const TokenError& error) {
        return static_cast<int>(error.status());
    } catch (const std::bad_alloc&) {
        return static_cast<int>(Status::OutOfMemory);
    } catch (...) {
        return static_cast<int>(Status::InternalError);
    }
}

// An input may be null only when it is empty.
inline ByteView inputOf(const unsigned char* data, int length) {
    require(length >= 0 && (data != nullptr || length == 0), Status::InvalidArgument);
    return {data, static_cast<std::size_t>(length)};
}

inline std::string_view textOf(const char* text) {
    require(text != nullptr, Status::InvalidArgument);
    return text;
}

inline std::shared_ptr<Token> deviceOf(const char* deviceId) {
    return findToken(textOf(deviceId));
}

inline ObjectId objectIdOf(const unsigned char* id) {
    require(id != nullptr, Status::InvalidArgument);
    ObjectId copy;
    std::memcpy(copy.data(), id, copy.size());
    return copy;
}

// The room of a caller's buffer for `needed` bytes. 0 on entry means that the caller vouches for enough room; too
// little is refused, and the caller learns what is needed.
inline void requireRoom(const unsigned char* buffer, int* length, std::size_t needed) {
    require(buffer != nullptr && length != nullptr && *length >= 0, Status::InvalidArgument);
    if (*length > 0 && static_cast<std::size_t>(*length) < needed) {
        *length = static_cast<int>(needed);
        throw TokenError(Status::BufferTooSmall);
    }
}

inline void copyOut(ByteView result, unsigned char* buffer, int* length) {
    requireRoom(buffer, length, result.size());
    std::memcpy(buffer, result.data(), result.size());
    *length = static_cast<int>(result.size());
}

// A buffer that the caller releases with free.
struct FreeMemory {
    void operator()(unsigned char* memory) const { std::free(memory); }
};
using HandedOut = std::unique_ptr<unsigned char, FreeMemory>;

inline HandedOut allocateOutput(std::size_t length) {
    HandedOut memory(static_cast<unsigned char*>(std::malloc(length == 0 ? 1 : length)));
    if (!memory) {
        throw std::bad_alloc();
    }
    return memory;
}

inline void requireOutput(unsigned char** output, int* length) {
    require(output != nullptr && length != nullptr, Status::InvalidArgument);
    *output = nullptr;
    *length = 0;
}

inline void handOut(ByteView result, unsigned char** output, int* length) {
    HandedOut memory = allocateOutput(result.size());
    std::memcpy(memory.get(), result.data(), result.size());
    *output = memory.release();
    *length = static_cast<int>(result.size());
}

}  // namespace virtual_token
