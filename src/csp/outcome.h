// How a CryptoAPI entry point ends, and the boundary that turns it into BOOL and last error.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstring>
#include <new>
#include <optional>

#include "log/log.h"
#include "token/key_encoding.h"

namespace talvik::csp {

struct Outcome {
    BOOL result;
    std::optional<DWORD> lastError;  // nothing: as it was before a success, as a callee left it after a failure
};

inline Outcome success() noexcept {
    return {TRUE, std::nullopt};
}

// TRUE with `error` left as the last error: some size answers are given so.
inline Outcome successLeaving(long error) noexcept {
    return {TRUE, static_cast<DWORD>(error)};
}

// FALSE with the last error that a callee has set.
inline Outcome failureAsSet() noexcept {
    return {FALSE, std::nullopt};
}

// Logs one ERROR line and fails with `error`, an NTE_* or ERROR_* code.
template <class... Parts>
Outcome fail(long error, const Parts&... parts) noexcept {
    logError(parts...);
    return {FALSE, static_cast<DWORD>(error)};
}

// The same where the error is the one that a callee has set.
template <class... Parts>
Outcome failAsSet(const Parts&... parts) noexcept {
    logError(parts...);
    return failureAsSet();
}

// Runs an entry point's body. Nothing thrown leaves it.
template <class Body>
BOOL entryPoint(const char* name, Body body) noexcept {
    const DWORD before = GetLastError();
    const Outcome outcome = [&]() noexcept -> Outcome {
        const ApplicationCall call;
        try {
            return body();
        } catch (const std::bad_alloc&) {
            return fail(NTE_NO_MEMORY, name, ": out of memory");
        } catch (...) {
            return fail(NTE_FAIL, name, ": unexpected failure");
        }
    }();
    if (outcome.lastError) {
        SetLastError(*outcome.lastError);
    } else if (outcome.result) {
        SetLastError(before);
    }
    return outcome.result;
}

// Where an answer goes. A null `size` is refused where a size is to be reported, after everything else that there is to
// refuse.
struct Output {
    BYTE* buffer;
    DWORD* size;

    bool hasRoomFor(std::size_t length) const noexcept {
        return buffer != nullptr && size != nullptr && *size >= length;
    }
};

// The size rule: reports the value's size; a null buffer is a size query, a short one fails with ERROR_MORE_DATA after
// the parts of its text were logged.
template <class... Parts>
Outcome answer(ByteView value, Output out, const Parts&... tooSmall) noexcept {
    const DWORD room = *out.size;
    *out.size = static_cast<DWORD>(value.size());
    if (out.buffer == nullptr) {
        return success();
    }
    if (room < value.size()) {
        return fail(ERROR_MORE_DATA, tooSmall...);
    }
    if (!value.empty()) {
        std::memcpy(out.buffer, value.data(), value.size());
    }
    return success();
}

// The bytes of a fixed-size value, for the size rule.
template <class Value>
ByteView bytesOf(const Value& value) noexcept {
    return {reinterpret_cast<const unsigned char*>(&value), sizeof value};
}

}  // namespace talvik::csp
