// The provider's diagnostic log as a test sees it, and the surroundings that the log depends on.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

// The registry value that chooses what is logged; nullopt removes it. It is restored by nobody: set what a test needs.
void setLogLevel(std::optional<unsigned long> level);

// Makes a new, empty temporary folder, which this process uses from here on (TMP and TEMP), and returns it with a
// backslash at its end. With `logFolders` the folders of the log exist already, so that no line is lost.
std::string useOwnTemporaryFolder(bool logFolders = true);

// Where this process logs: <temporary folder>Quorvel\<program>\.
std::string logFolder();

// Reads what has been logged since the last mark. A day's file that is begun at midnight follows the one before it.
class LogReader {
  public:
    LogReader() { mark(); }

    // Everything so far is past.
    void mark();

    // The entries since the mark, each "DEBUG text", "ERROR text" and so on; the entries of the monitor's own thread
    // come at any time and are left out. A line that is not in the log's format is a test failure.
    std::vector<std::string> entries() const;
    std::vector<std::string> allEntries() const;

    // entries(), and a new mark.
    std::vector<std::string> take();

    // The bytes since the mark.
    std::string raw() const;

  private:
    std::map<std::string, std::size_t> seen_;  // length of each day's file at the mark
};

// Has this thread's log entries of a level only.
std::vector<std::string> ofLevel(const std::vector<std::string>& entries, const std::string& level);
