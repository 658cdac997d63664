#include "csp/hash.h"
#include "csp/key.h"
#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

class CspSignTest : public ProviderTest {
  protected:
    CspSignTest() {
        setDevicePassword(DEVICE, "1234");
        scripted::always("talvik_finalHash", {.output = digest});
        ownHash("hash", hash);
        state = [this] { return factsOfHash(hash); };
    }

    // A context and a SHA-256 hash over these keys.
    void open(const std::vector<TalvikKeyPair>& keys, const std::string& container = "") {
        attachTokens(keys);
        acquire(container);
        EXPECT_TRUE(CPCreateHash(prov, CALG_SHA_256, 0, 0, &hash));
    }
    BOOL sign() { return CPSignHash(prov, hash, AT_SIGNATURE, L"x", 5, data.data(), &size); }
    BOOL querySize() { return CPSignHash(prov, hash, 99, nullptr, 0, nullptr, &size); }

    const Bytes digest = bytes(32, 0x40);
    const Bytes signatureOfToken = bytes(256, 0x80);
    HCRYPTHASH hash = 0;
};

TEST_F(CspSignTest, SigningTurnsTheTokensSignature) {
    open({scripted::keyPair(0x11)}, ONE);
    scripted::always("talvik_signHash", {.output = signatureOfToken});
    SHOW(sign());
    EXPECT_EQ(delivered(), reversed(signatureOfToken));
    attachTokens({});
    show("neither digest nor key are asked for again", [&] { return sign(); });
    csp::hashOf(hash)->mechanism = 3;
    SHOW(CPGetHashParam(prov, hash, HP_HASHVAL, data.data(), &size, 0));
}

TEST_F(CspSignTest, TheKeysTypeReplacesTheMechanism) {
    clearDevicePassword(DEVICE);  // no PIN is asked for
    for (const std::uint32_t type : {2, 3, 4, 5, 6, 7, 0, 1}) {
        open({scripted::keyPair(0x11, 1, type)});
        show("size, type " + number(type), [&] { return querySize(); });
    }
    for (const std::uint32_t type : {1, 7}) {
        csp::hashOf(hash)->mechanism = type;
        showEach<DWORD>("CPGetHashParam", {HP_ALGID, HP_HASHSIZE, HP_HASHVAL},
                        [&](DWORD param) { return CPGetHashParam(prov, hash, param, data.data(), &size, 0); });
    }
}

TEST_F(CspSignTest, TheContainerChoosesTheKey) {
    const TalvikKeyPair sign1 = scripted::keyPair(1, 1), both2 = scripted::keyPair(2, 3, 4),
                        exchange3 = scripted::keyPair(3, 2), unused4 = scripted::keyPair(4, 0);
    struct {
        const char* name;
        std::vector<TalvikKeyPair> keys;
        std::string container;
        unsigned char signs;  // 0: none
    } const rows[] = {
        {"first that can sign", {exchange3, sign1, both2}, "", 1},
        {"named", {sign1, both2}, scripted::containerName(both2), 2},
        {"named but cannot sign: the last that can", {sign1, exchange3, both2}, scripted::containerName(exchange3), 2},
        {"the last that can, before the named", {both2, sign1, exchange3}, scripted::containerName(exchange3), 1},
        {"nothing can sign", {exchange3, unused4}, "", 0},
        {"named, nothing can sign", {exchange3, unused4}, scripted::containerName(unused4), 0},
        {"no such name", {sign1, both2}, "nobody", 0},
        {"a label is no name", {sign1}, "label 1", 0},
        {"no keys", {}, "", 0}};
    for (const auto& row : rows) {
        open(row.keys, row.container);
        show(row.name, [&] { return querySize(); });
        EXPECT_EQ(csp::hashOf(hash)->signKeyId[0], row.signs) << row.name;
    }
    attachTokens({sign1});
    show("a key that has appeared, the digest of the first call", [&] { return querySize(); });
}

TEST_F(CspSignTest, SignRefusals) {
    open({scripted::keyPair(0x11)});
    showLies("talvik_finalHash", [&] { return sign(); }, {129, INT_MAX});
    showNulls("CPSignHash", CPSignHash, prov, hash, 0, nullptr, 0, data.data(), &size);
    scripted::next("talvik_signHash", {.status = 50});
    SHOW(sign());
    EXPECT_STREQ(getDevicePassword(DEVICE).c_str(), "1234");
}

TEST_F(CspSignTest, AnExpiredSignOnIsRenewedOnce) {
    open({scripted::keyPair(0x11)});
    scripted::always("talvik_signHash", {.output = signatureOfToken});
    showRenewal("talvik_signHash", [&] { return sign(); });
}

// What the token produces goes to the caller only as far as it fits.
TEST_F(CspSignTest, AShortBufferIsNeverOverrun) {
    open({scripted::keyPair(0x11)});
    scripted::always("talvik_signHash", {.output = signatureOfToken, .length = 256});
    showEach<DWORD>("room", {0, 1, 128, 255, 256}, [&](DWORD tried) {
        offer(tried);
        return sign();
    });
    showLies("talvik_signHash", [&] { return sign(); }, {1 << 20, INT_MAX});
    scripted::next("talvik_signHash", {.output = Bytes{}});
    SHOW(sign());
}

class CspVerifyTest : public CspSignTest {
  protected:
    CspVerifyTest() {
        open({pair});
        ownKey("key", key);
    }

    csp::KEY_HANDLE& keyRecord() {
        EXPECT_TRUE(key != 0 || CPGetUserKey(prov, AT_SIGNATURE, &key));
        return *csp::keyOf(key);
    }
    BOOL verify() { return CPVerifySignature(prov, hash, claim.data(), 3, key, nullptr, 0xFF); }
    void knowDigest() { EXPECT_TRUE(CPSetHashParam(prov, hash, HP_HASHVAL, digest.data(), 0)); }

    const TalvikKeyPair pair = scripted::keyPair(0x11);
    const Bytes claim = {1, 2, 3};
    HCRYPTKEY key = 0;
};

TEST_F(CspVerifyTest, TheDigestIsFetchedOnceAndTheSignatureTurned) {
    keyRecord();
    SHOW(verify());
    EXPECT_EQ(claim, Bytes({1, 2, 3}));
    for (const int refusal : {1, -1, 49}) {
        scripted::next("talvik_verifySignatureHash", {.status = refusal});
        show("refused with " + number(refusal), [&] { return verify(); });
    }
    EXPECT_STREQ(getDevicePassword(DEVICE).c_str(), "1234");
    keyRecord().publicKey[0] = 0x30;
    show("a key that begins like DER", [&] { return verify(); });
}

TEST_F(CspVerifyTest, WithoutAKeyHandleTheTokensKeyServes) {
    TalvikKeyPair likeDer = scripted::keyPair(0x22, 1);
    likeDer.modulus[0] = 0x30;  // no test here: a listed modulus is always converted
    TalvikKeyPair lying = scripted::keyPair(0x33, 3);
    lying.modulusLength = 0xFFFFFFFF;
    const TalvikKeyPair exchange = scripted::keyPair(0x44, 2);
    struct {
        const char* name;
        std::vector<TalvikKeyPair> keys;
        std::string container;
    } const rows[] = {{"first that signs", {exchange, likeDer, pair}, ""},
                      {"named", {likeDer, pair}, ONE},
                      {"lying", {lying}, ""},
                      {"none that signs", {exchange}, ""},
                      {"named, but no signing key", {pair, exchange}, scripted::containerName(exchange)},
                      {"none", {}, "x"}};
    for (const auto& row : rows) {
        open(row.keys, row.container);
        knowDigest();
        show(row.name, [&] { return verify(); });
    }
    open({pair});
    knowDigest();
    keyRecord().publicKeyLen = 0;
    show("a handle without a key", [&] { return verify(); });
}

TEST_F(CspVerifyTest, Refusals) {
    for (const std::uint32_t mechanism : {9, 5}) {
        csp::hashOf(hash)->mechanism = mechanism;
        show("mechanism " + number(mechanism), [&] { return verify(); });
    }
    csp::hashOf(hash)->mechanism = 3;
    showLies("talvik_finalHash", [&] { return verify(); });
    knowDigest();
    showNulls("CPVerifySignature", CPVerifySignature, prov, hash, claim.data(), 3, 0, nullptr, 0);
    SHOW(CPVerifySignature(prov, hash, claim.data(), 0x80000000, 0, nullptr, 0));
    const Bytes longClaim(0x10001);
    EXPECT_TRUE(CPVerifySignature(prov, hash, longClaim.data(), 0x10001, 0, nullptr, 0));
}

}  // namespace
