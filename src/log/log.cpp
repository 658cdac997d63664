#include "log/log.h"

#include <windows.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "log/last_error.h"
#include "log/utils.h"

namespace talvik {
namespace {

constexpr int pathCapacity = 1024;

// Serialises the lines of this process. Timed, because a thread that is ended while it writes leaves it locked, and the
// process must still be able to log on its way out.
std::timed_mutex logMutex;
constexpr std::chrono::seconds longestWait{1};

// Closes the log file.
class LogFile {
  public:
    explicit LogFile(const char* path) noexcept
        : handle_(CreateFileA(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr)) {}
    ~LogFile() {
        if (isOpen()) {
            CloseHandle(handle_);
        }
    }
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    bool isOpen() const noexcept { return handle_ != INVALID_HANDLE_VALUE; }

    void append(const std::string& line) noexcept {
        DWORD written = 0;
        WriteFile(handle_, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    }

  private:
    HANDLE handle_;
};

using PathBuffer = std::array<char, pathCapacity>;

void appendBounded(PathBuffer& path, const char* text) noexcept {
    std::strncat(path.data(), text, path.size() - 1 - std::strlen(path.data()));
}

// Where this process logs: temporary folder, "/Quorvel/", process name, "/".
PathBuffer logFolder() {
    PathBuffer path = {};
    if (Utils().getLogBaseFolderPath(path.data(), static_cast<int>(path.size())) != 0) {
        std::fputs("\nUnable to getLogBaseFolderPath", stdout);
    }
    appendBounded(path, "/Quorvel/");
    appendBounded(path, Utils().getProcessName().c_str());
    appendBounded(path, "/");
    return path;
}

// Only under the log mutex: other C libraries than this one's share localtime's buffer between threads.
void appendFileNameOfToday(PathBuffer& path) {
    char name[32] = {};
    const std::time_t now = std::time(nullptr);
    std::strftime(name, sizeof name, "%Y-%m-%d.LOG", std::localtime(&now));
    appendBounded(path, name);
}

const char* levelTag(int level) noexcept {
    switch (level) {
        case LOG_LEVEL_EXCEPTION:
            return "EXCEP ::=>";
        case LOG_LEVEL_ERROR:
            return "ERROR ::=>";
        case LOG_LEVEL_DEBUG:
            return "DEBUG ::=>";
        default:
            return "INFO  ::=>";
    }
}

std::string formatLine(int level, const std::string& message) {
    SYSTEMTIME now;
    GetLocalTime(&now);
    char prefix[64];
    const int length = std::snprintf(prefix, sizeof prefix, "%02d/%02d::%02d:%02d:%02d:%03d-> ->", now.wDay, now.wMonth,
                                     now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
    const std::string_view tag = levelTag(level);
    std::string line;
    line.reserve(static_cast<std::size_t>(length) + tag.size() + message.size() + 1);
    line.append(prefix, static_cast<std::size_t>(length)).append(tag).append(message).append(1, '\n');
    return line;
}

void appendLine(int level, const std::string& message) {
    PathBuffer path = logFolder();
    // A walk that has just made a folder means a log that cannot be written yet: the next line, or the one after it,
    // finds its folder complete.
    const bool folderIsReady = Utils().createLogFolder(path.data()) != -1;
    const std::unique_lock writing(logMutex, longestWait);
    appendFileNameOfToday(path);
    if (folderIsReady) {
        LogFile file(path.data());
        if (file.isOpen()) {
            file.append(formatLine(level, message));
            return;
        }
    }
    std::fputs("\nUnable to write log", stdout);
}

}  // namespace

namespace log_detail {

void append(std::string& text, std::string_view value) {
    for (const char character : value) {
        const auto code = static_cast<unsigned char>(character);
        if (code < 0x20 || code == 0x7F) {
            text.append("\\x").append(Utils().bytesToHexString(&code, 1));
        } else {
            text += character;
        }
    }
}

void append(std::string& text, HexWord part) {
    char digits[9];
    std::snprintf(digits, sizeof digits, "%08X", static_cast<unsigned int>(part.value));
    text += digits;
}

void append(std::string& text, HexNumber part) {
    char digits[17];
    text.append(digits, std::to_chars(digits, digits + sizeof digits, part.value, 16).ptr);
}

void append(std::string& text, HexBytes part) {
    text += Utils().bytesToHexString(static_cast<const unsigned char*>(part.bytes), part.count);
}

void reportLostLine() noexcept {
    std::fputs("\nUnable to write log", stdout);
}

}  // namespace log_detail

void writeLog(int level, const std::string& message) noexcept {
    const LastErrorKeeper keeper;
    try {
        appendLine(level, message);
    } catch (...) {
        log_detail::reportLostLine();
    }
}

}  // namespace talvik
