// The module in its process: acquired and released, loaded and freed, and left running at the end.
#include <windows.h>

#include <cstring>

#include "e2e/surroundings.h"
#include "soak/watch.h"
#include "support/dialog_robot.h"

namespace e2e {
namespace {

class Lifecycle : public Tokens {};

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
            // To the end: the device library has no call that gives up a hash, and keeps an abandoned one for a while.
            const Hash hash = digest(context, CALG_SHA_256, bytesOf("x"));
            DWORD size = 32;
            ASSERT_TRUE(CryptGetHashParam(hash, HP_HASHVAL, Bytes(size).data(), &size, 0));
        }
    };
    cycles(300);
    const soak::Footprint before = soak::footprint();
    cycles(3000);
    const soak::Footprint after = soak::footprint();
    EXPECT_TRUE(soak::isFlat(before, after)) << soak::difference(before, after);
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
