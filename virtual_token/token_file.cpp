#include "token_file.h"

#include <algorithm>
#include <sddl.h>

#include "status.h"
#include "system_text.h"

namespace virtual_token {
namespace {

constexpr int openAttempts = 100;  // of 10 ms: how long somebody's virus scanner or a reader may hold a file

[[noreturn]] void failStorage(const char* what, std::wstring_view path) {
    const DWORD error = GetLastError();
    throw TokenError(Status::StorageFailure, std::string(what) + " " + utf8(path) + ": " + systemErrorText(error));
}

std::uint64_t combined(DWORD high, DWORD low) {
    return static_cast<std::uint64_t>(high) << 32 | low;
}

std::uint64_t timeOf(const FILETIME& time) {
    return combined(time.dwHighDateTime, time.dwLowDateTime);
}

// A file that is being replaced cannot be opened or moved for a moment.
bool isPassing(DWORD error) {
    return error == ERROR_SHARING_VIOLATION || error == ERROR_ACCESS_DENIED;
}

template <class Operation>
bool retry(Operation operation) {
    for (int i = 1; !operation(); ++i) {
        if (i == openAttempts || !isPassing(GetLastError())) {
            return false;
        }
        Sleep(10);
    }
    return true;
}

Handle openFile(const std::wstring& path, DWORD access, DWORD share, DWORD disposition,
                SECURITY_ATTRIBUTES* security = nullptr) {
    Handle file;
    retry([&] {
        const HANDLE handle =
            CreateFileW(path.c_str(), access, share, security, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
        file.reset(handle == INVALID_HANDLE_VALUE ? nullptr : handle);
        return file != nullptr;
    });
    return file;
}

struct LocalRelease {
    void operator()(void* memory) const { LocalFree(memory); }
};

// The security identifier of the user that this process runs as, as a text.
std::wstring currentUser() {
    HANDLE opened = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &opened)) {
        failStorage("cannot tell the user of", L"this process");
    }
    const Handle token(opened);
    alignas(TOKEN_USER) unsigned char user[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD length = 0;
    wchar_t* text = nullptr;
    if (!GetTokenInformation(token.get(), TokenUser, user, sizeof user, &length) ||
        !ConvertSidToStringSidW(reinterpret_cast<const TOKEN_USER*>(user)->User.Sid, &text)) {
        failStorage("cannot tell the user of", L"this process");
    }
    const std::unique_ptr<void, LocalRelease> owned(text);
    return text;
}

// A descriptor that lets in this user alone.
class OwnerOnly {
  public:
    OwnerOnly() {
        const std::wstring rules = L"D:P(A;;FA;;;" + currentUser() + L")";
        if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(rules.c_str(), SDDL_REVISION_1,
                                                                  &attributes_.lpSecurityDescriptor, nullptr)) {
            failStorage("cannot keep others out of", L"the session file");
        }
        descriptor_.reset(attributes_.lpSecurityDescriptor);
    }

    SECURITY_ATTRIBUTES* get() { return &attributes_; }

  private:
    SECURITY_ATTRIBUTES attributes_{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
    std::unique_ptr<void, LocalRelease> descriptor_;
};

void writeAll(HANDLE file, ByteView content, const std::wstring& path) {
    constexpr std::size_t largest = 1u << 24;
    while (!content.empty()) {
        const auto part = static_cast<DWORD>(std::min(largest, content.size()));
        DWORD written = 0;
        if (!WriteFile(file, content.data(), part, &written, nullptr) || written == 0) {
            failStorage("cannot write", path);
        }
        content = content.subspan(written);
    }
}

// Goes again unless it is moved into place: half a file would keep the room that a full disk lacks.
class TemporaryFile {
  public:
    explicit TemporaryFile(std::wstring path) : path_(std::move(path)) {}
    ~TemporaryFile() {
        if (!path_.empty()) {
            DeleteFileW(path_.c_str());
        }
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const std::wstring& path() const { return path_; }
    bool moveTo(const std::wstring& path) {
        const DWORD how = MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH;
        const bool moved = retry([&] { return MoveFileExW(path_.c_str(), path.c_str(), how) != FALSE; });
        if (moved) {
            path_.clear();
        }
        return moved;
    }

  private:
    std::wstring path_;
};

// The clock may stand still between two writes; the file's time must not.
std::uint64_t makeLater(HANDLE file, const std::wstring& predecessor) {
    const std::optional<FileStamp> before = stampOf(predecessor);
    const std::uint64_t time = std::max(currentTime(), before ? before->time + 1 : 0);
    const FILETIME fileTime{static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
    if (!SetFileTime(file, nullptr, nullptr, &fileTime)) {
        failStorage("cannot date", predecessor);
    }
    return time;
}

}  // namespace

std::uint64_t currentTime() {
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    return timeOf(now);
}

std::optional<FileStamp> stampOf(const std::wstring& path) {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) {
        return std::nullopt;
    }
    return FileStamp{timeOf(data.ftLastWriteTime), combined(data.nFileSizeHigh, data.nFileSizeLow)};
}

std::optional<SecretBytes> readFile(const std::wstring& path, FileStamp& stamp) {
    const Handle file =
        openFile(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_EXISTING);
    if (!file) {
        if (GetLastError() == ERROR_FILE_NOT_FOUND || GetLastError() == ERROR_PATH_NOT_FOUND) {
            return std::nullopt;
        }
        failStorage("cannot read", path);
    }
    BY_HANDLE_FILE_INFORMATION info{};
    if (!GetFileInformationByHandle(file.get(), &info)) {
        failStorage("cannot read", path);
    }
    stamp = {timeOf(info.ftLastWriteTime), combined(info.nFileSizeHigh, info.nFileSizeLow)};
    require(stamp.size <= largestFile, Status::StorageFailure);
    SecretBytes content(stamp.size);
    DWORD got = 0;
    if (!ReadFile(file.get(), content.data(), static_cast<DWORD>(content.size()), &got, nullptr)) {
        failStorage("cannot read", path);
    }
    content.resize(got);
    return content;
}

FileStamp replaceFile(const std::wstring& path, ByteView content, bool ownerOnly, const wchar_t* temporary) {
    std::optional<OwnerOnly> security;
    if (ownerOnly) {
        security.emplace();
    }
    TemporaryFile written(path + temporary);
    deleteFile(written.path());
    // A file that somebody has put there meanwhile would keep its own descriptor.
    Handle file = openFile(written.path(), GENERIC_WRITE, 0, CREATE_NEW, security ? security->get() : nullptr);
    if (!file) {
        failStorage("cannot write", path);
    }
    writeAll(file.get(), content, path);
    const FileStamp stamp{makeLater(file.get(), path), content.size()};
    if (!FlushFileBuffers(file.get())) {
        failStorage("cannot write", path);
    }
    file.reset();
    if (!written.moveTo(path)) {
        failStorage("cannot replace", path);
    }
    return stamp;
}

void deleteFile(const std::wstring& path) {
    const bool gone = retry([&] { return DeleteFileW(path.c_str()) || GetLastError() == ERROR_FILE_NOT_FOUND; });
    if (!gone) {
        failStorage("cannot delete", path);
    }
}

FileLock::FileLock(const std::wstring& path)
    : file_(openFile(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_ALWAYS)) {
    OVERLAPPED whole{};
    if (!file_ || !LockFileEx(file_.get(), LOCKFILE_EXCLUSIVE_LOCK, 0, MAXDWORD, MAXDWORD, &whole)) {
        failStorage("cannot lock", path);
    }
}

}  // namespace virtual_token
