// The system folder: the only one from which this program loads anything.
//
// The program says what other programs load from there. Whatever lies beside it or in the current folder is no part of
// that, and may have been put there by somebody else.
#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>

namespace talvik_tool {

// Holds for every module loaded from now on, by whomever, and for what these need themselves.
void loadFromSystemFolderOnly();

// The full path of a file that is named as modules are; empty when it does not exist.
std::wstring systemFile(const std::wstring& name);

// Null when there is none, or when it cannot be loaded: GetLastError tells.
HMODULE loadSystemModule(const wchar_t* name);

// A function of a library of the system. Those that Windows does not hold ready for everybody are not imported: the
// loader would look for them beside the program, before its first line.
template <class Function>
Function* systemFunction(const wchar_t* library, const char* name) {
    const HMODULE module = loadSystemModule(library);
    void* const address = module != nullptr ? reinterpret_cast<void*>(GetProcAddress(module, name)) : nullptr;
    if (address == nullptr) {
        throw std::runtime_error(std::string("Windows is damaged: there is no ") + name);
    }
    return reinterpret_cast<Function*>(address);
}

}  // namespace talvik_tool
