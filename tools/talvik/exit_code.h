// What talvik.exe tells the script that started it.
#pragma once

namespace talvik_tool {

enum ExitCode : int {
    Done = 0,
    Refused = 1,   // the token refused (wrong or locked PIN, detached, wrong data), or a signature is not valid
    Usage = 2,     // the command line is wrong
    NotFound = 3,  // no such token, key or certificate
    Exists = 4,    // what is to be made is there already
    Failed = 5,    // a file could not be read or written, or something else went wrong
};

}  // namespace talvik_tool
