#include "csp/key.h"
#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

class CspKeyTest : public ProviderTest {
  protected:
    ~CspKeyTest() override {
        for (const HCRYPTKEY key : made_)
            EXPECT_TRUE(CPDestroyKey(prov, key));
    }

    // The context is acquired when it is first needed, after the test has attached its tokens.
    void open(const std::string& container = "") { prov = acquire(container); }
    csp::CspContext& context() const { return *csp::contextOf(prov); }

    HCRYPTKEY owned(HCRYPTKEY key) {
        made_.push_back(key);
        return key;
    }
    HCRYPTKEY userKey(DWORD keySpec = AT_SIGNATURE) {
        HCRYPTKEY key = 0;
        EXPECT_TRUE(CPGetUserKey(prov, keySpec, &key));
        forgetSoFar();
        return owned(key);
    }
    Lines userKeyLog(DWORD keySpec, const std::string& container = "") {
        return {"DEBUG CPGetUserKey", "DEBUG CPGetUserKey -> dwKeySpec : " + number(keySpec),
                "DEBUG CPGetUserKey - Container name : " + container};
    }

    HCRYPTPROV prov = 0;

  private:
    std::vector<HCRYPTKEY> made_;
};

TEST_F(CspKeyTest, GenerationChoosesUsageAndSize) {
    struct {
        ALG_ID algorithm;
        DWORD flags;
        const char* line;
        std::uint32_t usage, bits;
    } const rows[] = {{CALG_RSA_SIGN, 0, "DEBUG rsa sign", 1, 2048},
                      {CALG_RSA_SIGN, 0x0000FFFF, "DEBUG rsa sign", 1, 2048},
                      {CALG_RSA_KEYX, 0x04000000, "DEBUG key exhange", 2, 1024},
                      {AT_SIGNATURE, 0x10000001, "DEBUG rsa sign", 1, 4096},
                      {AT_KEYEXCHANGE, 0x00010000, "DEBUG key exhange", 2, 1},
                      {CALG_RSA_KEYX, 0xFFFF0000, "DEBUG key exhange", 2, 65535}};
    open();
    setDevicePassword(DEVICE, "1234");
    TalvikKeyPair generated = scripted::keyPair(0x22);
    generated.usage = 0;  // as requested
    scripted::generates(generated);
    for (const auto& row : rows) {
        HCRYPTKEY key = 0;
        const std::string request =
            "{keyId=00000000000000000000000000000000 usage=" + number(row.usage) + " keyType=0}";
        expectSuccess(
            [&] { return CPGenKey(prov, row.algorithm, row.flags, &key); },
            {"DEBUG CPGenKey", row.line, VALIDATED,
             "DEBUG Key generated successfully, Algid=" + number(row.algorithm) + " bits=" + number(row.bits)},
            {"talvik_generateKeyPair(\"T1\", \"1234\", " + request + ", null)"});
        const csp::KEY_HANDLE& handle = *csp::keyOf(owned(key));
        EXPECT_EQ(std::tuple(handle.algId, handle.keyBits, handle.keyUsage, handle.keyIdLen),
                  std::tuple(row.algorithm, row.bits, row.usage, 16u));
        EXPECT_THAT(handle.keyId, Each(0x22));
        EXPECT_EQ(std::tuple(handle.publicKeyLen, handle.storageFlag, handle.aesKeyLen), std::tuple(256u, 0, 0));
        EXPECT_EQ(context().containerName, TWO);
    }
    EXPECT_FALSE(findContainerAlias(""));
}

TEST_F(CspKeyTest, GenerationRefusals) {
    open("old");
    HCRYPTKEY key = UNTOUCHED_HANDLE;
    const auto refused = refusalsOf("CPGenKey", CPGenKey);
    refused(ERROR_INVALID_PARAMETER, "CPGenKey: phKey is NULL", 0, 0, 0, nullptr);
    refused(NTE_BAD_UID, "Invalid CSP context", 0, 0, 0, &key);
    refused(NTE_BAD_UID, "Invalid CSP context", invalid, CALG_RSA_SIGN, 0, &key);
    refused(NTE_BAD_ALGID, "Unsupported algorithm26126", prov, CALG_AES_128, 0, &key);
    refused(NTE_BAD_ALGID, "Unsupported algorithm3", prov, 3, 0, &key);
    refused(NTE_BAD_LEN, "Unsupported Length2", prov, AT_SIGNATURE, 0x0000FFFF, &key);
    refused(NTE_BAD_LEN, "Unsupported Length1", prov, AT_KEYEXCHANGE, 0, &key);
    EXPECT_EQ(key, 0u);

    key = UNTOUCHED_HANDLE;
    const Call generate = [&] { return CPGenKey(prov, CALG_RSA_SIGN, 0, &key); };
    robot.cancels();
    expectError(generate, NTE_FAIL, "ERROR CPGenKey: ensurePasswordValidated failed");
    EXPECT_EQ(scripted::callCount("talvik_generateKeyPair"), 0);
    setDevicePassword(DEVICE, "1234");
    scripted::next("talvik_generateKeyPair", {.status = 31});
    expectError(generate, NTE_TOKEN_KEYSET_STORAGE_FULL, "ERROR RSA Keypair Generation Failed, code=31");
    EXPECT_EQ(key, 0u);
    EXPECT_EQ(context().containerName, "old");
    EXPECT_FALSE(findContainerAlias("old"));
    // A success makes the requested name an alias of the new key's.
    scripted::generates(scripted::keyPair(0x22));
    EXPECT_TRUE(generate());
    owned(key);
    EXPECT_EQ(findContainerAlias("old"), TWO);
}

TEST_F(CspKeyTest, TheFirstSuitableKeyIsTaken) {
    struct {
        const char* name;
        std::vector<std::uint32_t> usages;  // of keys filled with 1, 2
        bool queried;
        DWORD keySpec;
        int taken;  // fill byte of the key, 0 for none
        ALG_ID algorithm;
        std::uint32_t keyType = TALVIK_KEY_RSA_2048;
    } const rows[] = {{"sign key", {2, 1}, false, AT_SIGNATURE, 2, CALG_RSA_SIGN},
                      {"both signs", {3, 1}, false, AT_SIGNATURE, 1, CALG_RSA_SIGN},
                      {"exchange key", {1, 2}, false, AT_KEYEXCHANGE, 2, CALG_RSA_KEYX},
                      {"both exchanges", {3}, false, AT_KEYEXCHANGE, 1, CALG_RSA_KEYX},
                      {"no exchange key", {1}, false, AT_KEYEXCHANGE, 0, 0},
                      {"no sign key", {2}, false, AT_SIGNATURE, 0, 0},
                      {"unknown usage", {0, 4}, false, AT_SIGNATURE, 0, 0},
                      {"other key spec", {3}, false, 3, 0, 0},
                      {"algorithm as key spec", {3}, false, CALG_RSA_SIGN, 0, 0},
                      {"queried: sign key for exchange", {1}, true, AT_KEYEXCHANGE, 1, CALG_RSA_SIGN},
                      {"queried: exchange key for signing", {2}, true, AT_SIGNATURE, 1, CALG_RSA_KEYX},
                      {"queried: any key spec", {2}, true, 77, 1, CALG_RSA_KEYX},
                      {"queried: first of all", {2, 1}, true, AT_SIGNATURE, 1, CALG_RSA_KEYX},
                      {"queried: no usage", {0}, true, AT_SIGNATURE, 0, 0},
                      {"curve", {1}, false, AT_SIGNATURE, 1, 0x2200, TALVIK_KEY_EC_P384},
                      {"curve, exchange", {2}, false, AT_KEYEXCHANGE, 1, CALG_RSA_KEYX, TALVIK_KEY_EC_P384}};
    open();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<TalvikKeyPair> keys;
        for (const std::uint32_t usage : row.usages)
            keys.push_back(scripted::keyPair(static_cast<unsigned char>(keys.size() + 1), usage, row.keyType));
        attachTokens(keys);
        containerQueried = row.queried;
        HCRYPTKEY key = UNTOUCHED_HANDLE;
        const Call call = [&] { return CPGetUserKey(prov, row.keySpec, &key); };
        const Lines lines = userKeyLog(row.keySpec);
        if (row.taken == 0) {
            const std::string refused = "ERROR CPGetUserKey: requested key not found, dwKeySpec=" + number(row.keySpec);
            expectFailure(call, NTE_BAD_KEY, lines + refused, {KEY_LIST});
            EXPECT_EQ(key, UNTOUCHED_HANDLE);
            continue;
        }
        const char* const found =
            row.algorithm == CALG_RSA_KEYX ? "DEBUG Encryption key found" : "DEBUG Sign key found";
        expectSuccess(call, lines + found + ("DEBUG CPGetUserKey - return key algorithm : " + number(row.algorithm)),
                      {KEY_LIST});
        EXPECT_EQ(csp::keyOf(owned(key))->algId, row.algorithm);
        EXPECT_EQ(csp::keyOf(key)->keyId[0], row.taken);
    }
}

TEST_F(CspKeyTest, TheContainerNamesTheKeyExactly) {
    attachTokens({scripted::keyPair(0x11), scripted::keyPair(0x22)});
    open(TWO);
    EXPECT_EQ(content(csp::keyOf(userKey())->keyId, 16), filled(16, 0x22));
    for (const std::string& name : {std::string("label 34"), TWO.substr(1), TWO + " ", std::string("x")}) {
        open(name);
        HCRYPTKEY key = UNTOUCHED_HANDLE;
        expectFailure([&] { return CPGetUserKey(prov, AT_SIGNATURE, &key); }, NTE_BAD_KEY,
                      userKeyLog(AT_SIGNATURE, name) + "ERROR CPGetUserKey: requested key not found, dwKeySpec=2",
                      {KEY_LIST});
    }
}

TEST_F(CspKeyTest, TheHandleDescribesTheKeyPair) {
    const std::uint32_t bits[] = {0, 1024, 2048, 3072, 4096, 256, 384, 521, 0};
    open();
    for (std::uint32_t type = 0; type < std::size(bits); ++type) {
        const TalvikKeyPair pair = scripted::keyPair(0x11, 3, type, 128);
        attachTokens({pair});
        const csp::KEY_HANDLE& handle = *csp::keyOf(userKey());
        EXPECT_EQ(std::tuple(handle.keyBits, handle.keyIdLen, handle.keyUsage, handle.storageFlag),
                  std::tuple(bits[type], 16u, 3u, 1));
        EXPECT_EQ(content(handle.keyAlias, handle.keyAliasLen), Bytes({0x11}));
        EXPECT_STREQ(handle.label, "label 17");
        EXPECT_EQ(content(handle.publicKey, handle.publicKeyLen), content(pair.modulus, 128));
    }
}

// A record that lies about its lengths counts as carrying its whole fields.
TEST_F(CspKeyTest, LyingRecordsAreBoundedByTheirFields) {
    TalvikKeyPair pair = scripted::keyPair(0x11);
    std::ranges::fill(pair.label, 'L');
    setDevicePassword(DEVICE, "1234");
    for (const std::uint32_t lie : {1025u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        pair.modulusLength = lie;
        pair.keyAliasLength = lie == 1025 ? 129 : lie;
        attachTokens({pair});
        scripted::generates(pair);
        open();
        HCRYPTKEY generated = 0;
        ASSERT_TRUE(CPGenKey(prov, CALG_RSA_SIGN, 0, &generated));
        for (const HCRYPTKEY key : {userKey(), owned(generated)}) {
            const csp::KEY_HANDLE& handle = *csp::keyOf(key);
            EXPECT_EQ(content(handle.publicKey, handle.publicKeyLen), content(pair.modulus, 1024));
            EXPECT_EQ(content(handle.keyAlias, handle.keyAliasLen), content(pair.keyAlias, 128));
            EXPECT_EQ(std::string(handle.label), std::string(128, 'L'));
        }
    }
}

TEST_F(CspKeyTest, UserKeyRefusals) {
    open();
    HCRYPTKEY key = UNTOUCHED_HANDLE;
    const auto refused = refusalsOf("CPGetUserKey", CPGetUserKey);
    refused(NTE_BAD_KEY, "CPGetUserKey: phUserKey or hProv is null", prov, AT_SIGNATURE, nullptr);
    refused(NTE_BAD_KEY, "CPGetUserKey: phUserKey or hProv is null", 0, AT_SIGNATURE, &key);
    refused(NTE_BAD_UID, "CPGetUserKey: context is not initialized", invalid, AT_SIGNATURE, &key);
    expectFailure(
        [&] { return CPGetUserKey(prov, AT_SIGNATURE, &key); }, NTE_NO_KEY,
        {"DEBUG CPGetUserKey", "DEBUG CPGetUserKey -> dwKeySpec : 2", "ERROR CPGetUserKey: key list is empty"},
        {KEY_LIST});
    EXPECT_EQ(key, UNTOUCHED_HANDLE);
}

TEST_F(CspKeyTest, DestructionDeletesNothingOnTheToken) {
    attachTokens({scripted::keyPair(0x11)});
    open();
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CPGetUserKey(prov, AT_SIGNATURE, &key));
    const std::string context = "CPDestroyKey: invalid or uninitialized context";
    const auto refused = refusalsOf("CPDestroyKey", CPDestroyKey);
    refused(NTE_BAD_UID, context, 0, key);
    refused(NTE_BAD_UID, context, invalid, 0);
    refused(NTE_BAD_KEY, "CPDestroyKey: pKeyHandle is NULL", prov, 0);
    expectSuccess([&] { return CPDestroyKey(prov, key); }, {"DEBUG CPDestroyKey"});
}

}  // namespace
