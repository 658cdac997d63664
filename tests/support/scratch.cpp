#include "support/scratch.h"

#include <atomic>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace talvik_test {
namespace {

constexpr DWORD longestWait = 120000;  // milliseconds

}  // namespace

ScratchFolder::ScratchFolder() {
    static std::atomic<int> count{0};
    path_ = std::filesystem::temp_directory_path() /
            ("talvik-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++count));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;
    if (isOwn_) {
        std::filesystem::remove_all(path_, ignored);
    }
}

void ScratchFolder::write(const std::string& name, std::span<const unsigned char> content) const {
    std::ofstream file(path_ / name, std::ios::binary);
    file.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
    if (!file.flush())
        throw std::runtime_error("cannot write " + name);
}

Bytes ScratchFolder::read(const std::string& name) const {
    std::ifstream file(path_ / name, std::ios::binary);
    if (!file)
        throw std::runtime_error("no file " + name);
    return {std::istreambuf_iterator<char>(file), {}};
}

ChildProcess::ChildProcess(const std::wstring& commandLine) {
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    std::wstring line = commandLine;
    if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process_))
        throw std::runtime_error("cannot start a program, system error " + std::to_string(GetLastError()));
}

ChildProcess::~ChildProcess() {
    kill();
    CloseHandle(process_.hThread);
    CloseHandle(process_.hProcess);
}

DWORD ChildProcess::wait() {
    DWORD code = 0;
    if (WaitForSingleObject(process_.hProcess, longestWait) != WAIT_OBJECT_0 ||
        !GetExitCodeProcess(process_.hProcess, &code))
        throw std::runtime_error("a program did not end");
    return code;
}

void ChildProcess::kill() {
    if (WaitForSingleObject(process_.hProcess, 0) != WAIT_OBJECT_0) {
        TerminateProcess(process_.hProcess, 1);
        WaitForSingleObject(process_.hProcess, longestWait);
    }
}

std::wstring thisProgram() {
    std::wstring path(32768, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return L'"' + path + L'"';
}

}  // namespace talvik_test
