#include "csp/hash.h"
#include "csp/key.h"
#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

constexpr char FINAL[] = "talvik_finalHash(#1, out, 128, null)";

class CspSignTest : public ProviderTest {
  protected:
    CspSignTest() {
        setDevicePassword(DEVICE, "1234");
        scripted::always("talvik_finalHash", {.output = digest});
    }
    ~CspSignTest() override { letGo(); }
    void letGo() { EXPECT_TRUE(!hash || CPDestroyHash(prov, hash)); }

    // A context and a SHA-256 hash over these keys; an earlier hash is let go.
    void open(const std::vector<TalvikKeyPair>& keys, const std::string& container = "") {
        attachTokens(keys);
        letGo();
        prov = acquire(container);
        EXPECT_TRUE(CPCreateHash(prov, CALG_SHA_256, 0, 0, &hash));
        forgetSoFar();
    }
    csp::HASH_CONTEXT& record() const { return *csp::hashOf(hash); }

    Call sign(DWORD room = 600) {
        return [=, this] {
            offer(room);
            return CPSignHash(prov, hash, AT_SIGNATURE, L"x", 5, data.data(), &size);
        };
    }
    Call querySize() {
        return [this] {
            offer(UNTOUCHED);
            return CPSignHash(prov, hash, 99, nullptr, 0, nullptr, &size);
        };
    }
    std::string signCall(const std::string& pin = "1234") const {
        return "talvik_signHash(\"T1\", " + ONE + ", \"" + pin + "\", " + hex(digest) +
               ", 32, out, 600, false, null, false)";
    }

    const Bytes digest = bytes(32, 0x40);
    const Bytes signatureOfToken = bytes(256, 0x80);
    HCRYPTPROV prov = 0;
    HCRYPTHASH hash = 0;
    const Lines parameters = {"DEBUG CPSignHash dwFlags : 5", "DEBUG CPSignHash hashAlgorithm : 3",
                              "DEBUG CPSignHash key mechanism : 2"};
    const Lines signing = Lines{"DEBUG CPSignHash", VALIDATED} + parameters;
};

TEST_F(CspSignTest, SigningTurnsTheTokensSignature) {
    open({scripted::keyPair(0x11)}, ONE);
    scripted::always("talvik_signHash", {.output = signatureOfToken});
    expectSuccess(sign(), signing, {FINAL, KEY_LIST, signCall()});
    EXPECT_EQ(delivered(), reversed(signatureOfToken));

    // Again: neither the digest nor the key is asked for, even if the key has gone since.
    attachTokens({});
    expectSuccess(sign(), signing, {signCall()});

    // The digest is cached; its ALG_ID and size are now read from the key's type.
    Bytes value(32);
    size = 32;
    record().mechanism = 3;
    EXPECT_TRUE(CPGetHashParam(prov, hash, HP_HASHVAL, value.data(), &size, 0));
    EXPECT_EQ(value, digest);
    EXPECT_EQ(scripted::callCount("talvik_finalHash"), 1);
}

TEST_F(CspSignTest, TheKeysTypeReplacesTheMechanism) {
    open({scripted::keyPair(0x11, 1, TALVIK_KEY_RSA_1024)});
    EXPECT_TRUE(querySize()());
    EXPECT_EQ(record().mechanism, 1u);
    const std::pair<DWORD, std::string> rows[] = {
        {HP_ALGID, "HP_ALGID"}, {HP_HASHSIZE, "HP_HASHSIZE"}, {HP_HASHVAL, "HP_HASHVAL"}};
    for (const std::uint32_t type : {1u, 7u})
        for (const auto& [param, name] : rows) {
            record().mechanism = type;
            offer(600);
            expectFailure([&, param = param] { return CPGetHashParam(prov, hash, param, data.data(), &size, 0); },
                          NTE_BAD_ALGID,
                          {"DEBUG CPGetHashParam", "DEBUG CPGetHashParam dwParam : " + number(param),
                           "DEBUG CPGetHashParam mechanism : " + number(type),
                           "ERROR CPGetHashParam: " + name + " unsupported mechanism=" + number(type)});
            EXPECT_TRUE(isOnlyTold(600));
        }
}

TEST_F(CspSignTest, SizeQueriesGoByTheKeysTypeAndFinishTheDigest) {
    const std::pair<std::uint32_t, DWORD> rows[] = {{1, 256}, {2, 256}, {3, 384}, {4, 512},
                                                    {5, 256}, {6, 256}, {7, 256}, {0, 256}};
    clearDevicePassword(DEVICE);  // no PIN is asked for
    for (const auto& [type, expected] : rows) {
        scripted::reset();
        scripted::always("talvik_finalHash", {.output = digest});
        open({scripted::keyPair(0x11, 1, type)});
        expectSuccess(querySize(), {"DEBUG CPSignHash"}, {FINAL, KEY_LIST});
        EXPECT_EQ(size, expected);
        EXPECT_EQ(record().hashValueLen, 32u);
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
        SCOPED_TRACE(row.name);
        open(row.keys, row.container);
        if (row.signs == 0) {
            expectError(querySize(), NTE_NO_KEY, "ERROR CPSignHash: sign key not found for container=" + row.container);
            EXPECT_EQ(size, UNTOUCHED);
            EXPECT_EQ(record().signKeyIdLen, 0u);
        } else {
            EXPECT_TRUE(querySize()());
            EXPECT_EQ(record().signKeyId[0], row.signs);
            EXPECT_EQ(record().mechanism, row.signs == 2 ? 4u : 2u);
        }
    }
    // A key that appears between two calls is found by the second, with the digest of the first.
    attachTokens({sign1});
    EXPECT_TRUE(querySize()());
    EXPECT_EQ(scripted::callCount("talvik_finalHash"), static_cast<int>(std::size(rows)));
}

TEST_F(CspSignTest, SignRefusals) {
    open({scripted::keyPair(0x11)});
    const auto refused = refusalsOf("CPSignHash", CPSignHash);
    const std::string context = "CPSignHash: context is null or not initialized";
    refused(NTE_BAD_UID, context, 0, hash, 2, nullptr, 0, nullptr, &size);
    refused(NTE_BAD_UID, context, invalid, 0, 2, nullptr, 0, nullptr, &size);
    refused(NTE_BAD_HASH, "CPSignHash: hash handle is null", prov, 0, 2, nullptr, 0, nullptr, &size);
    const Call lengthless = [&] { return CPSignHash(prov, hash, 2, nullptr, 0, data.data(), nullptr); };
    scripted::next("talvik_finalHash", {.status = 8});
    expectError(lengthless, NTE_FAIL, "ERROR CPSignHash: talvik_finalHash failed with ret=8");
    scripted::next("talvik_finalHash", {.status = 8});
    expectFailure(sign(), NTE_FAIL, {"DEBUG CPSignHash", "ERROR CPSignHash: talvik_finalHash failed with ret=8"},
                  {FINAL});
    for (const int lie : {-1, 129, INT_MAX}) {
        scripted::next("talvik_finalHash", {.output = digest, .length = lie});
        expectError(sign(), NTE_FAIL, "ERROR CPSignHash: talvik_finalHash failed with ret=0");
        EXPECT_EQ(record().hashValueLen, 0u);
    }
    scripted::next("talvik_signHash", {.status = 50});
    expectFailure(sign(), NTE_PROVIDER_DLL_FAIL, signing + "ERROR Sign hash failed : 50",
                  {FINAL, KEY_LIST, signCall()});
    EXPECT_TRUE(isOnlyTold(600));
    EXPECT_STREQ(getDevicePassword(DEVICE).c_str(), "1234");
}

TEST_F(CspSignTest, AnExpiredSignOnIsRenewedOnce) {
    open({scripted::keyPair(0x11)});
    scripted::always("talvik_signHash", {.output = signatureOfToken});
    EXPECT_TRUE(sign()());
    expectRenewal({"CPSignHash",
                   "talvik_signHash",
                   sign(),
                   {"DEBUG CPSignHash"},
                   parameters,
                   {},
                   {"ERROR Sign hash failed : 49"},
                   [&](const std::string& pin) { return signCall(pin); }});
    EXPECT_TRUE(isOnlyTold(600));
}

// What the token produces goes to the caller only as far as it fits.
TEST_F(CspSignTest, AShortBufferIsNeverOverrun) {
    open({scripted::keyPair(0x11)});
    scripted::always("talvik_signHash", {.output = signatureOfToken, .length = 256});
    for (const DWORD room : {0, 1, 128, 255}) {
        expectError(sign(room), ERROR_MORE_DATA, "ERROR CPSignHash: signature buffer too small, required=256");
        EXPECT_TRUE(isOnlyTold(256));
    }
    EXPECT_TRUE(sign(256)());
    EXPECT_EQ(delivered(), reversed(signatureOfToken));
    for (const int lie : {-1, INT_MIN, 1 << 20, INT_MAX}) {
        scripted::next("talvik_signHash", {.output = signatureOfToken, .length = lie});
        expectError(sign(), NTE_PROVIDER_DLL_FAIL, "ERROR Sign hash failed : 0");
        EXPECT_TRUE(isOnlyTold(600));
    }
    scripted::next("talvik_signHash", {.output = Bytes{}});
    expectSuccess(sign(), signing, {signCall()});
    EXPECT_TRUE(isOnlyTold(0));
}

class CspVerifyTest : public CspSignTest {
  protected:
    CspVerifyTest() { open({pair}); }
    ~CspVerifyTest() override { EXPECT_TRUE(!key || CPDestroyKey(prov, key)); }

    csp::KEY_HANDLE& keyRecord() {
        EXPECT_TRUE(key || CPGetUserKey(prov, AT_SIGNATURE, &key));
        return *csp::keyOf(key);
    }
    Call verify() {
        return [this] { return CPVerifySignature(prov, hash, claim.data(), 3, key, nullptr, 0xFF); };
    }
    void knowDigest() { EXPECT_TRUE(CPSetHashParam(prov, hash, HP_HASHVAL, digest.data(), 0)); }

    std::string verifyCall(const Bytes& der) const {
        return "talvik_verifySignatureHash(2, \"T1\", " + hex(digest) + ", 32, " + hex(der) + ", " +
               number(der.size()) + ", 030201, 3, null, false)";
    }
    static Lines facts(std::size_t keyLength) {
        return {"DEBUG pContext->serialNumber: T1", "DEBUG pHashContext->hashLength: 32",
                "DEBUG PublicKeyLength: " + number(keyLength), "DEBUG Signature Length: 3"};
    }
    static Bytes derOf(const TalvikKeyPair& of, std::size_t length) {
        return buildRsaPublicKeyDer(hex(content(of.modulus, length)), "010001");
    }

    const TalvikKeyPair pair = scripted::keyPair(0x11);
    const Bytes der = derOf(pair, 256);
    const Bytes claim = {1, 2, 3};
    HCRYPTKEY key = 0;
};

TEST_F(CspVerifyTest, TheDigestIsFetchedOnceAndTheSignatureTurned) {
    keyRecord();
    const Lines read = {"DEBUG CPGetHashParam", "DEBUG CPGetHashParam dwParam : 2",
                        "DEBUG CPGetHashParam mechanism : 3"};
    const Lines converted = {"DEBUG key handle available", "DEBUG Public key is not DER encoded, converting to DER"};
    expectSuccess(verify(),
                  Lines{"DEBUG CPVerifySignature"} + read + read + "DEBUG Hash obtained using CPGetHashParam" +
                      converted + facts(der.size()),
                  {"talvik_finalHash(#1, out, 32, null)", verifyCall(der)});
    EXPECT_EQ(claim, Bytes({1, 2, 3}));
    for (const int refusal : {1, -1, 49}) {
        scripted::next("talvik_verifySignatureHash", {.status = refusal});
        expectFailure(verify(), NTE_BAD_SIGNATURE,
                      Lines{"DEBUG CPVerifySignature"} + converted + facts(der.size()) +
                          Lines{"ERROR VERIFY SIGNATURE FAILED :: " + number(refusal)},
                      {verifyCall(der)});
    }
    EXPECT_STREQ(getDevicePassword(DEVICE).c_str(), "1234");
    // A key that begins like DER is taken as it is.
    keyRecord().publicKey[0] = 0x30;
    expectSuccess(
        verify(),
        Lines{"DEBUG CPVerifySignature", converted[0], "DEBUG Public key is already DER encoded"} + facts(256),
        {verifyCall(content(keyRecord().publicKey, 256))});
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
        std::optional<Bytes> der;
    } const rows[] = {{"first that signs", {exchange, likeDer, pair}, "", derOf(likeDer, 256)},
                      {"named", {likeDer, pair}, ONE, der},
                      {"lying", {lying}, "", derOf(lying, 1024)},
                      {"none that signs", {exchange}, "", std::nullopt},
                      {"named, but no signing key", {pair, exchange}, scripted::containerName(exchange), std::nullopt},
                      {"none", {}, "x", std::nullopt}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        open(row.keys, row.container);
        knowDigest();
        const Lines lines = {"DEBUG CPVerifySignature", "ERROR Key Handle Not Initialized or Public Key Length is zero",
                             "DEBUG Container name : " + row.container};
        if (row.der) {
            expectSuccess(verify(), lines + facts(row.der->size()), {KEY_LIST, verifyCall(*row.der)});
        } else {
            expectFailure(
                verify(), NTE_BAD_KEY,
                lines + ("ERROR CPVerifySignature: container not found in key list, containerName=" + row.container),
                {KEY_LIST});
        }
    }
    open({pair});
    knowDigest();
    keyRecord().publicKeyLen = 0;
    EXPECT_TRUE(verify()());
    EXPECT_EQ(scripted::takeCalls().back(), verifyCall(der));
}

TEST_F(CspVerifyTest, Refusals) {
    const auto refused = refusalsOf("CPVerifySignature", CPVerifySignature);
    refused(NTE_BAD_UID, "CSP Context Not Initialized", 0, hash, claim.data(), 3, 0, nullptr, 0);
    refused(NTE_BAD_UID, "CSP Context Not Initialized", invalid, 0, claim.data(), 3, 0, nullptr, 0);
    refused(NTE_BAD_HASH, "Hash Context is not Initialized", prov, 0, claim.data(), 3, 0, nullptr, 0);
    struct {
        std::function<void()> arrange;
        const char* text;
    } const digests[] = {{[&] { record().mechanism = 9; }, "CPGetHashParam failed to get hash size"},
                         {[&] { record().mechanism = 5; }, "Hash size larger than expected"},
                         {[&] { record().mechanism = 3, scripted::next("talvik_finalHash", {.status = 4}); },
                          "CPGetHashParam failed to get hash value"},
                         {[&] { scripted::next("talvik_finalHash", {.output = digest, .length = -4}); },
                          "CPGetHashParam failed to get hash value"}};
    for (const auto& row : digests) {
        row.arrange();
        expectError(verify(), NTE_BAD_HASH, std::string("ERROR ") + row.text);
        EXPECT_EQ(record().hashValueLen, 0u);
    }
    knowDigest();
    const auto verifying = [&](const Bytes& signature, DWORD length) {
        return [&, length] { return CPVerifySignature(prov, hash, signature.data(), length, 0, nullptr, 0); };
    };
    expectError(verifying({}, 3), ERROR_INVALID_PARAMETER, "ERROR CPVerifySignature: pbSignature is null");
    expectError(verifying(claim, 0x80000000), NTE_BAD_SIGNATURE,
                "ERROR CPVerifySignature: signature too long, cbSigLen=2147483648");
    EXPECT_EQ(scripted::callCount("talvik_verifySignatureHash"), 0);
    const Bytes longClaim(0x10001);
    EXPECT_TRUE(verifying(longClaim, 0x10001)());
}

}  // namespace
