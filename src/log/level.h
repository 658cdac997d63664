// The level that is configured for the diagnostics log, and when it has to be asked for.
//
// A change of the registry value takes effect at the next call of whoever changed it. It is not asked for where nobody
// can have changed it: within one call of an application, and from one call to the next of the same thread while less
// than some 3 microseconds lie between leaving and entering, since the cheapest write of a registry value is a system
// call of several microseconds (and twenty under Wine). What was learned serves until the system clock ticks, at the
// most: so long may a change by another thread or program take to reach a thread in a tight loop. What one thread
// learns serves others in a tight loop for the same tick. Threads that are in no call of an application ask at every
// line.
#pragma once

#include <cstdint>

namespace talvik {

// For as long as it lives, the thread is inside a call of an application. One inside another changes nothing. The
// thread's last error stays.
class ApplicationCall {
  public:
    ApplicationCall() noexcept;
    ~ApplicationCall();
    ApplicationCall(const ApplicationCall&) = delete;
    ApplicationCall& operator=(const ApplicationCall&) = delete;

  private:
    bool isOutermost_;
};

// For as long as it lives, the thread's call waits for a person: what the thread does meanwhile, out of the message
// loop of a window, are calls of their own, and afterwards the level is asked for anew.
class ApplicationPause {
  public:
    ApplicationPause() noexcept;
    ~ApplicationPause();
    ApplicationPause(const ApplicationPause&) = delete;
    ApplicationPause& operator=(const ApplicationPause&) = delete;

  private:
    std::uint64_t interrupted_;
};

namespace log_detail {

// Whether lines of a level are written now. The last error stays.
bool debugIsOn() noexcept;
bool errorIsOn() noexcept;

}  // namespace log_detail
}  // namespace talvik
