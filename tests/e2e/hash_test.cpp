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

TEST_P(HashOf, EqualsOpensslHoweverTheDataIsCut) {
    const Context context = acquire(), withoutToken = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    for (const std::size_t size : {0u, 1u, 63u, 64u, 65u, 1000u, 300000u}) {
        const Bytes data = pattern(size);
        write("data", data);
        run(std::string("dgst -binary -out digest ") + GetParam().option + " data");
        const Bytes expected = read("digest");
        ASSERT_EQ(expected.size(), GetParam().size);
        for (const std::size_t chunk : {size + 1, std::size_t{4096}, std::size_t{77}}) {
            Hash hash;
            ASSERT_TRUE(CryptCreateHash(chunk > size ? withoutToken : context, GetParam().id, 0, 0, hash.put()));
            for (std::size_t at = 0; at < size; at += chunk) {
                const auto length = static_cast<DWORD>(std::min(chunk, size - at));
                ASSERT_TRUE(CryptHashData(hash, data.data() + at, length, 0));
            }
            Bytes digest(64);
            auto length = static_cast<DWORD>(digest.size());
            EXPECT_TRUE(CryptGetHashParam(hash, HP_HASHVAL, digest.data(), &length, 0));
            digest.resize(length);
            EXPECT_EQ(digest, expected) << size << " bytes in pieces of " << chunk;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, HashOf, ::testing::ValuesIn(algorithms),
                         [](const auto& test) { return std::string(test.param.option + 1); });

}  // namespace
}  // namespace e2e
