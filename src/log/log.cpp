#include "log/log.h"

#include <windows.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>
#include <shared_mutex>

#include "log/utils.h"

namespace talvik {
namespace {

constexpr int pathCapacity = 1024;

// Registry reads and file writes change the thread's last error; a log line must not.
class LastErrorKeeper {
  public:
    LastErrorKeeper() noexcept : error_(GetLastError()) {}
    ~LastErrorKeeper() { SetLastError(error_); }
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;

  private:
    DWORD error_;
};

// The registry value, asked for at every call. The key stays open between calls, so that asking is one query; a key
// that was deleted since, and perhaps made anew, is opened again.
class LevelSetting {
  public:
    ~LevelSetting() { close(); }

    std::optional<DWORD> read() noexcept {
        DWORD level = 0;
        LSTATUS status = ERROR_KEY_DELETED;
        try {
            std::shared_lock reading(lock_);
            if (key_ != nullptr) {
                status = query(level);
            }
        } catch (...) {
            return std::nullopt;
        }
        if (status == ERROR_KEY_DELETED) {
            status = reopenAndQuery(level);
        }
        return status == ERROR_SUCCESS ? std::optional(level) : std::nullopt;
    }

  private:
    LSTATUS query(DWORD& level) const noexcept {
        DWORD buffer[8] = {};
        DWORD size = sizeof buffer;
        const LSTATUS status = RegGetValueA(key_, nullptr, "logLevel", RRF_RT_ANY, nullptr, buffer, &size);
        level = buffer[0];
        return status;
    }

    LSTATUS reopenAndQuery(DWORD& level) noexcept {
        HKEY opened = nullptr;
        const LSTATUS status =
            RegOpenKeyExA(HKEY_LOCAL_MACHINE, "Software\\Quorvel\\Talvik", 0, KEY_QUERY_VALUE, &opened);
        if (status != ERROR_SUCCESS) {
            return status;
        }
        try {
            std::unique_lock replacing(lock_);
            close();
            key_ = opened;
            return query(level);
        } catch (...) {
            RegCloseKey(opened);
            return ERROR_NOT_ENOUGH_MEMORY;
        }
    }

    void close() noexcept {
        if (key_ != nullptr) {
            RegCloseKey(key_);
            key_ = nullptr;
        }
    }

    std::shared_mutex lock_;
    HKEY key_ = nullptr;
};

LevelSetting levelSetting;

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

bool debugIsOn() noexcept {
    const LastErrorKeeper keeper;
    return levelSetting.read() == std::optional<DWORD>(LOG_LEVEL_DEBUG);
}

bool errorIsOn() noexcept {
    const LastErrorKeeper keeper;
    const std::optional<DWORD> level = levelSetting.read();
    return !level || *level > 1;
}

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
