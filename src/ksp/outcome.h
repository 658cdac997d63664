// How a key storage entry point ends, and the boundary that no exception passes.
#pragma once

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include <climits>
#include <cstring>
#include <new>
#include <span>
#include <string_view>

#include "log/log.h"
#include "token/key_encoding.h"

namespace talvik::ksp {

// Logs one ERROR line and fails with `error`.
template <class... Parts>
SECURITY_STATUS fail(SECURITY_STATUS error, const Parts&... parts) noexcept {
    logError(parts...);
    return error;
}

// Runs the body of the entry point `name`. Nothing thrown leaves it.
template <class Body>
SECURITY_STATUS entryPoint(const char* name, Body body) noexcept {
    const ApplicationCall call;
    logDebug(name);
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return fail(NTE_NO_MEMORY, name, ": out of memory");
    } catch (...) {
        return fail(NTE_INTERNAL_ERROR, name, ": unexpected failure");
    }
}

// Where an answer goes. A null buffer is a size query.
struct Output {
    BYTE* buffer;
    DWORD room;
    DWORD* size;  // receives the needed size in every case

    bool isSizeQuery() const noexcept { return buffer == nullptr; }
};

inline SECURITY_STATUS answerSize(DWORD size, Output out) noexcept {
    *out.size = size;
    return ERROR_SUCCESS;
}

// The size rule: reports the value's size; a null buffer is a size query, a short one fails after the parts of its text
// were logged, if there are any. A value may stand in the buffer already.
template <class... Parts>
SECURITY_STATUS answer(ByteView value, Output out, const Parts&... tooSmall) noexcept {
    *out.size = static_cast<DWORD>(value.size());
    if (out.isSizeQuery()) {
        return ERROR_SUCCESS;
    }
    if (out.room < value.size()) {
        if constexpr (sizeof...(tooSmall) > 0) {
            logError(tooSmall..., value.size());
        }
        return NTE_BUFFER_TOO_SMALL;
    }
    if (!value.empty() && value.data() != out.buffer) {
        std::memcpy(out.buffer, value.data(), value.size());
    }
    return ERROR_SUCCESS;
}

// A fixed-size value by the size rule.
template <class Value>
SECURITY_STATUS answerValue(const Value& value, Output out) noexcept {
    return answer({reinterpret_cast<const unsigned char*>(&value), sizeof value}, out);
}

// A text with its terminating NUL, which must follow the view.
inline SECURITY_STATUS answerText(std::wstring_view text, Output out) noexcept {
    return answer({reinterpret_cast<const unsigned char*>(text.data()), (text.size() + 1) * sizeof(wchar_t)}, out);
}

// What a caller gave as a fixed-size value; nothing is read of an input that is too short.
template <class Value>
bool readValue(ByteView input, Value& value) noexcept {
    const auto bytes = std::as_writable_bytes(std::span(&value, 1));
    if (input.data() == nullptr || input.size() < bytes.size()) {
        return false;
    }
    std::memcpy(bytes.data(), input.data(), bytes.size());
    return true;
}

// The device library takes signed lengths.
inline bool isTooLong(ByteView input) noexcept {
    return input.size() > INT_MAX;
}
inline int lengthOf(ByteView input) noexcept {
    return static_cast<int>(input.size());
}

}  // namespace talvik::ksp
