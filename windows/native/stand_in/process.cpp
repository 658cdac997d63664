// Process, thread and time: the few calls that the provider and its tests make.
#include <windows.h>

#include <psapi.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <time.h>
#include <unistd.h>

namespace {

thread_local DWORD lastError = 0;
thread_local LPVOID threadSlot = nullptr;  // the only one

// The program, and every other module: only their addresses matter.
char program;
char otherModule;

// The environment as SetEnvironmentVariableA sees it. The C library's own may not be changed while another thread reads
// it.
struct Environment {
    std::mutex lock;
    std::map<std::string, std::string> values;
};

Environment& environment() {
    static Environment instance;
    return instance;
}

std::string environmentVariable(const char* name) {
    const std::lock_guard guard(environment().lock);
    const auto found = environment().values.find(name);
    return found == environment().values.end() ? std::string() : found->second;
}

}  // namespace

DWORD WINAPI GetLastError() {
    return lastError;
}

void WINAPI SetLastError(DWORD error) {
    lastError = error;
}

DWORD WINAPI TlsAlloc() {
    return 0;
}

BOOL WINAPI TlsFree(DWORD) {
    return TRUE;
}

LPVOID WINAPI TlsGetValue(DWORD) {
    lastError = ERROR_SUCCESS;
    return threadSlot;
}

BOOL WINAPI TlsSetValue(DWORD, LPVOID value) {
    threadSlot = value;
    return TRUE;
}

HMODULE WINAPI GetModuleHandleA(LPCSTR name) {
    return reinterpret_cast<HMODULE>(name == nullptr ? &program : &otherModule);
}

BOOL WINAPI GetModuleHandleExW(DWORD, LPCWSTR, HMODULE* module) {
    *module = GetModuleHandleA(nullptr);
    return TRUE;
}

// No function is ever found: the provider must do without.
FARPROC WINAPI GetProcAddress(HMODULE, LPCSTR) {
    lastError = ERROR_PROC_NOT_FOUND;
    return nullptr;
}

HANDLE WINAPI GetCurrentProcess() {
    return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1));
}

DWORD WINAPI GetCurrentProcessId() {
    return static_cast<DWORD>(getpid());
}

DWORD WINAPI K32GetModuleBaseNameA(HANDLE, HMODULE, LPSTR buffer, DWORD size) {
    static const std::string name = std::filesystem::read_symlink("/proc/self/exe").filename().string() + ".exe";
    const auto length = std::min<std::size_t>(name.size(), size - 1);
    std::memcpy(buffer, name.data(), length);
    buffer[length] = '\0';
    return static_cast<DWORD>(length);
}

VOID WINAPI Sleep(DWORD milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

void WINAPI GetLocalTime(SYSTEMTIME* local) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    [[maybe_unused]] static const bool knowsTimeZone = (tzset(), true);
    tm fields;
    localtime_r(&now.tv_sec, &fields);
    *local = {static_cast<WORD>(fields.tm_year + 1900), static_cast<WORD>(fields.tm_mon + 1),
              static_cast<WORD>(fields.tm_wday),        static_cast<WORD>(fields.tm_mday),
              static_cast<WORD>(fields.tm_hour),        static_cast<WORD>(fields.tm_min),
              static_cast<WORD>(fields.tm_sec),         static_cast<WORD>(now.tv_nsec / 1000000)};
}

BOOL WINAPI SetEnvironmentVariableA(LPCSTR name, LPCSTR value) {
    const std::lock_guard guard(environment().lock);
    environment().values[name] = value == nullptr ? "" : value;
    return TRUE;
}

DWORD WINAPI GetTempPathA(DWORD size, LPSTR buffer) {
    std::string path = environmentVariable("TMP");
    if (path.empty()) {
        path = std::filesystem::temp_directory_path().string();
    }
    if (path.back() != '/') {
        path += '/';
    }
    if (path.size() >= size) {
        return static_cast<DWORD>(path.size() + 1);
    }
    std::memcpy(buffer, path.c_str(), path.size() + 1);
    return static_cast<DWORD>(path.size());
}

// There are no drives: where a test moves to is not where anything is written.
DWORD WINAPI GetCurrentDirectoryA(UINT size, LPSTR buffer) {
    if (size < 2) {
        return 2;
    }
    std::memcpy(buffer, ".", 2);
    return 1;
}

BOOL WINAPI SetCurrentDirectoryA(LPCSTR) {
    return TRUE;
}
