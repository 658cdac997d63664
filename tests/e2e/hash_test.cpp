// Digests, compared with openssl's.
#include <algorithm>

#include "e2e/surroundings.h"

namespace e2e {
namespace {

struct Algorithm {
    ALG_ID id;
    const char* option;
    DWORD size;
};
constexpr Algorithm algorithms[] = {{CALG_SHA1, "-sha1", 20},
                                    {CALG_SHA_256, "-sha256", 32},
                                    {CALG_SHA_384, "-sha384", 48},
                                    {CALG_SHA_512, "-sha512", 64}};

class HashOf : public Tokens, public ::testing::WithParamInterface<Algorithm> {};

Bytes value(const Hash& hash) {
    Bytes digest(64);
    auto size = static_cast<DWORD>(digest.size());
    EXPECT_TRUE(CryptGetHashParam(hash, HP_HASHVAL, digest.data(), &size, 0));
    digest.resize(size);
    return digest;
}

TEST_P(HashOf, EqualsOpensslHoweverTheDataIsCut) {
    const Context context = acquire();
    for (const std::size_t size : {0u, 1u, 63u, 64u, 65u, 1000u, 300000u}) {
        const Bytes data = pattern(size);
        write("data", data);
        ASSERT_EQ(openssl(std::string("dgst -binary -out digest ") + GetParam().option + " data").exitCode, 0);
        const Bytes expected = read("digest");
        ASSERT_EQ(expected.size(), GetParam().size);
        for (const std::size_t chunk : {size + 1, std::size_t{4096}, std::size_t{77}}) {
            Hash hash;
            ASSERT_TRUE(CryptCreateHash(context, GetParam().id, 0, 0, hash.put()));
            for (std::size_t at = 0; at < size; at += chunk) {
                const auto length = static_cast<DWORD>(std::min(chunk, size - at));
                ASSERT_TRUE(CryptHashData(hash, data.data() + at, length, 0));
            }
            EXPECT_EQ(value(hash), expected) << size << " bytes in pieces of " << chunk;
        }
    }
}

TEST_P(HashOf, IsComputedWithoutATokenToo) {
    const Context context = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    EXPECT_EQ(value(digest(context, GetParam().id, bytesOf("abc"))).size(), GetParam().size);
}

INSTANTIATE_TEST_SUITE_P(All, HashOf, ::testing::ValuesIn(algorithms),
                         [](const auto& test) { return std::string(test.param.option + 1); });

TEST_F(Tokens, RefusesOtherDigests) {
    const Context context = acquire();
    Hash hash;
    for (const ALG_ID id : {CALG_MD5, CALG_HMAC, CALG_SSL3_SHAMD5}) {
        EXPECT_FALSE(CryptCreateHash(context, id, 0, 0, hash.put()));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_ALGID));
    }
}

}  // namespace
}  // namespace e2e
