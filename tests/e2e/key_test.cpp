// Keys and their certificates.
#include "e2e/surroundings.h"
#include "support/dialog_robot.h"

namespace e2e {
namespace {

class Keys : public Tokens {};

TEST_F(Keys, GeneratedWithEachAlgorithmAndSize) {
    struct Case {
        ALG_ID algorithm;
        DWORD bits;
        DWORD recordedBits;
        DWORD permissions;
        DWORD keySpec;
    };
    constexpr Case cases[] = {{AT_SIGNATURE, 1024, 1024, 0, AT_SIGNATURE},
                              {AT_SIGNATURE, 4096, 4096, 0, AT_SIGNATURE},
                              {CALG_RSA_SIGN, 0, 2048, 0, AT_SIGNATURE},
                              {CALG_RSA_SIGN, 3072, 3072, 0, AT_SIGNATURE},
                              {CALG_RSA_KEYX, 0, 2048, CRYPT_DECRYPT, AT_KEYEXCHANGE},
                              {AT_KEYEXCHANGE, 2048, 2048, CRYPT_DECRYPT, AT_KEYEXCHANGE}};
    DialogRobot robot;
    robot.enters(pin);
    for (const Case& test : cases) {
        const Context context = acquire();
        const Key key = generate(context, test.algorithm, test.bits);
        ASSERT_TRUE(key) << test.algorithm << ' ' << std::hex << GetLastError();
        EXPECT_EQ(keyParameter(key, KP_ALGID), test.algorithm);
        EXPECT_EQ(keyParameter(key, KP_KEYLEN), test.recordedBits);
        EXPECT_EQ(keyParameter(key, KP_PERMISSIONS), test.permissions);
        // The token makes RSA-2048 whatever size was asked for, and says so when the key is looked up.
        const Key found = userKey(context, test.keySpec);
        ASSERT_TRUE(found);
        EXPECT_EQ(keyParameter(found, KP_KEYLEN), 2048u);
    }
    EXPECT_EQ(robot.finish(), std::vector<std::string>{"PIN"});
}

TEST_F(Keys, CertificateIsStoredAndReadBack) {
    DialogRobot robot;
    robot.enters(pin);
    const Context context = acquire();
    const Key key = generate(context);
    ASSERT_TRUE(key);
    DWORD size = 0;
    EXPECT_FALSE(CryptGetKeyParam(key, KP_CERTIFICATE, nullptr, &size, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NOT_FOUND));

    write("public.der", publicKey(context));
    const Bytes certificate = certificateForPublicKey("Signer");
    ASSERT_TRUE(CryptSetKeyParam(key, KP_CERTIFICATE, certificate.data(), 0)) << std::hex << GetLastError();

    const Context later = acquire();
    const Key found = userKey(later);
    ASSERT_TRUE(CryptGetKeyParam(found, KP_CERTIFICATE, nullptr, &size, 0));
    EXPECT_EQ(size, certificate.size());
    Bytes stored(size + 10);
    size -= 1;
    EXPECT_FALSE(CryptGetKeyParam(found, KP_CERTIFICATE, stored.data(), &size, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    size = static_cast<DWORD>(stored.size());
    ASSERT_TRUE(CryptGetKeyParam(found, KP_CERTIFICATE, stored.data(), &size, 0));
    stored.resize(size);
    EXPECT_EQ(stored, certificate);
}

}  // namespace
}  // namespace e2e
