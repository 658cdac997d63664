// One token, two faces in one process, and single sign-on.
#include "e2e_ksp/cng.h"

namespace e2e {
namespace {

class Faces : public Tokens {
  protected:
    DialogRobot robot;
};

TEST_F(Faces, AKeyOfEitherSignsThroughTheOtherWithOnePin) {
    robot.enters(pin);
    const Bytes data = bytesOf("both"), digest = digestOf(data, "sha256");
    const Context context = acquire();
    ASSERT_TRUE(generate(context));
    const CngObject found = openKey(openProvider(), containerOf(context));
    EXPECT_TRUE(opensslVerifies(publicKey(context), "sha256", digest, sign(found, digest, BCRYPT_PAD_PKCS1)));

    const CngObject key = createKey(openProvider(), L"RSA");
    const Context named = acquire(nameOf(key));
    EXPECT_TRUE(opensslAccepts(publicKeyOf(key), "-sha256", data, sign(e2e::digest(named, CALG_SHA_256, data))));
    EXPECT_EQ(robot.finish(), Seen{"PIN"});
}

TEST_F(Faces, SignOnServesBothUntilItExpires) {
    change(std::string("sso on --pin ") + pin, token());
    const CngObject key = createKey(openProvider(), L"RSA");
    const Bytes data = bytesOf("signed on"), value = digestOf(data, "sha384");
    const Context context = acquire(nameOf(key));
    const auto signsWithCryptoApi = [&] {
        return opensslAccepts(publicKeyOf(key), "-sha384", data, sign(e2e::digest(context, CALG_SHA_384, data)));
    };
    const auto signsWith = [&](DWORD flags) {
        return opensslVerifies(publicKeyOf(key), "sha384", value, sign(key, value, BCRYPT_PAD_PKCS1 | flags));
    };
    EXPECT_TRUE(signsWith(NCRYPT_SILENT_FLAG));
    EXPECT_TRUE(signsWithCryptoApi());
    EXPECT_EQ(robot.seen(), Seen{});

    change("sso expire", token());
    EXPECT_EQ(sign(key, value, BCRYPT_PAD_PKCS1 | NCRYPT_SILENT_FLAG), Bytes());
    EXPECT_EQ(status, NTE_SILENT_CONTEXT);
    EXPECT_EQ(robot.seen(), Seen{}) << "a silent call shows nothing";
    robot.enters(pin);
    EXPECT_TRUE(signsWithCryptoApi());
    EXPECT_TRUE(signsWith(NCRYPT_SILENT_FLAG)) << "the PIN is known now";
    EXPECT_EQ(robot.finish(), Seen{"PIN"});
}

}  // namespace
}  // namespace e2e
