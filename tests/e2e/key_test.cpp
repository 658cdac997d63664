// Keys, their containers and their certificates.
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

TEST_F(Keys, CertificateIsStoredAndReadBack) {
    robot.enters(pin);
    const Context context = acquire();
    const Key key = generate(context, CALG_RSA_SIGN, 3072);
    ASSERT_TRUE(key);
    EXPECT_EQ(keyParameter(key, KP_KEYLEN), 3072u);
    const auto certificateOf = [](const Key& holder) {
        return delivered(
            [&](BYTE* data, DWORD* size) { return CryptGetKeyParam(holder, KP_CERTIFICATE, data, size, 0); });
    };
    EXPECT_EQ(certificateOf(key), Bytes());
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NOT_FOUND));

    write("public.der", publicKey(context));
    const Bytes certificate = certificateForPublicKey("Signer");
    ASSERT_TRUE(CryptSetKeyParam(key, KP_CERTIFICATE, certificate.data(), 0)) << std::hex << GetLastError();
    const Context later = acquire();
    const Key found = userKey(later);
    EXPECT_EQ(keyParameter(found, KP_KEYLEN), 2048u) << "the token makes RSA-2048 whatever size was asked for";
    EXPECT_EQ(certificateOf(found), certificate);
}

// Whoever sits at the display answers the PIN dialog.
const PlayedRole enrolling("enrol", [](const std::string&) { return generate(acquire()) ? 0 : 1; });

}  // namespace
}  // namespace e2e
