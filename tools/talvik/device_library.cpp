#include "device_library.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "device_library_exports.h"
#include "system_folder.h"

namespace talvik_tool {
namespace {

constexpr wchar_t libraryName[] = L"TalvikDSCLibrary.dll";

}  // namespace

DeviceLibrary::DeviceLibrary() : module_(loadSystemModule(libraryName)) {}

std::wstring DeviceLibrary::path() const {
    std::array<wchar_t, 1024> path = {};
    return std::wstring(path.data(), GetModuleFileNameW(module_, path.data(), static_cast<DWORD>(path.size())));
}

std::size_t DeviceLibrary::exported() const {
    return static_cast<std::size_t>(
        std::count_if(std::begin(deviceLibraryExports), std::end(deviceLibraryExports),
                      [this](const char* name) { return GetProcAddress(module_, name) != nullptr; }));
}

std::size_t DeviceLibrary::operations() {
    return std::size(deviceLibraryExports);
}

void* DeviceLibrary::address(const std::string& name) const {
    const std::string prefix = "_Z" + std::to_string(name.size()) + name;
    const auto* decorated =
        std::find_if(std::begin(deviceLibraryExports), std::end(deviceLibraryExports),
                     [&](const char* each) { return std::strncmp(each, prefix.c_str(), prefix.size()) == 0; });
    return decorated == std::end(deviceLibraryExports) ? nullptr
                                                       : reinterpret_cast<void*>(GetProcAddress(module_, *decorated));
}

}  // namespace talvik_tool
