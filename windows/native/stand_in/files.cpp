// The log's files on this machine's file system. Nothing is written outside the temporary folder, whatever a path that
// begins at the root of a drive would be here.
#include <windows.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

DWORD systemError() {
    switch (errno) {
        case EEXIST:
            return ERROR_ALREADY_EXISTS;
        case ENOENT:
            return ERROR_PATH_NOT_FOUND;
        default:
            return ERROR_ACCESS_DENIED;
    }
}

bool isTemporary(const std::string& path) {
    static const std::string base = std::filesystem::temp_directory_path().string();
    return path.starts_with(base);
}

// File descriptors begin at 0, which is no handle.
HANDLE handleOf(int descriptor) {
    return reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(descriptor) + 1);
}
int descriptorOf(HANDLE handle) {
    return static_cast<int>(reinterpret_cast<ULONG_PTR>(handle) - 1);
}

}  // namespace

DWORD WINAPI GetFileAttributesA(LPCSTR path) {
    struct stat status;
    if (stat(path, &status) != 0) {
        SetLastError(systemError());
        return INVALID_FILE_ATTRIBUTES;
    }
    return S_ISDIR(status.st_mode) ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
}

BOOL WINAPI CreateDirectoryA(LPCSTR path, SECURITY_ATTRIBUTES*) {
    struct stat status;
    if (stat(path, &status) == 0) {
        SetLastError(ERROR_ALREADY_EXISTS);
        return FALSE;
    }
    if (!isTemporary(path) || mkdir(path, 0700) != 0) {
        SetLastError(systemError());
        return FALSE;
    }
    return TRUE;
}

// As the log opens its files: to append, made when it is not there.
HANDLE WINAPI CreateFileA(LPCSTR path, DWORD, DWORD, SECURITY_ATTRIBUTES*, DWORD, DWORD, HANDLE) {
    const int descriptor =
        isTemporary(path) ? open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600) : (errno = EACCES, -1);
    if (descriptor < 0) {
        SetLastError(systemError());
        return INVALID_HANDLE_VALUE;
    }
    SetLastError(ERROR_ALREADY_EXISTS);
    return handleOf(descriptor);
}

BOOL WINAPI WriteFile(HANDLE file, LPCVOID bytes, DWORD size, LPDWORD written, LPOVERLAPPED) {
    const ssize_t count = write(descriptorOf(file), bytes, size);
    *written = count < 0 ? 0 : static_cast<DWORD>(count);
    if (count < 0) {
        SetLastError(systemError());
    }
    return count >= 0;
}

BOOL WINAPI CloseHandle(HANDLE file) {
    return close(descriptorOf(file)) == 0;
}
