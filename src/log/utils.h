// The log's file-system helpers, the hexadecimal encoder and a sleep. Helpers are called on short-lived instances.
#pragma once

#include <string>

namespace talvik {

inline constexpr char HEX_DIGITS[] = "0123456789ABCDEF";

class Utils {
  public:
    virtual ~Utils() = default;

    // Fills `buffer` (`size` characters) with the user's temporary folder, which ends with a backslash. Returns 0, or
    // -1 with an empty buffer when that folder does not exist.
    int getLogBaseFolderPath(char* buffer, int size) const;

    bool isFolderExists(const char* path) const;

    // Non-zero when the folder was created, 0 when it already existed or could not be made.
    int createFolder(const char* path) const;

    // Walks `path` (ending in '/') from its first level down and creates at most one level: -1 when it did, else the
    // result of creating the whole path.
    int createLogFolder(const char* path) const;

    // Base name of the current process's executable with its extension; "" when the system does not tell.
    std::string getProcessName() const;

    // Upper-case hex text, two characters a byte, high nibble first; "" for a count below 1.
    std::string bytesToHexString(const unsigned char* bytes, int count) const;

    void sleepMilliseconds(unsigned int milliseconds) const;
};

}  // namespace talvik
