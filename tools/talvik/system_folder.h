// The system folder: the only one from which this program loads anything.
//
// The program says what other programs load from there. Whatever lies beside it or in the current folder is no part of
// that, and may have been put there by somebody else. Of the system's libraries, those that Windows does not hold ready
// for everybody are imported with delay: the loader would look for them beside the program, before its first line.
#pragma once

#include <windows.h>

#include <string>

namespace talvik_tool {

// Holds for every module loaded from now on, by whomever, and for what these need themselves.
void loadFromSystemFolderOnly();

// The full path of a file that is named as modules are; empty when it does not exist.
std::wstring systemFile(const std::wstring& name);

// Null when there is none, or when it cannot be loaded: GetLastError tells.
HMODULE loadSystemModule(const wchar_t* name);

}  // namespace talvik_tool
