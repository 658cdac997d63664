// A folder of its own for a test, and child processes.
#pragma once

#include <windows.h>

#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace talvik_test {

using Bytes = std::vector<unsigned char>;

// Made fresh under the temporary folder and removed at the end, or somebody else's.
class ScratchFolder {
  public:
    ScratchFolder();
    explicit ScratchFolder(const std::filesystem::path& present) : path_(present), isOwn_(false) {}
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    void write(const std::string& name, std::span<const unsigned char> content) const;
    Bytes read(const std::string& name) const;  // throws when there is no such file

  private:
    std::filesystem::path path_;
    bool isOwn_ = true;
};

// A started program; killed when it goes before it has been waited for.
class ChildProcess {
  public:
    explicit ChildProcess(const std::wstring& commandLine);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    DWORD wait();  // the exit code; throws after two minutes
    void kill();

  private:
    PROCESS_INFORMATION process_{};
};

std::wstring thisProgram();  // its path, in quotes

}  // namespace talvik_test
