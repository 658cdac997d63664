#include "token/session.h"

#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

class SessionTest : public ProviderTest {};

TEST_F(SessionTest, DeviceStatesMoveApart) {
    clearDevicePassword("A");  // an unseen device reads as nothing
    EXPECT_FALSE(isDeviceInitialized("A") || isPasswordValidated("A"));
    EXPECT_STREQ(getDevicePassword("A").c_str(), "");
    markDeviceInitialized("A");
    setDevicePassword("B", "1234");
    EXPECT_TRUE(isDeviceInitialized("A"));
    EXPECT_FALSE(isPasswordValidated("A"));
    EXPECT_FALSE(isDeviceInitialized("B"));
    EXPECT_TRUE(isPasswordValidated("B"));
    EXPECT_STREQ(getDevicePassword("B").c_str(), "1234");
    setDevicePassword("A", "");
    EXPECT_TRUE(isPasswordValidated("A"));
    clearDevicePassword("B");
    clearDevicePassword("A");
    EXPECT_STREQ(getDevicePassword("B").c_str(), "");
    EXPECT_TRUE(isDeviceInitialized("A"));
}

TEST_F(SessionTest, AliasesAreExactAndReplaceable) {
    EXPECT_FALSE(findContainerAlias("name"));
    insertContainerAlias("name", "ONE");
    insertContainerAlias("name", "TWO");
    EXPECT_EQ(findContainerAlias("name"), "TWO");
    EXPECT_FALSE(findContainerAlias("Name"));
}

// Two tokens; the key that is looked for is on the second, and another key's label is a third name.
const std::string DEVICES = "talvik_getConnectedDeviceList(false, null)",
                  KEY_LIST = "talvik_getKeyPairList(\"T1\", null)";

class Resolution : public ProviderTest {
  protected:
    Resolution() {
        scripted::Token one{scripted::tokenInfo("one"), {scripted::keyPair(0x11)}, {}, {}};
        scripted::Token two{scripted::tokenInfo("two"), {scripted::keyPair(0x22), unterminated()}, {}, {}};
        scripted::attach({{"T1", one}, {"T2", two}});
    }

    static TalvikKeyPair unterminated() {
        TalvikKeyPair key = scripted::keyPair(0xAB);
        std::fill_n(key.label, sizeof key.label, 'L');
        return key;
    }

    const Lines enumeration = {DEVICES, KEY_LIST, "talvik_getKeyPairList(\"T2\", null)"};
    const std::string second = scripted::containerName(scripted::keyPair(0x22));
};

TEST_F(Resolution, ContainersGoByTheirHexNameAlone) {
    EXPECT_EQ(resolveDeviceForContainer(second), "T2");
    EXPECT_EQ(scripted::takeCalls(), enumeration);
    EXPECT_EQ(resolveDeviceForContainer(""), "T1");
    EXPECT_EQ(scripted::takeCalls(), Lines({DEVICES}));
    for (const std::string& name : {std::string("unknown"), std::string("label 34"), second + "0",
                                    std::string("abababababababababababababababab")})
        EXPECT_EQ(resolveDeviceForContainer(name), "T1");
    scripted::takeCalls();
    EXPECT_EQ(resolveDeviceForContainer(ONE), "T1");
    EXPECT_EQ(scripted::takeCalls(), Lines({DEVICES, KEY_LIST}));
}

TEST_F(Resolution, KeyNamesMayBeLabels) {
    EXPECT_EQ(resolveDeviceForKeyName(std::wstring(second.begin(), second.end())), "T2");
    EXPECT_EQ(scripted::takeCalls(), enumeration);
    EXPECT_EQ(resolveDeviceForKeyName(L"label 34"), "T2");
    EXPECT_EQ(resolveDeviceForKeyName(L"label 35"), "T1");
    EXPECT_EQ(resolveDeviceForKeyName(std::wstring(128, L'L')), "T2");
    EXPECT_EQ(resolveDeviceForKeyName(L"\x016C\x0261\x0062\x0065\x006C 34"), "T2");  // low bytes alone count
    scripted::takeCalls();
    EXPECT_EQ(resolveDeviceForKeyName(L""), "T1");
    EXPECT_EQ(scripted::takeCalls(), Lines({DEVICES}));
}

TEST_F(Resolution, WithoutATokenThereIsNoDevice) {
    scripted::attach({});
    for (const char* name : {"", "x"})
        EXPECT_EQ(resolveDeviceForContainer(name), "");
    EXPECT_EQ(resolveDeviceForKeyName(L""), "");
    EXPECT_EQ(resolveDeviceForKeyName(L"x"), "");
    EXPECT_EQ(scripted::takeCalls(), Lines(4, DEVICES));
}

}  // namespace
