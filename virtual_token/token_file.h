// Files that survive a process killed at any moment, and the lock that several processes share.
#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "bytes.h"

namespace virtual_token {

struct HandleClose {
    using pointer = HANDLE;
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using Handle = std::unique_ptr<void, HandleClose>;

// Tells one version of a file from the next: whoever writes a file gives it a later time than the version before.
struct FileStamp {
    std::uint64_t time = 0;  // 100-nanosecond units
    std::uint64_t size = 0;  // bytes
    bool operator==(const FileStamp&) const = default;
};

std::optional<FileStamp> stampOf(const std::wstring& path);  // nothing when there is no such file or folder
std::uint64_t currentTime();                                 // what a file that is written now is dated with

// What no file of a token exceeds: room for some ten thousand key pairs with their certificates.
inline constexpr std::uint64_t largestFile = 64u << 20;  // bytes

// The whole file; `stamp` belongs to just this content. Nothing when there is no such file.
std::optional<SecretBytes> readFile(const std::wstring& path, FileStamp& stamp);

// Writes a temporary file beside it, whose name ends in `temporary`, flushes it and moves it into place: the file is
// the old or the new one, never less. `ownerOnly` keeps other users out: a file in the way, with access rights of its
// own, is not used. Gives the new file's stamp; throws TokenError(StorageFailure).
FileStamp replaceFile(const std::wstring& path, ByteView content, bool ownerOnly, const wchar_t* temporary = L".new");

void deleteFile(const std::wstring& path);

// Held exclusively across processes. The system releases it when its holder dies.
class FileLock {
  public:
    explicit FileLock(const std::wstring& path);

  private:
    Handle file_;
};

}  // namespace virtual_token
