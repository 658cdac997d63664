#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

class CspKeyTest : public ProviderTest {
  protected:
    CspKeyTest() {
        ownKey("key", key);
        state = [this] { return factsOfKey(key) + "; container " + csp::contextOf(prov)->containerName; };
    }
    BOOL userKey(DWORD keySpec = AT_SIGNATURE) { return CPGetUserKey(prov, keySpec, &key); }

    HCRYPTKEY key = 0;
};

TEST_F(CspKeyTest, GenerationChoosesUsageAndSize) {
    acquire();
    setDevicePassword(DEVICE, "1234");
    TalvikKeyPair generated = scripted::keyPair(0x22);
    generated.usage = 0;  // as requested
    scripted::generates(generated);
    for (const auto& [algorithm, flags] : {std::pair<ALG_ID, DWORD>{CALG_RSA_SIGN, 0},
                                           {CALG_RSA_SIGN, 0x0000FFFF},
                                           {AT_SIGNATURE, 0x10000001},
                                           {CALG_RSA_KEYX, 0x04000000},
                                           {AT_KEYEXCHANGE, 0x00010000},
                                           {CALG_RSA_KEYX, 0xFFFF0000}})
        show("CPGenKey " + number(algorithm) + " bits " + number(flags >> 16),
             [&, algorithm = algorithm, flags = flags] { return CPGenKey(prov, algorithm, flags, &key); });
    EXPECT_FALSE(findContainerAlias(""));
}

TEST_F(CspKeyTest, GenerationRefusals) {
    acquire("old");
    key = UNTOUCHED_HANDLE;
    showNulls("CPGenKey", CPGenKey, prov, AT_SIGNATURE, 0, &key);
    showEach<ALG_ID>("CPGenKey", {CALG_AES_128, 3, AT_SIGNATURE, AT_KEYEXCHANGE},
                     [&](ALG_ID algorithm) { return CPGenKey(prov, algorithm, 0x0000FFFF, &key); });
    const Shown generate = [&] { return CPGenKey(prov, CALG_RSA_SIGN, 0, &key); };
    robot.cancels();
    show("the user gives up", generate);
    setDevicePassword(DEVICE, "1234");
    scripted::next("talvik_generateKeyPair", {.status = 31});
    show("the token refuses", generate);
    EXPECT_FALSE(findContainerAlias("old"));
    // A success makes the requested name an alias of the new key's.
    scripted::generates(scripted::keyPair(0x22));
    show("the token agrees", generate);
    EXPECT_EQ(findContainerAlias("old"), TWO);
}

TEST_F(CspKeyTest, TheFirstSuitableKeyIsTaken) {
    struct {
        const char* name;
        std::vector<std::uint32_t> usages;  // of keys filled with 1, 2
        bool queried;
        DWORD keySpec;
        int taken;  // fill byte of the key, 0 for none
        std::uint32_t keyType = TALVIK_KEY_RSA_2048;
    } const rows[] = {{"sign key", {2, 1}, false, AT_SIGNATURE, 2},
                      {"both signs", {3, 1}, false, AT_SIGNATURE, 1},
                      {"curve", {1}, false, AT_SIGNATURE, 1, TALVIK_KEY_EC_P384},
                      {"queried: sign key for exchange", {1}, true, AT_KEYEXCHANGE, 1},
                      {"exchange key", {1, 2}, false, AT_KEYEXCHANGE, 2},
                      {"both exchanges", {3}, false, AT_KEYEXCHANGE, 1},
                      {"curve, exchange", {2}, false, AT_KEYEXCHANGE, 1, TALVIK_KEY_EC_P384},
                      {"queried: exchange key for signing", {2}, true, AT_SIGNATURE, 1},
                      {"queried: any key spec", {2}, true, 77, 1},
                      {"queried: first of all", {2, 1}, true, AT_SIGNATURE, 1},
                      {"no exchange key", {1}, false, AT_KEYEXCHANGE, 0},
                      {"no sign key", {2}, false, AT_SIGNATURE, 0},
                      {"unknown usage", {0, 4}, false, AT_SIGNATURE, 0},
                      {"other key spec", {3}, false, 3, 0},
                      {"algorithm as key spec", {3}, false, CALG_RSA_SIGN, 0},
                      {"queried: no usage", {0}, true, AT_SIGNATURE, 0}};
    acquire();
    for (const auto& row : rows) {
        std::vector<TalvikKeyPair> keys;
        for (const std::uint32_t usage : row.usages)
            keys.push_back(scripted::keyPair(static_cast<unsigned char>(keys.size() + 1), usage, row.keyType));
        attachTokens(keys);
        containerQueried = row.queried;
        key = 0;
        show(row.name, [&] { return userKey(row.keySpec); });
        EXPECT_EQ(key != 0 ? csp::keyOf(key)->keyId[0] : 0, row.taken) << row.name;
    }
}

TEST_F(CspKeyTest, TheContainerNamesTheKeyExactly) {
    attachTokens({scripted::keyPair(0x11), scripted::keyPair(0x22)});
    for (const std::string& name : {TWO, std::string("label 34"), TWO.substr(1), TWO + " ", std::string("x")}) {
        acquire(name);
        show('"' + name + '"', [&] { return userKey(); });
    }
}

// A record that lies about its lengths counts as carrying its whole fields.
TEST_F(CspKeyTest, TheHandleDescribesTheKeyPair) {
    acquire();
    for (std::uint32_t type = 0; type < 9; ++type) {
        attachTokens({scripted::keyPair(0x11, 3, type, 128)});
        show("type " + number(type), [&] { return userKey(); });
    }
    TalvikKeyPair pair = scripted::keyPair(0x11);
    std::ranges::fill(pair.label, 'L');
    setDevicePassword(DEVICE, "1234");
    const auto lies = [&](const std::string& name, const Shown& call) {
        for (const std::uint32_t lie : {1025u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
            pair.modulusLength = lie;
            pair.keyAliasLength = lie == 1025 ? 129 : lie;
            attachTokens({pair});
            scripted::generates(pair);
            key = 0;
            show(name + number(lie), call);
        }
    };
    lies("listed with length ", [&] { return userKey(); });
    lies("generated with length ", [&] { return CPGenKey(prov, CALG_RSA_SIGN, 0, &key); });
}

TEST_F(CspKeyTest, UserKeyRefusals) {
    acquire();
    key = UNTOUCHED_HANDLE;
    showNulls("CPGetUserKey", CPGetUserKey, prov, AT_SIGNATURE, &key);
    attachTokens({scripted::keyPair(0x11)});
    HCRYPTKEY made = 0;
    ASSERT_TRUE(CPGetUserKey(prov, AT_SIGNATURE, &made));
    showNulls("CPDestroyKey", CPDestroyKey, prov, made);
    SHOW(CPDestroyKey(prov, made));
}

}  // namespace
