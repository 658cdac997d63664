// The diagnostics log: one text file per process and day under the temporary folder, its level in the registry value
// HKEY_LOCAL_MACHINE\Software\Quorvel\Talvik\logLevel (3: DEBUG and ERROR, 0 or 1: nothing, else ERROR).
//
// A message is given in parts: texts, numbers (decimal) and the wrappers below. Parts are put together only once the
// level is known to be on, so a suppressed line costs the question for the level and nothing else (see level.h).
// Logging never fails towards its caller and never changes the thread's last error.
//
// A literal is the provider's own text and stands as it is. Every other text may come from a caller or from the token:
// its control characters are written as \x0A, so that no name forges a line or commands the terminal that shows it.
#pragma once

#include <charconv>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "log/level.h"

namespace talvik {

inline constexpr int LOG_LEVEL_EXCEPTION = 1;
inline constexpr int LOG_LEVEL_ERROR = 2;
inline constexpr int LOG_LEVEL_DEBUG = 3;

// Part of a message: eight upper-case hex digits.
struct HexWord {
    std::uint32_t value;
};

// Part of a message: lower-case hex digits without leading zeros.
struct HexNumber {
    std::uint64_t value;
};

// Part of a message: upper-case hex text of `count` bytes; nothing for a count below 1.
struct HexBytes {
    const void* bytes;
    int count;
};

// A handle or pointer is logged as the unsigned decimal number of its address.
template <class T>
std::uint64_t addressNumber(const T* pointer) noexcept {
    return reinterpret_cast<std::uintptr_t>(pointer);
}

namespace log_detail {

// The character fields of token records have the type of a literal too, but are longer than any.
inline constexpr std::size_t shortestField = 128;

template <std::size_t Size>
requires(Size < shortestField) void append(std::string& text, const char (&literal)[Size]) {
    text.append(literal, Size - 1);
}
void append(std::string& text, std::string_view value);
void append(std::string& text, HexWord part);
void append(std::string& text, HexNumber part);
void append(std::string& text, HexBytes part);

template <std::integral Number>
void append(std::string& text, Number number) {
    char digits[24];
    text.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

// Reports on the standard output that a line could not be put together.
void reportLostLine() noexcept;

}  // namespace log_detail

// Appends one line to today's file, whatever the configured level, the message as it is. `level` chooses the tag: the
// LOG_LEVEL_* codes, any other value gives INFO.
void writeLog(int level, const std::string& message) noexcept;

template <class... Parts>
void writeLogParts(int level, const Parts&... parts) noexcept {
    try {
        std::string message;
        (log_detail::append(message, parts), ...);
        writeLog(level, message);
    } catch (...) {
        log_detail::reportLostLine();
    }
}

// Writes at DEBUG when the registry value is 3.
template <class... Parts>
void logDebug(const Parts&... parts) noexcept {
    if (log_detail::debugIsOn()) {
        writeLogParts(LOG_LEVEL_DEBUG, parts...);
    }
}

// Writes at ERROR unless the registry value is 0 or 1.
template <class... Parts>
void logError(const Parts&... parts) noexcept {
    if (log_detail::errorIsOn()) {
        writeLogParts(LOG_LEVEL_ERROR, parts...);
    }
}

}  // namespace talvik
