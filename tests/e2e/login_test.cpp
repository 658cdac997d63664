// The PIN: dialogs, refusals, single sign-on.
#include <algorithm>

#include "e2e/surroundings.h"
#include "support/dialog_robot.h"
#include "support/log_reader.h"

namespace e2e {
namespace {

using Seen = std::vector<std::string>;

class Login : public Tokens {
  protected:
    void SetUp() override {
        Tokens::SetUp();
        context_ = acquire();
        ASSERT_TRUE(context_);
    }
    void TearDown() override {
        context_.reset();
        Tokens::TearDown();
    }
    const Context& context() const { return context_; }

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

  private:
    Context context_;
};

TEST_F(Login, LocksAfterThreeWrongPins) {
    DialogRobot robot;
    robot.enters("9999").enters("8888").enters("7777");
    EXPECT_FALSE(generate(context()));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_EQ(robot.finish(),
              (Seen{"PIN", "Invalid user pin. Remaining attempts(2)", "PIN", "Invalid user pin. Remaining attempts(1)",
                    "PIN", "User pin locked, re-initialise device"}));

    DialogRobot afterwards;
    afterwards.enters(pin);
    EXPECT_FALSE(generate(context())) << "the right PIN opens a locked token";
    EXPECT_EQ(afterwards.finish(), (Seen{"PIN", "User pin locked, re-initialise device"}));
}

TEST_F(Login, CancelCostsNoAttempt) {
    DialogRobot robot;
    robot.cancels().closes().enters("9999").enters(pin);
    EXPECT_FALSE(generate(context()));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_FALSE(generate(context()));
    EXPECT_TRUE(generate(context()));
    EXPECT_EQ(robot.finish(), (Seen{"PIN", "PIN", "PIN", "Invalid user pin. Remaining attempts(2)", "PIN"}));
}

TEST_F(Login, ClockSkewIsToldToTheUser) {
    change("clock skew", token());
    DialogRobot robot;
    robot.enters(pin).cancels();
    EXPECT_FALSE(generate(context()));
    const Seen seen = robot.finish();
    ASSERT_GE(seen.size(), 2u);
    EXPECT_EQ(seen[1], "System time mismatch, Kidly login to Token Manager");
}

TEST_F(Login, SingleSignOnAsksForNoPinUntilItExpires) {
    change(std::string("sso on --pin ") + pin, token());
    DialogRobot robot;
    ASSERT_TRUE(generate(context()));
    const Bytes key = publicKey(context());
    EXPECT_TRUE(opensslAccepts(key, "-sha256", bytesOf("a"), sign(digest(context(), CALG_SHA_256, bytesOf("a")))));
    EXPECT_EQ(robot.seen(), Seen{}) << "signed on";

    change("sso expire", token());
    robot.enters(pin);
    EXPECT_TRUE(opensslAccepts(key, "-sha256", bytesOf("b"), sign(digest(context(), CALG_SHA_256, bytesOf("b")))));
    EXPECT_TRUE(opensslAccepts(key, "-sha256", bytesOf("c"), sign(digest(context(), CALG_SHA_256, bytesOf("c")))));
    EXPECT_EQ(robot.finish(), Seen{"PIN"});
}

TEST_F(Login, UnpluggedTokenAsksAgain) {
    DialogRobot robot;
    robot.enters(pin);
    ASSERT_TRUE(generate(context()));
    setLogLevel(3);
    const LogReader log;
    change("detach", token());
    EXPECT_TRUE(noticedAbsence(log));
    setLogLevel(std::nullopt);
    change("attach", token());
    robot.enters(pin);
    EXPECT_FALSE(sign(digest(acquire(), CALG_SHA_256, bytesOf("a"))).empty());
    EXPECT_EQ(robot.finish(), (Seen{"PIN", "PIN"}));
}

}  // namespace
}  // namespace e2e
