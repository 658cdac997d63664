#include "stand_in/ticks.h"

#include <windows.h>

#include <atomic>
#include <time.h>

namespace {

std::atomic<ULONGLONG> early{0};

}  // namespace

ULONGLONG WINAPI GetTickCount64() {
    timespec now = {};
#ifndef STAND_IN_CLOCK_STOPPED
    clock_gettime(CLOCK_MONOTONIC, &now);
#endif
    return static_cast<ULONGLONG>(now.tv_sec) * 1000 + static_cast<ULONGLONG>(now.tv_nsec) / 15625000 * 16 + early;
}

void letTheClockTick() noexcept {
    ++early;
}
