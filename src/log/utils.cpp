#include "log/utils.h"

#include <windows.h>

#include <psapi.h>

#include <cstdio>
#include <cstring>
#include <exception>

namespace talvik {
namespace {

constexpr int pathCapacity = 1024;

// Runs a helper's body; an exception costs a line on the standard output and the failure value, never more.
template <class Result, class Body>
Result contained(const char* where, Result failure, Body body) {
    try {
        return body();
    } catch (const std::exception& problem) {
        std::fprintf(stdout, "Exception in %s: %s\n", where, problem.what());
        return failure;
    }
}

}  // namespace

int Utils::getLogBaseFolderPath(char* buffer, int size) const {
    return contained("getLogBaseFolderPath()", -1, [&] {
        const DWORD length = GetTempPathA(static_cast<DWORD>(size), buffer);
        if (length == 0 || length >= static_cast<DWORD>(size) || !isFolderExists(buffer)) {
            buffer[0] = '\0';
            return -1;
        }
        return 0;
    });
}

bool Utils::isFolderExists(const char* path) const {
    return contained("isFolderExists()", false, [&] {
        const DWORD attributes = GetFileAttributesA(path);
        return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    });
}

int Utils::createFolder(const char* path) const {
    return contained("createFolder()", 0, [&] { return CreateDirectoryA(path, nullptr); });
}

int Utils::createLogFolder(const char* path) const {
    return contained("Create Log Folder", -1, [&] {
        char work[pathCapacity] = {};
        std::strncpy(work, path, sizeof work - 1);
        if (work[0] == '\0') {
            return createFolder(work);
        }
        for (char* at = work + 1; *at != '\0'; ++at) {
            if (*at != '/') {
                continue;
            }
            *at = '\0';
            if (createFolder(work) != 0) {
                return -1;
            }
            *at = '/';
        }
        return createFolder(work);
    });
}

std::string Utils::getProcessName() const {
    return contained("getProcessName()", std::string(), [] {
        char name[MAX_PATH] = {};
        const DWORD length = K32GetModuleBaseNameA(GetCurrentProcess(), nullptr, name, sizeof name);
        return std::string(name, length);
    });
}

std::string Utils::bytesToHexString(const unsigned char* bytes, int count) const {
    std::string text;
    if (count < 1) {
        return text;
    }
    text.reserve(static_cast<std::size_t>(count) * 2);
    for (int i = 0; i < count; ++i) {
        text += HEX_DIGITS[bytes[i] >> 4];
        text += HEX_DIGITS[bytes[i] & 0x0F];
    }
    return text;
}

void Utils::sleepMilliseconds(unsigned int milliseconds) const {
    Sleep(milliseconds);
}

}  // namespace talvik
