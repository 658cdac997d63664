#include "csp/pieces.h"
#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

constexpr ALG_ID algorithms[] = {CALG_SHA1, CALG_SHA_256, CALG_SHA_384, CALG_SHA_512};

class CspHashTest : public ProviderTest {
  protected:
    CspHashTest() {
        acquire();
        ownHash("hash", hash);
        ownHash("copy", copy);
        state = [this] { return factsOfHash(hash) + (copy != 0 ? "; copy: " + factsOfHash(copy) : ""); };
    }
    void create(ALG_ID algorithm = CALG_SHA_256) { EXPECT_TRUE(CPCreateHash(prov, algorithm, 0, 0, &hash)); }
    BOOL get(DWORD param, DWORD room = 200) {
        offer(room);
        return CPGetHashParam(prov, hash, param, data.data(), &size, 0);
    }
    BOOL query(DWORD param) { return CPGetHashParam(prov, hash, param, nullptr, &size, 0); }

    HCRYPTHASH hash = 0, copy = 0;
    csp::HASH_CONTEXT unmade;
    const HCRYPTHASH notValid = reinterpret_cast<HCRYPTHASH>(&unmade);
};

TEST_F(CspHashTest, EveryAlgorithmOpensItsDeviceHash) {
    for (const ALG_ID algorithm : algorithms)
        show("CPCreateHash " + number(algorithm), [&] { return CPCreateHash(prov, algorithm, 99, 0, &hash); });
    hash = 0;
    showNulls("CPCreateHash", CPCreateHash, prov, CALG_SHA1, 0, 0, &hash);
    SHOW(CPCreateHash(invalid, CALG_MD5, 0, 0x0000ABC1, &hash));
    showEach<ALG_ID>("CPCreateHash", {CALG_MD5, CALG_HMAC, 2, 0xFFFF800C},
                     [&](ALG_ID algorithm) { return CPCreateHash(prov, algorithm, 0, 0, &hash); });
    scripted::next("talvik_initHash", {.status = -12});
    SHOW(CPCreateHash(prov, CALG_SHA_512, 0, 0, &hash));
}

TEST_F(CspHashTest, DataGoesToTheDeviceAsItIs) {
    create();
    const Bytes text = bytes(3, 0x61);
    SHOW(CPHashData(prov, hash, text.data(), 3, 0xFF));
    SHOW(CPHashData(prov, hash, nullptr, 0, 0));
    scripted::next("talvik_updateHash", {.status = 77});
    SHOW(CPHashData(prov, hash, text.data(), 1, 0));
    showNulls("CPHashData", CPHashData, prov, hash, nullptr, 0, 0);
}

TEST_F(CspHashTest, ParameterRefusals) {
    create();
    showNulls("CPGetHashParam", CPGetHashParam, prov, hash, HP_ALGID, data.data(), &size, 0);
    SHOW(CPGetHashParam(prov, hash, HP_ALGID, nullptr, nullptr, 16));
    SHOW(CPGetHashParam(invalid, notValid, HP_ALGID, data.data(), &size, 16));
    SHOW(CPGetHashParam(prov, notValid, HP_ALGID, data.data(), &size, 0));
    showEach<DWORD>("CPGetHashParam", {0xABCDEF12, HP_HMAC_INFO}, [&](DWORD param) { return get(param); });
    showNulls("CPSetHashParam", CPSetHashParam, prov, hash, HP_HASHVAL, data.data(), 0);
    SHOW(CPSetHashParam(prov, hash, HP_HASHVAL, nullptr, 2));
    SHOW(CPSetHashParam(invalid, notValid, HP_HASHVAL, data.data(), 2));
    SHOW(CPSetHashParam(prov, notValid, HP_HASHVAL, data.data(), 0));
    SHOW(CPSetHashParam(prov, hash, HP_ALGID, data.data(), 0));
}

// A 32-bit answer, whatever room there is.
TEST_F(CspHashTest, WordParametersFollowTheSizeRule) {
    for (const DWORD param : {HP_ALGID, HP_HASHSIZE}) {
        create();
        show("size of " + number(param), [&] { return query(param); });
        showEach<DWORD>(number(param) + " in", {0, 1, 2, 3, 4, 8}, [&](DWORD room) { return get(param, room); });
        for (const ALG_ID algorithm : algorithms) {
            create(algorithm);
            show(number(param) + " of " + number(algorithm), [&] { return get(param); });
        }
    }
}

TEST_F(CspHashTest, TheDigestIsFinishedOnceAndThenCached) {
    for (const ALG_ID algorithm : algorithms) {
        create(algorithm);
        scripted::always("talvik_finalHash", {.output = bytes(csp::hashOf(hash)->hashSize, 0x10)});
        show("digest of " + number(algorithm), [&] { return get(HP_HASHVAL); });
    }
    create(CALG_SHA_384);
    scripted::always("talvik_finalHash", {.output = bytes(48, 0x10)});
    SHOW(query(HP_HASHVAL));
    showEach<DWORD>("digest in", {10, 47, 48}, [&](DWORD room) { return get(HP_HASHVAL, room); });
    // Data that comes later reaches the device and changes nothing here.
    SHOW(CPHashData(prov, hash, data.data(), 1, 0));
    SHOW(query(HP_HASHVAL));
}

// A digest of a length that cannot be is a failure of the operation: nothing is cached, nothing overrun.
TEST_F(CspHashTest, AFailedDigestIsAskedForAgain) {
    create();
    scripted::always("talvik_finalHash", {.output = bytes(32)});
    showLies("talvik_finalHash", [&] { return get(HP_HASHVAL); }, {INT_MIN, 129, 4096, INT_MAX});
    SHOW(get(HP_HASHVAL));
}

TEST_F(CspHashTest, HmacInfoReplacesTheDeviceHashAndIsNeverReadBack) {
    create();
    const Bytes info = bytes(40, 3);
    SHOW(CPSetHashParam(prov, hash, HP_HMAC_INFO, info.data(), 0));
    SHOW(CPHashData(prov, hash, info.data(), 1, 0));
    SHOW(get(HP_HMAC_INFO));
    scripted::next("talvik_initHash", {.status = 9});
    SHOW(CPSetHashParam(prov, hash, HP_HMAC_INFO, info.data(), 0));
}

TEST_F(CspHashTest, ACopyStartsAnEmptyDeviceHash) {
    create(CALG_SHA_384);
    EXPECT_TRUE(CPHashData(prov, hash, bytes(3).data(), 3, 0));
    DWORD reserved = 5;
    SHOW(CPDuplicateHash(prov, hash, &reserved, 0, &copy));
    SHOW(CPHashData(prov, copy, bytes(1).data(), 1, 0));
    EXPECT_TRUE(CPSetHashParam(prov, hash, HP_HASHVAL, bytes(48, 7).data(), 0));
    SHOW(CPDuplicateHash(prov, hash, nullptr, 0, &copy));
    SHOW(CPGetHashParam(prov, copy, HP_HASHVAL, data.data(), &size, 0));
    copy = 0;
    showNulls("CPDuplicateHash", CPDuplicateHash, prov, hash, nullptr, 0, &copy);
    SHOW(CPDuplicateHash(prov, 0, nullptr, 1, nullptr));
    SHOW(CPDuplicateHash(invalid, notValid, nullptr, 0x10, &copy));
    SHOW(CPDuplicateHash(invalid, notValid, nullptr, 0, &copy));
    SHOW(CPDuplicateHash(prov, notValid, nullptr, 0, &copy));
    scripted::next("talvik_initHash", {.status = 1});
    SHOW(CPDuplicateHash(prov, hash, nullptr, 0, &copy));
}

TEST_F(CspHashTest, DestructionAsksNothingOfTheDevice) {
    HCRYPTHASH made = 0;
    ASSERT_TRUE(CPCreateHash(prov, CALG_SHA1, 0, 0, &made));
    showNulls("CPDestroyHash", CPDestroyHash, prov, made);
    csp::hashOf(made)->isValid = 0;
    SHOW(CPDestroyHash(prov, made));
}

TEST(Pieces, GoOnWhereTheLastEndedUntilOneIsRefused) {
    const BYTE data[10] = {};
    std::vector<std::pair<std::ptrdiff_t, int>> seen;
    const auto use = [&](const BYTE* piece, int length) {
        seen.emplace_back(piece - data, length);
        return seen.size() == 5 ? 7 : 0;
    };
    EXPECT_EQ(csp::inPieces(data, sizeof data, use, 4), 0);
    EXPECT_EQ(csp::inPieces(data, sizeof data, use, 4), 7);
    EXPECT_THAT(seen, ElementsAre(Pair(0, 4), Pair(4, 4), Pair(8, 2), Pair(0, 4), Pair(4, 4)));
}

}  // namespace
