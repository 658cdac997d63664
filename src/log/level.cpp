#include "log/level.h"

#include <windows.h>

#include <atomic>
#include <bit>
#include <mutex>
#include <optional>
#include <shared_mutex>
#ifdef _MSC_VER
#include <intrin.h>
#else
#include <x86intrin.h>
#endif

#include "log/last_error.h"

namespace talvik {
namespace {

// The registry value. The key stays open between questions, so that asking is one query. A key that was deleted since
// is opened again; one that was renamed goes on answering, so now and then the key is opened by its path all the same.
class LevelSetting {
  public:
    ~LevelSetting() { close(); }

    std::optional<DWORD> read(ULONGLONG now) noexcept {
        DWORD level = 0;
        LSTATUS status = ERROR_KEY_DELETED;
        try {
            std::shared_lock reading(lock_);
            if (key_ != nullptr && now - opened_ < longestUse) {
                status = query(level);
            }
        } catch (...) {
            return std::nullopt;
        }
        if (status == ERROR_KEY_DELETED) {
            status = reopenAndQuery(level, now);
        }
        return status == ERROR_SUCCESS ? std::optional(level) : std::nullopt;
    }

  private:
    static constexpr ULONGLONG longestUse = 1000;  // milliseconds

    LSTATUS query(DWORD& level) const noexcept {
        DWORD buffer[8] = {};
        DWORD size = sizeof buffer;
        const LSTATUS status = RegGetValueA(key_, nullptr, "logLevel", RRF_RT_ANY, nullptr, buffer, &size);
        level = buffer[0];
        return status;
    }

    LSTATUS reopenAndQuery(DWORD& level, ULONGLONG now) noexcept {
        HKEY opened = nullptr;
        const LSTATUS status =
            RegOpenKeyExA(HKEY_LOCAL_MACHINE, "Software\\Quorvel\\Talvik", 0, KEY_QUERY_VALUE, &opened);
        try {
            std::unique_lock replacing(lock_);
            close();
            key_ = opened;
            opened_ = now;
            return status == ERROR_SUCCESS ? query(level) : status;
        } catch (...) {
            RegCloseKey(opened);
            return ERROR_NOT_ENOUGH_MEMORY;
        }
    }

    void close() noexcept {
        if (key_ != nullptr) {
            RegCloseKey(key_);
            key_ = nullptr;
        }
    }

    std::shared_mutex lock_;
    HKEY key_ = nullptr;
    ULONGLONG opened_ = 0;  // in ticks
};

LevelSetting levelSetting;

enum class Level : std::uint8_t { Unknown, Silent, Errors, Everything };

Level askForLevel(ULONGLONG now) noexcept {
    const std::optional<DWORD> configured = levelSetting.read(now);
    if (!configured) {
        return Level::Errors;
    }
    return *configured <= 1 ? Level::Silent : *configured == 3 ? Level::Everything : Level::Errors;
}

// What a thread carries on from its last line. It fits into the thread's one slot, so that threads may come and go, and
// the module too, without anything to allocate or to clean up.
struct Carried {
    std::uint64_t level : 2;   // Level
    std::uint64_t inside : 1;  // a call of an application
    std::uint64_t tick : 21;   // when the level was asked for: GetTickCount64
    std::uint64_t left : 40;   // when the call before this one was left: time-stamp counter
};
static_assert(sizeof(Carried) == sizeof(void*));

constexpr std::uint64_t tickMask = (1ull << 21) - 1;
constexpr std::uint64_t cycleMask = (1ull << 40) - 1;

// Cycles of the time-stamp counter: some 3 microseconds, in which an application hashes a kilobyte between two calls.
// The cheapest write that was measured under Wine took 45,000.
constexpr std::uint64_t shortestChange = 10000;

class ThreadSlot {
  public:
    ~ThreadSlot() {
        TlsFree(index_);
        index_ = TLS_OUT_OF_INDEXES;
    }
    Carried read() const noexcept {
        return std::bit_cast<Carried>(index_ == TLS_OUT_OF_INDEXES ? nullptr : TlsGetValue(index_));
    }
    void write(Carried carried) const noexcept {
        if (index_ != TLS_OUT_OF_INDEXES) {
            TlsSetValue(index_, std::bit_cast<void*>(carried));
        }
    }

  private:
    DWORD index_ = TlsAlloc();
};

ThreadSlot threadSlot;

// What a thread that was inside a call learned last, with its tick. A thread in a tight loop, which would ask because
// the clock has ticked, takes over what another one has learned since: all of them ask once a tick together.
std::atomic<Carried> lastAnswer = Carried{};

Level currentLevel() noexcept {
    const LastErrorKeeper keeper;
    const Carried carried = threadSlot.read();
    const ULONGLONG now = GetTickCount64();
    const std::uint64_t tick = now & tickMask;
    if (carried.inside != 0 && carried.level != 0) {
        if (carried.tick == tick) {
            return static_cast<Level>(carried.level);
        }
        const Carried others = lastAnswer.load(std::memory_order_relaxed);
        if (others.level != 0 && others.tick == tick) {
            threadSlot.write(others);
            return static_cast<Level>(others.level);
        }
    }
    const Level level = askForLevel(now);
    if (carried.inside != 0) {
        const Carried learned{static_cast<std::uint64_t>(level), 1, tick, 0};
        threadSlot.write(learned);
        lastAnswer.store(learned, std::memory_order_relaxed);
    }
    return level;
}

}  // namespace

ApplicationCall::ApplicationCall() noexcept {
    const LastErrorKeeper keeper;
    const Carried carried = threadSlot.read();
    isOutermost_ = carried.inside == 0;
    if (isOutermost_) {
        const bool isFresh = ((__rdtsc() - carried.left) & cycleMask) < shortestChange;
        threadSlot.write({isFresh ? carried.level : std::uint64_t{0}, 1, carried.tick, 0});
    }
}

ApplicationCall::~ApplicationCall() {
    if (isOutermost_) {
        const LastErrorKeeper keeper;  // a call may fail with the error that it found
        const Carried carried = threadSlot.read();
        threadSlot.write({carried.level, 0, carried.tick, __rdtsc() & cycleMask});
    }
}

ApplicationPause::ApplicationPause() noexcept {
    const LastErrorKeeper keeper;
    interrupted_ = threadSlot.read().inside;
    threadSlot.write({});
}

ApplicationPause::~ApplicationPause() {
    const LastErrorKeeper keeper;
    threadSlot.write({0, interrupted_, 0, 0});
}

namespace log_detail {

bool debugIsOn() noexcept {
    return currentLevel() == Level::Everything;
}

bool errorIsOn() noexcept {
    return currentLevel() != Level::Silent;
}

}  // namespace log_detail
}  // namespace talvik
