#include "system_folder.h"

#include <array>
#include <cstring>
#include <filesystem>

namespace talvik_tool {

namespace {

// The address of a delayed function is written when it is first called. Newer linkers (binutils 2.44) put these
// addresses into a section that nobody may write.
void letDelayedFunctionsBeFound() {
    const auto image = reinterpret_cast<ULONG_PTR>(GetModuleHandleW(nullptr));
    const auto* const headers =
        reinterpret_cast<const IMAGE_NT_HEADERS*>(image + reinterpret_cast<const IMAGE_DOS_HEADER*>(image)->e_lfanew);
    const IMAGE_SECTION_HEADER* const sections = IMAGE_FIRST_SECTION(headers);
    for (WORD i = 0; i < headers->FileHeader.NumberOfSections; ++i) {
        if (std::memcmp(sections[i].Name, ".idata", sizeof ".idata") == 0) {
            DWORD before = 0;
            VirtualProtect(reinterpret_cast<void*>(image + sections[i].VirtualAddress), sections[i].Misc.VirtualSize,
                           PAGE_READWRITE, &before);
        }
    }
}

}  // namespace

void loadFromSystemFolderOnly() {
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    letDelayedFunctionsBeFound();
}

std::wstring systemFile(const std::wstring& name) {
    std::array<wchar_t, MAX_PATH + 1> folder = {};
    GetSystemDirectoryW(folder.data(), static_cast<UINT>(folder.size()));
    const std::filesystem::path path = std::filesystem::path(folder.data()) / name;  // a name may be a full path
    std::error_code problem;
    return !name.empty() && std::filesystem::is_regular_file(path, problem) ? path.wstring() : std::wstring();
}

HMODULE loadSystemModule(const wchar_t* name) {
    return LoadLibraryExW(name, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
}

}  // namespace talvik_tool
