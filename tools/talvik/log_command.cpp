#include "log_command.h"

#include <windows.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "exit_code.h"
#include "log_files.h"
#include "output.h"
#include "printable.h"
#include "system_text.h"

namespace talvik_tool {
namespace {

using virtual_token::utf8;

namespace fs = std::filesystem;

constexpr DWORD followMilliseconds = 200;
constexpr std::pair<const char*, DWORD> levels[] = {{"debug", debugLevel}, {"error", 2}, {"off", 0}};

struct LogOptions {
    std::string program;
    std::string shown = "debug";
    std::string day;
    bool follow = false;
    bool list = false;
    bool json = false;
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

std::string withoutExtension(std::string program) {
    std::ranges::transform(program, program.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return program.ends_with(".exe") ? program.substr(0, program.size() - 4) : program;
}

// This program's own log holds what the doctor provokes: it is shown only when it is asked for.
constexpr char ownProgram[] = "talvik";

bool isWanted(const LogFile& file, const LogOptions& options) {
    const std::string program = withoutExtension(file.program);
    const bool named = options.program.empty() ? program != ownProgram : program == withoutExtension(options.program);
    return named && (options.day.empty() || file.day == options.day);
}

std::optional<LogFile> newest(const LogOptions& options) {
    for (LogFile& file : logFiles()) {
        if (isWanted(file, options)) {
            return std::move(file);
        }
    }
    return std::nullopt;
}

int listLogs(bool json) {
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    for (const LogFile& file : logFiles()) {
        all.push_back({{"program", file.program}, {"day", file.day}, {"file", utf8(file.path.wstring())}});
    }
    if (json) {
        printJson(all);
        return Done;
    }
    for (const auto& file : all) {
        print(file.at("day").get<std::string>() + "  " + file.at("program").get<std::string>());
    }
    return Done;
}

int tellMissing(const LogOptions& options) {
    std::string wanted = options.program.empty() ? "" : " of " + options.program;
    wanted += options.day.empty() ? "" : " of " + options.day;
    std::cerr << "talvik: no log" << printable(wanted) << " below " << printable(utf8(logRoot().wstring()))
              << "; the level is " << logLevelName(readLogLevel()) << "\n";
    std::string last;
    for (const LogFile& file : logFiles()) {
        std::cerr << (last.empty() ? "There are:\n" : "");
        last = file.program;
        std::cerr << "  " << file.day << "  " << printable(file.program) << "\n";
    }
    return NotFound;
}

int printLog(const LogOptions& options) {
    std::optional<LogFile> file = newest(options);
    if (!file && !options.follow) {
        return tellMissing(options);
    }
    LogPrinter printer(options.shown == "error");
    std::filesystem::path named;
    for (;;) {
        if (file && std::exchange(named, file->path) != file->path) {
            std::cerr << printable(utf8(file->path.wstring())) << "\n";
        }
        if (file) {
            printer.print(file->path);
        }
        if (!options.follow) {
            return Done;
        }
        Sleep(followMilliseconds);
        // A program that has been chosen stays the one that is followed, into the next day too.
        LogOptions chosen = options;
        chosen.program = file ? file->program : options.program;
        file = newest(chosen);
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
    CLI::App* command = app.add_subcommand("log", "Prints what the provider has logged");
    const auto options = std::make_shared<LogOptions>();
    command->add_option("program", options->program, "Of this program (default: the one that logged last)");
    command->add_option("--day", options->day, "Of this day, YYYY-MM-DD (default: the last)");
    CLI::Option* listing = command->add_flag("--list", options->list, "List the programs and days that there are");
    command->add_flag("--json", options->json, "With --list: as JSON")->needs(listing);
    command->add_flag("--follow,-f", options->follow, "Go on printing what is added")->excludes(listing);
    command->add_option("--level", options->shown, "error: only errors")->check(CLI::IsMember({"debug", "error"}));
    CLI::App* level = command->add_subcommand("level", "Shows how much the provider logs, or sets it");
    level->add_option("value", options->level, "debug: everything, error: errors only, off: nothing")
        ->check(CLI::IsMember({"debug", "error", "off"}));
    command->callback([options, level, &exitCode] {
        exitCode = level->parsed() ? changeLevel(options->level)
                   : options->list ? listLogs(options->json)
                                   : printLog(*options);
    });
}

}  // namespace talvik_tool
