// The module in its process: acquired and released, loaded and freed, and left running at the end.
#include <windows.h>

#include <psapi.h>

#include <cstring>

#include "e2e/surroundings.h"
#include "support/dialog_robot.h"

namespace e2e {
namespace {

class Lifecycle : public Tokens {};

struct Footprint {
    SIZE_T bytes = 0;
    DWORD handles = 0;
};

Footprint footprint() {
    Footprint now;
    PROCESS_MEMORY_COUNTERS_EX memory{};
    K32GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&memory), sizeof memory);
    GetProcessHandleCount(GetCurrentProcess(), &now.handles);
    now.bytes = memory.PrivateUsage;
    return now;
}

TEST_F(Lifecycle, PinIsRememberedThoughEveryContextWasReleased) {
    DialogRobot robot;
    robot.enters(pin);
    ASSERT_TRUE(generate(acquire()));
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(sign(digest(acquire(), CALG_SHA_256, bytesOf("again"))).empty());
    }
    EXPECT_EQ(robot.finish(), std::vector<std::string>{"PIN"});
}

TEST_F(Lifecycle, ThousandsOfContextsLeaveNothingBehind) {
    const auto cycles = [](int count) {
        for (int i = 0; i < count; ++i) {
            Context context = acquire();
            ASSERT_TRUE(context);
            ASSERT_TRUE(digest(context, CALG_SHA_256, bytesOf("x")));
        }
    };
    cycles(300);
    const Footprint before = footprint();
    cycles(3000);
    const Footprint after = footprint();
    EXPECT_LE(after.handles, before.handles + 8);
    EXPECT_LE(after.bytes, before.bytes + (1u << 20)) << "bytes per cycle: " << (after.bytes - before.bytes) / 3000;
}

TEST_F(Lifecycle, LoadedAndFreedAgainAndAgain) {
    EXPECT_EQ(Role("load").wait(), 0u);
}

TEST_F(Lifecycle, RefusedAcquisitionsDoNotHang) {
    change("detach", token());
    EXPECT_EQ(Role("refused").wait(), 0u);
}

TEST_F(Lifecycle, ProcessEndsAtOnceWhileTheMonitorRuns) {
    for (const char* role : {"return", "exit"}) {
        EXPECT_EQ(Role(role, role).wait(), 0u) << role;
        const Bytes stamp = read(std::string("left-") + role);
        ASSERT_EQ(stamp.size(), sizeof(ULONGLONG)) << role;
        ULONGLONG left = 0;
        std::memcpy(&left, stamp.data(), sizeof left);
        EXPECT_LT(GetTickCount64() - left, 3000u) << role;
    }
}

}  // namespace
}  // namespace e2e
