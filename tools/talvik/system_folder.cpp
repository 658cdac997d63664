#include "system_folder.h"

#include <array>
#include <filesystem>

namespace talvik_tool {

void loadFromSystemFolderOnly() {
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
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
