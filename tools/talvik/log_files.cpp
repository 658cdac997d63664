#include "log_files.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <functional>

#include "system_text.h"

namespace talvik_tool {
namespace {

using virtual_token::utf8;

constexpr wchar_t settingsKey[] = L"Software\\Quorvel\\Talvik";
constexpr wchar_t levelValue[] = L"logLevel";

}  // namespace

std::filesystem::path logRoot() {
    wchar_t folder[MAX_PATH + 1] = {};
    GetTempPathW(MAX_PATH + 1, folder);
    return std::filesystem::path(folder) / L"Quorvel";
}

std::filesystem::path ownLogFolder() {
    std::array<wchar_t, 1024> program = {};
    GetModuleFileNameW(nullptr, program.data(), static_cast<DWORD>(program.size()));
    auto folder = logRoot() / std::filesystem::path(program.data()).filename();
    std::error_code ignored;
    std::filesystem::create_directories(folder, ignored);
    return folder;
}

std::vector<LogFile> logFiles() {
    std::vector<LogFile> files;
    std::error_code problem;
    for (const auto& folder : std::filesystem::directory_iterator(logRoot(), problem)) {
        for (const auto& file : std::filesystem::directory_iterator(folder.path(), problem)) {
            const std::filesystem::path& path = file.path();
            const auto written = std::filesystem::last_write_time(path, problem);
            if (!problem && lstrcmpiW(path.extension().c_str(), L".LOG") == 0) {
                files.push_back({utf8(folder.path().filename().wstring()), utf8(path.stem().wstring()), path, written});
            }
        }
    }
    std::ranges::sort(files, std::ranges::greater(), &LogFile::written);
    return files;
}

std::string logNameOfToday() {
    char name[32] = {};
    const std::time_t now = std::time(nullptr);
    std::strftime(name, sizeof name, "%Y-%m-%d.LOG", std::localtime(&now));
    return name;
}

// As the provider reads it: any type, the first 32 bits count.
std::optional<DWORD> readLogLevel() {
    DWORD value[8] = {};
    DWORD size = sizeof value;
    const LSTATUS status = RegGetValueW(HKEY_LOCAL_MACHINE, settingsKey, levelValue, RRF_RT_ANY, nullptr, value, &size);
    return status == ERROR_SUCCESS ? std::optional(value[0]) : std::nullopt;
}

LSTATUS writeLogLevel(DWORD level) {
    return RegSetKeyValueW(HKEY_LOCAL_MACHINE, settingsKey, levelValue, REG_DWORD, &level, sizeof level);
}

const char* logLevelName(std::optional<DWORD> level) {
    if (level == debugLevel) {
        return "debug";
    }
    return level && *level <= 1 ? "off" : "error";
}

}  // namespace talvik_tool
