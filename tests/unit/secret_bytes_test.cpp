#include "token/secret_bytes.h"

#include <algorithm>
#include <cstring>
#include <gmock/gmock.h>

using namespace testing;
using talvik::SecretBytes;

namespace {

// Of the blocks that serve one buffer after the other: the sizes on both sides of what is kept.
class KeptSecretBytes : public TestWithParam<std::size_t> {};

TEST_P(KeptSecretBytes, ServeTheNextBufferAndAreWipedBefore) {
    const unsigned char* block = nullptr;
    {
        SecretBytes first(GetParam());
        std::memset(first.data(), 0xA5, first.size());
        block = first.data();
        SecretBytes meanwhile(GetParam());
        EXPECT_NE(meanwhile.data(), block);
    }
    const SecretBytes next(GetParam());
    EXPECT_EQ(next.first(0).data(), block);
    EXPECT_THAT(next.first(next.size()), Each(0));
}

INSTANTIATE_TEST_SUITE_P(Sizes, KeptSecretBytes, Values(64u << 10, 1u << 20, (1u << 20) + 16));

}  // namespace
