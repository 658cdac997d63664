// Where the provider logs, and how much.
#pragma once

#include <windows.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace talvik_tool {

// The level that logs everything, what that means, and what is to be done about it.
inline constexpr DWORD debugLevel = 3;
inline constexpr char debugReveals[] =
    "Every call is logged, which slows it down, and with it AES keys and decrypted data, readable to whoever gets the "
    "log.";
inline constexpr char debugRemedy[] =
    "When the diagnosis is done: talvik log level error; then delete the logs of that time, copies and those of other "
    "users and services included: %TEMP%\\Quorvel\\<program>\\<date>.LOG";

// <temporary folder>\Quorvel, with one folder for each program that uses the provider.
std::filesystem::path logRoot();

// The folder of this program, which is made where it does not exist: without it the log loses its first lines.
std::filesystem::path ownLogFolder();

// One program's log of one day.
struct LogFile {
    std::string program;  // "winword.exe"
    std::string day;      // "2027-11-24"
    std::filesystem::path path;
    std::filesystem::file_time_type written;
};

// Every log that there is, the one written last first.
std::vector<LogFile> logFiles();

// "YYYY-MM-DD.LOG" of today, local time.
std::string logNameOfToday();

// The registry value; nothing when it is not set.
std::optional<DWORD> readLogLevel();

// ERROR_SUCCESS, or why not.
LSTATUS writeLogLevel(DWORD level);

// "debug", "error" or "off", as the provider takes the value.
const char* logLevelName(std::optional<DWORD> level);

}  // namespace talvik_tool
