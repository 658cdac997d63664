#include "system_text.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace virtual_token {
namespace {

struct LocalRelease {
    void operator()(wchar_t* memory) const { LocalFree(memory); }
};

}  // namespace

std::string utf8(std::wstring_view text) {
    const int size = static_cast<int>(text.size());
    const int length = WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
    std::string converted(static_cast<std::size_t>(length), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), size, converted.data(), length, nullptr, nullptr);
    return converted;
}

std::wstring wide(std::string_view text) {
    const int size = static_cast<int>(text.size());
    const int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0);
    std::wstring converted(static_cast<std::size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), size, converted.data(), length);
    return converted;
}

std::string upperCase(std::string text) {
    std::ranges::transform(text, text.begin(),
                           [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    return text;
}

std::string systemErrorText(unsigned long error) {
    char code[16];
    std::snprintf(code, sizeof code, "0x%08lX", error);
    wchar_t* words = nullptr;
    const DWORD length = FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error,
        MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), reinterpret_cast<wchar_t*>(&words), 0, nullptr);
    const std::unique_ptr<wchar_t, LocalRelease> owned(words);
    std::string message = utf8({words, length});
    message.erase(message.find_last_not_of(" \r\n") + 1);
    return message.empty() ? code : std::string(code) + " (" + message + ")";
}

}  // namespace virtual_token
