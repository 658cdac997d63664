// One token, two faces in one process, and single sign-on.
#include "e2e_ksp/cng.h"

namespace e2e {
namespace {

class Faces : public Tokens {};

std::string containerOf(const Context& context) {
    char name[64] = {};
    DWORD size = sizeof name;
    EXPECT_TRUE(CryptGetProvParam(context, PP_CONTAINER, reinterpret_cast<BYTE*>(name), &size, 0));
    return name;
}

TEST_F(Faces, AKeyOfCryptoApiSignsThroughCngWithOnePin) {
    DialogRobot robot;
    robot.enters(pin);
    const Context context = acquire();
    ASSERT_TRUE(generate(context));
    const std::string name = containerOf(context);
    const CngObject key = openKey(openProvider(), std::wstring(name.begin(), name.end()));
    const Bytes digest = digestOf(bytesOf("both"), "sha256");
    const Bytes signature = sign(key, digest, BCRYPT_PAD_PKCS1);
    EXPECT_TRUE(opensslVerifies(publicKey(context), "sha256", digest, signature, ""));
    EXPECT_EQ(robot.finish(), Seen{"PIN"});
}

TEST_F(Faces, AKeyOfCngSignsThroughCryptoApiWithOnePin) {
    DialogRobot robot;
    robot.enters(pin);
    const CngObject key = createKey(openProvider(), L"RSA");
    const std::wstring name = text(property(key, NCRYPT_NAME_PROPERTY));
    const Context context = acquire(std::string(name.begin(), name.end()).c_str());
    ASSERT_TRUE(context);
    const Bytes data = bytesOf("both");
    EXPECT_TRUE(opensslAccepts(publicKeyOf(key), "-sha256", data, sign(digest(context, CALG_SHA_256, data))));
    EXPECT_EQ(robot.finish(), Seen{"PIN"});
}

TEST_F(Faces, SignOnServesBothUntilItExpires) {
    change(std::string("sso on --pin ") + pin, token());
    DialogRobot robot;
    const CngObject key = createKey(openProvider(), L"RSA");
    const Bytes value = digestOf(bytesOf("signed on"), "sha384");
    const auto signsWith = [&](DWORD flags) {
        return opensslVerifies(publicKeyOf(key), "sha384", value, sign(key, value, BCRYPT_PAD_PKCS1 | flags), "");
    };
    EXPECT_TRUE(signsWith(NCRYPT_SILENT_FLAG));
    EXPECT_EQ(robot.seen(), Seen{});

    change("sso expire", token());
    EXPECT_EQ(sign(key, value, BCRYPT_PAD_PKCS1 | NCRYPT_SILENT_FLAG), Bytes());
    EXPECT_EQ(status, NTE_SILENT_CONTEXT);
    EXPECT_EQ(robot.seen(), Seen{}) << "a silent call shows nothing";
    robot.enters(pin);
    EXPECT_TRUE(signsWith(0));
    EXPECT_TRUE(signsWith(NCRYPT_SILENT_FLAG)) << "the PIN is known now";
    EXPECT_EQ(robot.finish(), Seen{"PIN"});
}

}  // namespace
}  // namespace e2e
