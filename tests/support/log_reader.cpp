#include "support/log_reader.h"

#include <windows.h>

#include <psapi.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

constexpr char KEY[] = "Software\\Quorvel\\Talvik";

// "DD/MM::HH:MM:SS:mmm-> ->" with '0' for any digit.
constexpr std::string_view PREFIX = "00/00::00:00:00:000-> ->";
constexpr std::string_view TAGS[] = {"EXCEP ::=>", "ERROR ::=>", "DEBUG ::=>", "INFO  ::=>"};

bool beginsWithPrefix(std::string_view line) {
    if (line.size() < PREFIX.size())
        return false;
    for (std::size_t i = 0; i < PREFIX.size(); ++i)
        if (PREFIX[i] == '0' ? !std::isdigit(static_cast<unsigned char>(line[i])) : line[i] != PREFIX[i])
            return false;
    return true;
}

// "DEBUG text" for a line that begins an entry; nothing for one that continues the entry before it.
std::optional<std::string> entryOf(std::string_view line) {
    if (!beginsWithPrefix(line))
        return std::nullopt;
    line.remove_prefix(PREFIX.size());
    for (const std::string_view tag : TAGS)
        if (line.starts_with(tag))
            return std::string(line.substr(0, 5)) + (tag[4] == ' ' ? "" : " ") + std::string(line.substr(tag.size()));
    ADD_FAILURE() << "log line without a level: " << line;
    return std::nullopt;
}

bool isMonitors(const std::string& entry) {
    return entry.starts_with("DEBUG Device disconnected: ") || entry == "DEBUG Device monitor thread started." ||
           entry == "DEBUG Device monitor thread stopped.";
}

std::vector<fs::path> dayFiles() {
    std::vector<fs::path> files;
    std::error_code missing;
    for (const auto& file : fs::directory_iterator(logFolder(), missing))
        files.push_back(file.path());
    std::ranges::sort(files);
    return files;
}

std::string temporaryFolder() {
    char folder[MAX_PATH + 1] = {};
    GetTempPathA(sizeof folder, folder);
    return folder;
}

}  // namespace

void setLogLevel(std::optional<unsigned long> level) {
    if (!level) {
        RegDeleteKeyValueA(HKEY_LOCAL_MACHINE, KEY, "logLevel");
        return;
    }
    const LSTATUS status = RegSetKeyValueA(HKEY_LOCAL_MACHINE, KEY, "logLevel", REG_DWORD, &*level, sizeof *level);
    ASSERT_EQ(status, ERROR_SUCCESS) << "logLevel cannot be written";
}

std::string useOwnTemporaryFolder(bool logFolders) {
    static const std::string base = temporaryFolder();
    static int made = 0;
    const std::string folder =
        base + "talvik-test-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++made) + "/";
    fs::remove_all(folder);
    fs::create_directories(folder);
    SetEnvironmentVariableA("TMP", folder.c_str());
    SetEnvironmentVariableA("TEMP", folder.c_str());
    if (logFolders)
        fs::create_directories(logFolder());
    return folder;
}

std::string logFolder() {
    char program[MAX_PATH + 1] = {};
    K32GetModuleBaseNameA(GetCurrentProcess(), nullptr, program, sizeof program);
    return temporaryFolder() + "Quorvel/" + program + "/";
}

void LogReader::mark() {
    seen_.clear();
    for (const fs::path& file : dayFiles())
        seen_[file.filename().string()] = fs::file_size(file);
}

// Only what is new is read: the log of a test run grows long.
std::string LogReader::raw() const {
    std::string text;
    for (const fs::path& file : dayFiles()) {
        const auto seen = seen_.find(file.filename().string());
        const std::size_t begin = seen == seen_.end() ? 0 : seen->second;
        std::string piece(fs::file_size(file) - begin, '\0');
        std::ifstream stream(file, std::ios::binary);
        stream.seekg(static_cast<std::streamoff>(begin));
        stream.read(piece.data(), static_cast<std::streamsize>(piece.size()));
        text += piece;
    }
    return text;
}

std::vector<std::string> LogReader::allEntries() const {
    const std::string text = raw();
    EXPECT_TRUE(text.empty() || text.ends_with('\n')) << "the log does not end with a line end";
    std::vector<std::string> entries;
    for (std::size_t begin = 0, end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
        const std::string line = text.substr(begin, end - begin);
        if (auto entry = entryOf(line))
            entries.push_back(*entry);
        else if (!entries.empty())
            entries.back() += '\n' + line;
        else
            ADD_FAILURE() << "the log begins with a line in no known format: " << line;
    }
    return entries;
}

std::vector<std::string> LogReader::entries() const {
    std::vector<std::string> entries = allEntries();
    std::erase_if(entries, isMonitors);
    return entries;
}

std::vector<std::string> LogReader::take() {
    auto taken = entries();
    mark();
    return taken;
}

std::vector<std::string> ofLevel(const std::vector<std::string>& entries, const std::string& level) {
    std::vector<std::string> chosen;
    for (const std::string& entry : entries)
        if (entry.starts_with(level + ' '))
            chosen.push_back(entry.substr(level.size() + 1));
    return chosen;
}
