#include "support/openssl.h"

#include <chrono>
#include <stdexcept>

namespace talvik_test {
namespace {

constexpr char outputFile[] = ".openssl-output";
constexpr char exitFile[] = ".openssl-exit";
constexpr auto longestRun = std::chrono::seconds(120);

// The build machine's, as Wine shows it; on Windows itself there is none unless it is named.
std::wstring shell() {
    wchar_t named[MAX_PATH];
    return GetEnvironmentVariableW(L"TALVIK_SHELL", named, MAX_PATH) != 0 ? named : L"Z:\\bin\\sh";
}

void startShell(const ScratchFolder& folder, const std::string& script) {
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    const std::wstring program = shell();
    std::wstring line = L'"' + program + L"\" -c \"" + std::wstring(script.begin(), script.end()) + L"\"";
    if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, FALSE, 0, nullptr, folder.path().c_str(),
                        &startup, &process))
        throw std::runtime_error("cannot start the shell, system error " + std::to_string(GetLastError()));
    CloseHandle(process.hProcess);
    CloseHandle(process.hThread);
}

// A native program of the build machine cannot be waited for as a process, and no pipe leads to it: its last act is to
// move the file with its exit code into place.
int waitForExitCode(const ScratchFolder& folder) {
    const auto deadline = std::chrono::steady_clock::now() + longestRun;
    while (!std::filesystem::exists(folder.path() / exitFile)) {
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("openssl did not end");
        Sleep(1);
    }
    const Bytes code = folder.read(exitFile);
    return std::stoi(std::string(code.begin(), code.end()));
}

}  // namespace

OpensslResult tryOpenssl(const ScratchFolder& folder, const std::string& arguments) {
    const std::string output(outputFile), code(exitFile);
    std::filesystem::remove(folder.path() / exitFile);
    startShell(folder, "openssl " + arguments + " >" + output + " 2>&1 </dev/null; echo $? >" + code + ".new; mv " +
                           code + ".new " + code);
    const int exitCode = waitForExitCode(folder);
    const Bytes said = folder.read(output);
    return {exitCode, std::string(said.begin(), said.end())};
}

std::string openssl(const ScratchFolder& folder, const std::string& arguments) {
    const OpensslResult result = tryOpenssl(folder, arguments);
    if (result.exitCode != 0)
        throw std::runtime_error("openssl " + arguments + ": " + result.output);
    return result.output;
}

}  // namespace talvik_test
