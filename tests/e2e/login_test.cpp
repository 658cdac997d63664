// The PIN: dialogs, refusals, single sign-on.
#include "e2e/surroundings.h"
#include "support/log_reader.h"

namespace e2e {
namespace {

class Login : public Tokens {
  protected:
    Bytes signature() const { return sign(digest(context, CALG_SHA_256, bytesOf("data"))); }
    bool signsForOpenssl() const { return opensslAccepts(publicKey(context), "-sha256", bytesOf("data"), signature()); }

    // The monitor tells in the log that it has noticed a token's absence.
    bool noticedAbsence(const LogReader& log) const {
        const std::string line = "DEBUG Device disconnected: " + token();
        const ULONGLONG begin = GetTickCount64();
        while (std::ranges::count(log.allEntries(), line) == 0) {
            if (GetTickCount64() - begin > 20000) {
                return false;
            }
            Sleep(20);
        }
        return true;
    }

    const Context context = acquire();
    DialogRobot robot;
};

TEST_F(Login, LocksAfterThreeWrongPins) {
    robot.enters("9999").enters("8888").enters("7777");
    EXPECT_EQ(errorOf(generate(context) != 0), NTE_FAIL);
    robot.enters(pin);
    EXPECT_FALSE(generate(context)) << "the right PIN opens a locked token";
    EXPECT_EQ(robot.finish(),
              (Seen{"PIN", "Invalid user pin. Remaining attempts(2)", "PIN", "Invalid user pin. Remaining attempts(1)",
                    "PIN", "User pin locked, re-initialise device", "PIN", "User pin locked, re-initialise device"}));
}

TEST_F(Login, CancelCostsNoAttempt) {
    robot.cancels().closes().enters("9999").enters(pin);
    EXPECT_EQ(errorOf(generate(context) != 0), NTE_FAIL);
    EXPECT_FALSE(generate(context));
    EXPECT_TRUE(generate(context));
    EXPECT_EQ(robot.finish(), (Seen{"PIN", "PIN", "PIN", "Invalid user pin. Remaining attempts(2)", "PIN"}));
}

TEST_F(Login, ClockSkewIsToldToTheUser) {
    change("clock skew", token());
    robot.enters(pin).cancels();
    EXPECT_FALSE(generate(context));
    EXPECT_EQ(robot.finish(), (Seen{"PIN", "System time mismatch, Kidly login to Token Manager", "PIN"}));
}

TEST_F(Login, SingleSignOnAsksForNoPinUntilItExpires) {
    change(std::string("sso on --pin ") + pin, token());
    ASSERT_TRUE(generate(context));
    EXPECT_TRUE(signsForOpenssl());
    EXPECT_EQ(robot.seen(), Seen{}) << "signed on";

    change("sso expire", token());
    robot.enters(pin);
    EXPECT_TRUE(signsForOpenssl());
    EXPECT_TRUE(signsForOpenssl());
    EXPECT_EQ(robot.finish(), Seen{"PIN"});
}

TEST_F(Login, PinIsRememberedUntilTheTokenIsUnplugged) {
    robot.enters(pin).enters(pin);
    ASSERT_TRUE(generate(acquire()));
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(sign(digest(acquire(), CALG_SHA_256, bytesOf("again"))).empty());
    }
    EXPECT_EQ(robot.seen(), Seen{"PIN"}) << "though every context was released";
    setLogLevel(3);
    const LogReader log;
    change("detach", token());
    EXPECT_TRUE(noticedAbsence(log));
    setLogLevel(std::nullopt);
    change("attach", token());
    EXPECT_FALSE(sign(digest(acquire(), CALG_SHA_256, bytesOf("a"))).empty());
    EXPECT_EQ(robot.finish(), (Seen{"PIN", "PIN"}));
}

}  // namespace
}  // namespace e2e
