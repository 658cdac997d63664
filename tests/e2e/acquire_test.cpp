// Contexts: what is acquired with which token attached.
#include "e2e/surroundings.h"
#include "support/dialog_robot.h"

namespace e2e {
namespace {

class Acquire : public Tokens {};

TEST_F(Acquire, VerifyOnlyContextNeedsNoTokenAndOthersDo) {
    change("detach", token());
    EXPECT_TRUE(acquire(nullptr, CRYPT_VERIFYCONTEXT));
    EXPECT_FALSE(acquire());
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_TOKEN_KEYSET_STORAGE_FULL));
    change("attach", token());
    EXPECT_TRUE(acquire());
}

TEST_F(Acquire, NameGivenToANewKeyFindsItAgain) {
    DialogRobot robot;
    robot.enters(pin);
    Context first = acquire("letters");
    ASSERT_TRUE(generate(first));
    const Bytes key = publicKey(first);
    ASSERT_TRUE(generate(acquire("invoices")));
    first.reset();
    EXPECT_EQ(publicKey(acquire("letters")), key);
    EXPECT_NE(publicKey(acquire("invoices")), key);
}

TEST_F(Acquire, ContainerOfTheSecondTokenIsFoundThere) {
    const std::string second = token() + "-second";
    addToken(second);
    DialogRobot robot;
    change("detach", token());
    robot.enters(pin);
    Context onSecond = acquire("on the second");
    ASSERT_TRUE(generate(onSecond));
    const Bytes key = publicKey(onSecond);
    change("attach", token());

    robot.enters(pin);
    ASSERT_TRUE(generate(acquire()));
    EXPECT_NE(publicKey(acquire()), key) << "without a container, the first token counts";
    EXPECT_EQ(robot.finish(), (std::vector<std::string>{"PIN", "PIN"})) << "each token asks for its own PIN";
}

}  // namespace
}  // namespace e2e
