// Signatures, checked with openssl.
#include "e2e/surroundings.h"
#include "support/dialog_robot.h"

namespace e2e {
namespace {

class Sign : public Tokens {};

TEST_F(Sign, EveryDigestVerifiesWithOpensslAndWithTheProvider) {
    DialogRobot robot;
    robot.enters(pin);
    const Context context = acquire();
    const Key key = generate(context);
    ASSERT_TRUE(key);
    const Bytes publicKey = e2e::publicKey(context);
    const Bytes data = pattern(5000);

    constexpr std::pair<ALG_ID, const char*> digests[] = {
        {CALG_SHA1, "-sha1"}, {CALG_SHA_256, "-sha256"}, {CALG_SHA_384, "-sha384"}, {CALG_SHA_512, "-sha512"}};
    for (const auto& [algorithm, option] : digests) {
        Bytes signature = sign(digest(context, algorithm, data));
        ASSERT_EQ(signature.size(), 256u) << option;
        EXPECT_TRUE(opensslAccepts(publicKey, option, data, signature)) << option;
        EXPECT_FALSE(opensslAccepts(publicKey, option, pattern(5001), signature)) << option;

        write("data", data);
        run(std::string("dgst -binary -out digest ") + option + " data");
        Hash madeElsewhere;
        ASSERT_TRUE(CryptCreateHash(context, algorithm, 0, 0, madeElsewhere.put()));
        ASSERT_TRUE(CryptSetHashParam(madeElsewhere, HP_HASHVAL, read("digest").data(), 0));
        EXPECT_EQ(sign(madeElsewhere), signature) << option;

        const auto size = static_cast<DWORD>(signature.size());
        EXPECT_TRUE(CryptVerifySignatureA(digest(context, algorithm, data), signature.data(), size, key, nullptr, 0));
        signature[7] ^= 1;
        EXPECT_FALSE(CryptVerifySignatureA(digest(context, algorithm, data), signature.data(), size, key, nullptr, 0));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_SIGNATURE)) << option;
    }
    EXPECT_EQ(robot.finish(), std::vector<std::string>{"PIN"}) << "one PIN for key and signatures";
}

TEST_F(Sign, TwoProcessesOnOneToken) {
    {
        DialogRobot robot;
        robot.enters(pin);
        ASSERT_TRUE(generate(acquire()));
    }
    const std::string names[] = {"first", "second"};
    Role first("sign", names[0]);
    Role second("sign", names[1]);
    EXPECT_EQ(first.wait(), 0u);
    EXPECT_EQ(second.wait(), 0u);
    const Bytes key = publicKey(acquire());
    for (const std::string& name : names) {
        EXPECT_TRUE(opensslAccepts(key, "-sha256", bytesOf(name), read("signature-" + name)));
    }
}

}  // namespace
}  // namespace e2e
