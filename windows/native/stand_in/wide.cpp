// With -fshort-wchar a wchar_t has 16 bits, as Windows has it and as the provider's sizes count it; the C library of
// this machine knows only 32. These are the functions that std::wstring uses, for 16 bits; the program's own
// definitions take the place of the library's.
#include <algorithm>
#include <cwchar>

static_assert(sizeof(wchar_t) == 2);

// Without builtins, lest the compiler turns a loop below into a call of the function that it is in.
#pragma clang attribute push(__attribute__((no_builtin)), apply_to = function)

extern "C" {

size_t wcslen(const wchar_t* text) {
    const wchar_t* end = text;
    while (*end != 0) {
        ++end;
    }
    return static_cast<size_t>(end - text);
}

int wmemcmp(const wchar_t* left, const wchar_t* right, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (left[i] != right[i]) {
            return left[i] < right[i] ? -1 : 1;
        }
    }
    return 0;
}

wchar_t* wmemcpy(wchar_t* target, const wchar_t* source, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        target[i] = source[i];
    }
    return target;
}

wchar_t* wmemmove(wchar_t* target, const wchar_t* source, size_t count) {
    if (target < source) {
        return wmemcpy(target, source, count);
    }
    for (size_t i = count; i > 0; --i) {
        target[i - 1] = source[i - 1];
    }
    return target;
}

wchar_t* wmemset(wchar_t* target, wchar_t unit, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        target[i] = unit;
    }
    return target;
}

// Also the overload for a text that is not const, which the C library declares as one function.
wchar_t* wmemchr(const wchar_t* text, wchar_t unit, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (text[i] == unit) {
            return const_cast<wchar_t*>(text + i);
        }
    }
    return nullptr;
}
}

#pragma clang attribute pop
