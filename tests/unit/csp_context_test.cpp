#include <stdexcept>
#include <thread>

#include "csp/context.h"
#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

std::string initDevice(const std::string& device) {
    return "talvik_initDevice(\"" + device + "\", false, null)";
}
std::string keyList(const std::string& device) {
    return "talvik_getKeyPairList(\"" + device + "\", null)";
}

class CspContextTest : public ProviderTest {
  protected:
    ~CspContextTest() override {
        EXPECT_TRUE(context == UNTOUCHED_HANDLE || context == 0 || CPReleaseContext(context, 0));
    }

    Call acquisition(const char* container, DWORD flags = 0) {
        return [=, this] { return CPAcquireContext(&context, container, flags, someTable()); };
    }
    csp::CspContext& record() const {
        if (context == UNTOUCHED_HANDLE || !csp::contextOf(context))
            throw std::runtime_error("no context was acquired");
        return *csp::contextOf(context);
    }

    HCRYPTPROV context = UNTOUCHED_HANDLE;
};

TEST_F(CspContextTest, NullArgumentsAreRefused) {
    const std::string text = "CPAcquireContext: invalid parameter - phProv=";
    expectRefusals("CPAcquireContext",
                   {{[&] { return CPAcquireContext(nullptr, nullptr, 0, someTable()); }, ERROR_INVALID_PARAMETER,
                     text + "0 pVTable=" + number(static_cast<const void*>(someTable()))},
                    {[&] { return CPAcquireContext(&context, nullptr, CRYPT_DELETEKEYSET, nullptr); },
                     ERROR_INVALID_PARAMETER, text + number(&context) + " pVTable=0"}});
    EXPECT_EQ(context, UNTOUCHED_HANDLE);
}

TEST_F(CspContextTest, DeletingAKeysetTouchesNothing) {
    for (const DWORD flags :
         {DWORD{CRYPT_DELETEKEYSET}, DWORD{CRYPT_DELETEKEYSET | CRYPT_VERIFYCONTEXT}, DWORD{0x7FFFFFFF}}) {
        context = UNTOUCHED_HANDLE;
        expectSuccess(acquisition("name", flags),
                      {"DEBUG CPAcquireContext", "DEBUG CPAcquireContext - dwFlags : " + number(flags),
                       "DEBUG CPAcquireContext - CRYPT_DELETEKEYSET, returning success"});
        EXPECT_EQ(context, 0u);
    }
}

TEST_F(CspContextTest, AVerifyOnlyContextNeedsNoToken) {
    scripted::attach({});
    for (const DWORD flags : {0x10000000u, 0x20000000u, 0x40000000u, 0x80000000u, 0xF0000000u, 0xF0000008u}) {
        expectSuccess(acquisition("name", flags),
                      {"DEBUG CPAcquireContext", "DEBUG CPAcquireContext - dwFlags : " + number(flags),
                       "DEBUG CPAcquireContext - CRYPT_VERIFYCONTEXT, no token required"});
        EXPECT_EQ(record().deviceId, "");
        EXPECT_EQ(record().containerName, "");
        EXPECT_THAT(record().containerNames, IsEmpty());
        EXPECT_EQ(record().keysetType, DWORD{CRYPT_USER_KEYSET});
        expectSuccess([&] { return CPReleaseContext(context, 0); }, {"DEBUG CPReleaseContext"});
    }
    context = 0;
}

TEST_F(CspContextTest, WithoutATokenThereIsNoContext) {
    scripted::attach({});
    expectFailure(
        acquisition(nullptr), NTE_TOKEN_KEYSET_STORAGE_FULL,
        {"DEBUG CPAcquireContext", "DEBUG CPAcquireContext - dwFlags : 0", MONITOR, "ERROR Valid token not connected"},
        {INIT, DEVICES});
    EXPECT_EQ(context, UNTOUCHED_HANDLE);
}

TEST_F(CspContextTest, TokensAreInitialisedOncePerProcess) {
    attachTokens({scripted::keyPair(0x11), scripted::keyPair(0x22)});
    expectSuccess(acquisition(nullptr),
                  {"DEBUG CPAcquireContext", "DEBUG CPAcquireContext - dwFlags : 0", MONITOR,
                   "DEBUG CPAcquireContext - Container name not provided", "DEBUG " + ONE, "DEBUG " + TWO},
                  {INIT, DEVICES, INIT, initDevice("T1"), INIT, initDevice("T2"), DEVICES, keyList("T1")});
    EXPECT_EQ(record().deviceId, "T1");
    EXPECT_EQ(record().containerName, "");
    EXPECT_EQ(record().containerNames, Lines({ONE, TWO}));
    EXPECT_EQ(record().keysetType, DWORD{CRYPT_USER_KEYSET});
    EXPECT_EQ(record().header, 0u);
    EXPECT_TRUE(CPReleaseContext(context, 0));

    expectSuccess(acquisition(TWO.c_str(), CRYPT_NEWKEYSET | CRYPT_SILENT | CRYPT_MACHINE_KEYSET),
                  {"DEBUG CPAcquireContext", "DEBUG CPAcquireContext - dwFlags : 104", MONITOR,
                   "DEBUG CPAcquireContext - Container name : " + TWO, "DEBUG " + ONE, "DEBUG " + TWO},
                  {INIT, DEVICES, DEVICES, keyList("T1"), keyList("T1")});
    EXPECT_EQ(record().containerName, TWO);
}

TEST_F(CspContextTest, AFailingTokenIsLeftForTheNextAcquisition) {
    scripted::next("talvik_initDevice", {.status = -7});
    expectSuccess(acquisition("no such key"),
                  {"DEBUG CPAcquireContext", "DEBUG CPAcquireContext - dwFlags : 0", MONITOR,
                   "ERROR Init device failed for T1 : -7", "DEBUG CPAcquireContext - Container name : no such key",
                   "DEBUG Acquire Context :: Key List is empty"},
                  {INIT, DEVICES, INIT, initDevice("T1"), INIT, initDevice("T2"), DEVICES, keyList("T1"), keyList("T2"),
                   keyList("T1")});
    EXPECT_EQ(record().containerName, "no such key");
    EXPECT_TRUE(CPReleaseContext(context, 0));
    forgetSoFar();
    EXPECT_TRUE(acquisition(nullptr)());
    EXPECT_EQ(scripted::takeCalls(), Lines({INIT, DEVICES, INIT, initDevice("T1"), DEVICES, keyList("T1")}));
}

TEST_F(CspContextTest, AnAliasNamesItsTargetButResolvesByItself) {
    attachTokens({scripted::keyPair(0x11)});
    insertContainerAlias("mine", ONE);
    EXPECT_TRUE(acquisition("mine")());
    EXPECT_EQ(log.entries().back(), "DEBUG CPAcquireContext - resolved container mine -> " + ONE);
    EXPECT_EQ(record().containerName, ONE);
    EXPECT_EQ(record().deviceId, "T1");
}

TEST_F(CspContextTest, AnEmptyNameIsProvidedAllTheSame) {
    EXPECT_TRUE(acquisition("")());
    EXPECT_THAT(log.entries(), Contains("DEBUG CPAcquireContext - Container name : "));
    EXPECT_EQ(record().containerName, "");
}

// The last token is pulled between the enumeration and the resolution.
TEST_F(CspContextTest, ATokenThatVanishesLeavesNoDevice) {
    scripted::before("talvik_initDevice", [] { scripted::attach({}); });
    expectError(acquisition(nullptr), NTE_TOKEN_KEYSET_STORAGE_FULL, "ERROR No initialized device found");
    EXPECT_EQ(context, UNTOUCHED_HANDLE);
}

TEST_F(CspContextTest, ReleaseRefusesFlagsAndForeignHandles) {
    context = 0;
    const HCRYPTPROV held = acquire();
    expectRefusals(
        "CPReleaseContext",
        {{[&] { return CPReleaseContext(held, 1); }, NTE_BAD_FLAGS, "CPReleaseContext: invalid dwFlags=0x00000001"},
         {[&] { return CPReleaseContext(0, 0xABCDEF01); }, NTE_BAD_FLAGS,
          "CPReleaseContext: invalid dwFlags=0xABCDEF01"},
         {[&] { return CPReleaseContext(0, 0); }, NTE_BAD_UID, "CPReleaseContext: invalid or uninitialized context"}});
    EXPECT_TRUE(csp::contextOf(held));
    expectRefusals("CPReleaseContext", {{[&] { return CPReleaseContext(invalid, 0); }, NTE_BAD_UID,
                                         "CPReleaseContext: invalid or uninitialized context"}});
}

}  // namespace
