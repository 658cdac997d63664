// Handles of digests that callers abandon, use again or make up.
#include <algorithm>
#include <atomic>
#include <thread>

#include "hash_table.h"
#include "status.h"
#include "virtual_token/fixture.h"

namespace talvik_test {
namespace {

TEST(Hash, OthersAreRefused) {
    for (const int unknown : {-1, 0, 1, 6, 0x8004}) {
        EXPECT_EQ(hashOf(unknown, {}).status, Unsupported);
    }
}

void* start() {
    void* hash = nullptr;
    EXPECT_EQ(talvik_initHash("", TALVIK_HASH_SHA256, &hash, nullptr), 0);
    return hash;
}

int update(void* hash) {
    return talvik_updateHash(hash, pattern(3).data(), 3, nullptr);
}

int finish(void* hash, int room) {
    unsigned char digest[128];
    return talvik_finalHash(hash, digest, &room, nullptr);
}

TEST(Hash, HandlesAreLookedUp) {
    void* hash = start();
    EXPECT_EQ(finish(hash, 31), BufferTooSmall);
    EXPECT_EQ(update(hash), 0);  // not finished by the refusal
    EXPECT_EQ(finish(hash, 32), 0);
    EXPECT_EQ(update(hash), BadHashHandle);
    EXPECT_EQ(finish(hash, 32), BadHashHandle);
    int local = 0;
    for (void* garbage : {static_cast<void*>(nullptr), static_cast<void*>(&local),
                          reinterpret_cast<void*>(~static_cast<std::uintptr_t>(0))}) {
        EXPECT_EQ(update(garbage), BadHashHandle);
        EXPECT_EQ(finish(garbage, 32), BadHashHandle);
    }
}

TEST(Hash, TwentyThousandAreHeldAtOnce) {
    std::vector<void*> held(20000);
    std::ranges::generate(held, start);
    EXPECT_EQ(std::ranges::count_if(held, [](void* hash) { return finish(hash, 32) != 0; }), 0);
}

TEST(Hash, TheLongestUnusedMakesRoom) {
    virtual_token::HashTable table(128);
    const std::uint64_t abandoned = table.begin(GCRY_MD_SHA256), used = table.begin(GCRY_MD_SHA256);
    for (int i = 0; i < 1000; ++i) {
        table.begin(GCRY_MD_SHA256);
        table.find(used);
    }
    EXPECT_THROW(table.find(abandoned), virtual_token::TokenError);
}

// Threads with hashes of their own do not disturb each other; threads on one handle do not corrupt it.
TEST(Hash, Threads) {
    const Bytes expected = hashOf(TALVIK_HASH_SHA512, pattern(100000)).bytes;
    void* shared = start();
    std::atomic<int> wrong{0};
    const auto work = [&] {
        for (int i = 0; i < 200; ++i) {
            update(shared);
            wrong += hashOf(TALVIK_HASH_SHA512, pattern(100000)).bytes != expected;
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(finish(shared, 32), 0);
}

}  // namespace
}  // namespace talvik_test
