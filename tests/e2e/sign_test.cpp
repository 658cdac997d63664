// Digests and signatures, checked with openssl.
#include "e2e/surroundings.h"

namespace e2e {
namespace {

constexpr struct {
    ALG_ID id;
    const char* option;
} algorithms[] = {
    {CALG_SHA1, "-sha1"}, {CALG_SHA_256, "-sha256"}, {CALG_SHA_384, "-sha384"}, {CALG_SHA_512, "-sha512"}};

Bytes opensslDigest(const std::string& option, const Bytes& data) {
    write("data", data);
    run("dgst -binary -out digest " + option + " data");
    return read("digest");
}

class Digests : public Tokens {};

TEST_F(Digests, EqualOpensslsHoweverTheDataIsCut) {
    const Context context = acquire(), withoutToken = acquire("", CRYPT_VERIFYCONTEXT);
    for (const auto& algorithm : algorithms) {
        for (const std::size_t size : {0u, 1u, 64u, 1000u, 300000u}) {
            const Bytes data = pattern(size), expected = opensslDigest(algorithm.option, data);
            for (const std::size_t chunk : {size + 1, std::size_t{4096}, std::size_t{77}}) {
                Hash hash;
                ASSERT_TRUE(CryptCreateHash(chunk > size ? withoutToken : context, algorithm.id, 0, 0, hash.put()));
                for (std::size_t at = 0; at < size; at += chunk) {
                    const auto length = static_cast<DWORD>(std::min(chunk, size - at));
                    ASSERT_TRUE(CryptHashData(hash, data.data() + at, length, 0));
                }
                EXPECT_EQ(valueOf(hash), expected) << algorithm.option << size << " bytes in pieces of " << chunk;
            }
        }
    }
}

class Sign : public Tokens {};

TEST_F(Sign, EveryDigestVerifiesWithOpensslAndWithTheProvider) {
    DialogRobot robot;
    robot.enters(pin);
    const Context context = acquire();
    const Key key = generate(context);
    ASSERT_TRUE(key);
    const Bytes publicKey = e2e::publicKey(context);
    const Bytes data = pattern(5000);
    for (const auto& [algorithm, option] : algorithms) {
        Bytes signature = sign(digest(context, algorithm, data));
        ASSERT_EQ(signature.size(), 256u) << option;
        EXPECT_TRUE(opensslAccepts(publicKey, option, data, signature)) << option;
        EXPECT_FALSE(opensslAccepts(publicKey, option, pattern(5001), signature)) << option;

        Hash madeElsewhere;
        ASSERT_TRUE(CryptCreateHash(context, algorithm, 0, 0, madeElsewhere.put()));
        ASSERT_TRUE(CryptSetHashParam(madeElsewhere, HP_HASHVAL, opensslDigest(option, data).data(), 0));
        EXPECT_EQ(sign(madeElsewhere), signature) << option;

        EXPECT_TRUE(verifies(digest(context, algorithm, data), signature, key));
        signature[7] ^= 1;
        EXPECT_EQ(errorOf(verifies(digest(context, algorithm, data), signature, key)), NTE_BAD_SIGNATURE) << option;
    }
    EXPECT_EQ(robot.finish(), Seen{"PIN"}) << "one PIN for key and signatures";
}

}  // namespace
}  // namespace e2e
