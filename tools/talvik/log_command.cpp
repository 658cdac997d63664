#include "log_command.h"

#include <windows.h>

#include <array>
#include <fstream>
#include <iostream>
#include <memory>
#include <utility>

#include "exit_code.h"
#include "log_files.h"
#include "printable.h"

namespace talvik_tool {
namespace {

namespace fs = std::filesystem;

constexpr DWORD followMilliseconds = 200;
constexpr std::pair<const char*, DWORD> levels[] = {{"debug", debugLevel}, {"error", 2}, {"off", 0}};

struct LogOptions {
    std::string program;
    std::string shown = "debug";
    bool follow = false;
    std::string level;
};

// "DD/MM::HH:MM:SS:mmm-> ->TAG" begins an entry; a line without it continues the entry before.
bool beginsEntry(const std::string& line) {
    static constexpr std::string_view separator = "-> ->";
    return line.size() > 24 && line[2] == '/' && line.compare(19, separator.size(), separator) == 0;
}

// Passes on the entries of the wanted level, whole ones only.
class LogPrinter {
  public:
    explicit LogPrinter(bool errorsOnly) : errorsOnly_(errorsOnly) {}

    // Prints what has been added to the file since the last call.
    void print(const fs::path& path) {
        if (path != path_) {
            path_ = path;
            position_ = 0;
        }
        std::ifstream file(path, std::ios::binary);
        file.seekg(position_);
        for (std::string line; std::getline(file, line) && !file.eof();) {
            position_ += static_cast<std::streamoff>(line.size() + 1);
            show(line);
        }
        std::cout.flush();
    }

  private:
    void show(const std::string& line) {
        if (beginsEntry(line)) {
            const std::string tag = line.substr(24, 5);
            showing_ = !errorsOnly_ || tag == "ERROR" || tag == "EXCEP";
        }
        if (showing_) {
            std::cout << printable(line) << '\n';
        }
    }

    bool errorsOnly_;
    bool showing_ = true;
    fs::path path_;
    std::streamoff position_ = 0;
};

// The folder of the named program, ".exe" or not; without a name that with the newest log of today. Empty: none.
fs::path programFolder(const std::string& program) {
    std::error_code problem;
    fs::path newest;
    fs::file_time_type when;
    const fs::path wanted = fs::u8path(program);
    for (const auto& folder : fs::directory_iterator(logRoot(), problem)) {
        const fs::path name = folder.path().filename();
        if (!program.empty() && lstrcmpiW(name.c_str(), wanted.c_str()) != 0 &&
            lstrcmpiW(name.stem().c_str(), wanted.c_str()) != 0) {
            continue;
        }
        const auto written = fs::last_write_time(folder.path() / logNameOfToday(), problem);
        if (!problem && (newest.empty() || written > when)) {
            newest = folder.path();
            when = written;
        }
    }
    return newest;
}

int printLog(const LogOptions& options) {
    fs::path folder = programFolder(options.program);
    if (folder.empty()) {
        std::cerr << "talvik: no log of today" << (options.program.empty() ? "" : " of " + printable(options.program))
                  << " below " << printable(utf8(logRoot().wstring())) << "; the level is "
                  << logLevelName(readLogLevel()) << "\n";
        if (!options.follow) {
            return NotFound;
        }
    }
    LogPrinter printer(options.shown == "error");
    bool named = false;
    for (;;) {
        if (!folder.empty()) {
            if (!std::exchange(named, true)) {
                std::cerr << printable(utf8((folder / logNameOfToday()).wstring())) << "\n";
            }
            printer.print(folder / logNameOfToday());
        } else {
            folder = programFolder(options.program);
        }
        if (!options.follow) {
            return Done;
        }
        Sleep(followMilliseconds);
    }
}

int changeLevel(const std::string& level) {
    if (level.empty()) {
        std::cout << logLevelName(readLogLevel()) << "\n";
        return Done;
    }
    for (const auto& [name, value] : levels) {
        if (level == name) {
            const LSTATUS status = writeLogLevel(value);
            if (status == ERROR_SUCCESS) {
                std::cout << (value == debugLevel ? std::string(debugReveals) + "\n" + debugRemedy + "\n" : "");
                return Done;
            }
            std::cerr << "talvik: the level cannot be set: "
                      << (status == ERROR_ACCESS_DENIED ? "administrator rights are needed"
                                                        : "error " + std::to_string(status))
                      << "; it is still " << logLevelName(readLogLevel()) << "\n";
            return Failed;
        }
    }
    return Usage;
}

}  // namespace

void addLogCommand(CLI::App& app, int& exitCode) {
    CLI::App* command = app.add_subcommand("log", "Prints what the provider has logged today");
    const auto options = std::make_shared<LogOptions>();
    command->add_option("program", options->program, "Of this program (default: the one that logged last)");
    command->add_flag("--follow,-f", options->follow, "Go on printing what is added");
    command->add_option("--level", options->shown, "error: only errors")->check(CLI::IsMember({"debug", "error"}));
    CLI::App* level = command->add_subcommand("level", "Shows how much the provider logs, or sets it");
    level->add_option("value", options->level, "debug: everything, error: errors only, off: nothing")
        ->check(CLI::IsMember({"debug", "error", "off"}));
    command->callback(
        [options, level, &exitCode] { exitCode = level->parsed() ? changeLevel(options->level) : printLog(*options); });
}

}  // namespace talvik_tool
