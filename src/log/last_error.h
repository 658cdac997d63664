// Registry reads, file writes and thread-local reads change the thread's last error; a log line must not.
#pragma once

#include <windows.h>

namespace talvik {

class LastErrorKeeper {
  public:
    LastErrorKeeper() noexcept : error_(GetLastError()) {}
    ~LastErrorKeeper() { SetLastError(error_); }
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;

  private:
    DWORD error_;
};

}  // namespace talvik
