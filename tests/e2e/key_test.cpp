// Keys, their containers and the PIN that guards them.
#include "e2e/surroundings.h"

namespace e2e {
namespace {

class Keys : public Tokens {
  protected:
    DialogRobot robot;
};

TEST_F(Keys, NameGivenToANewKeyFindsItAgain) {
    robot.enters(pin);
    Context first = acquire("letters");
    ASSERT_TRUE(generate(first));
    const Bytes key = publicKey(first);
    ASSERT_TRUE(generate(acquire("invoices")));
    first.reset();
    EXPECT_EQ(publicKey(acquire("letters")), key);
    EXPECT_NE(publicKey(acquire("invoices")), key);
}

TEST_F(Keys, ContainerOfTheSecondTokenIsFoundThere) {
    addToken(token() + "-second");
    change("detach", token());
    robot.enters(pin).enters(pin);
    Context onSecond = acquire("on the second");
    ASSERT_TRUE(generate(onSecond));
    const Bytes key = publicKey(onSecond);
    change("attach", token());

    ASSERT_TRUE(generate(acquire()));
    EXPECT_NE(publicKey(acquire()), key) << "without a container, the first token counts";
    EXPECT_EQ(publicKey(acquire(containerOf(onSecond))), key);
    EXPECT_EQ(robot.finish(), (Seen{"PIN", "PIN"})) << "each token asks for its own PIN";
}

TEST_F(Keys, CancelCostsNoAttemptAndThreeWrongPinsLockTheToken) {
    const Context context = acquire();
    robot.cancels().closes().enters("9999").enters("8888").enters("7777").enters(pin);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(errorOf(generate(context) != 0), NTE_FAIL);
    }
    EXPECT_EQ(robot.finish(),
              (Seen{"PIN", "PIN", "PIN", "Invalid user pin. Remaining attempts(2)", "PIN",
                    "Invalid user pin. Remaining attempts(1)", "PIN", "User pin locked, re-initialise device", "PIN",
                    "User pin locked, re-initialise device"}));
}

// Whoever sits at the display answers the PIN dialog.
const PlayedRole enrolling("enrol", [](const std::string&) { return generate(acquire()) ? 0 : 1; });

}  // namespace
}  // namespace e2e
