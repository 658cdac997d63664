#include <stdexcept>

#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

const std::string INIT_ONE = "talvik_initDevice(\"T1\", false, null)",
                  INIT_TWO = "talvik_initDevice(\"T2\", false, null)";
const std::string SECOND_LIST = "talvik_getKeyPairList(\"T2\", null)";

// What every acquisition that needs a token begins with.
Lines head(DWORD flags = 0) {
    return {"DEBUG CPAcquireContext", "DEBUG CPAcquireContext - dwFlags : " + number(flags), MONITOR};
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
    const auto refused = refusalsOf("CPAcquireContext", CPAcquireContext);
    const std::string text = "CPAcquireContext: invalid parameter - phProv=";
    refused(ERROR_INVALID_PARAMETER, text + "0 pVTable=" + number(static_cast<const void*>(someTable())), nullptr,
            nullptr, 0, someTable());
    refused(ERROR_INVALID_PARAMETER, text + number(&context) + " pVTable=0", &context, nullptr, CRYPT_DELETEKEYSET,
            nullptr);
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
        EXPECT_EQ(std::tuple(record().deviceId, record().containerName, record().keysetType),
                  std::tuple("", "", DWORD{CRYPT_USER_KEYSET}));
        EXPECT_THAT(record().containerNames, IsEmpty());
        expectSuccess([&] { return CPReleaseContext(context, 0); }, {"DEBUG CPReleaseContext"});
    }
    context = 0;
}

TEST_F(CspContextTest, WithoutATokenThereIsNoContext) {
    scripted::attach({});
    expectFailure(acquisition(nullptr), NTE_TOKEN_KEYSET_STORAGE_FULL, head() + "ERROR Valid token not connected",
                  {INIT, DEVICES});
    EXPECT_EQ(context, UNTOUCHED_HANDLE);
}

TEST_F(CspContextTest, TokensAreInitialisedOncePerProcess) {
    attachTokens({scripted::keyPair(0x11), scripted::keyPair(0x22)});
    const Lines listed = {"DEBUG " + ONE, "DEBUG " + TWO};
    expectSuccess(acquisition(nullptr), head() + "DEBUG CPAcquireContext - Container name not provided" + listed,
                  {INIT, DEVICES, INIT, INIT_ONE, INIT, INIT_TWO, DEVICES, KEY_LIST});
    EXPECT_EQ(std::tuple(record().deviceId, record().containerName, record().keysetType),
              std::tuple("T1", "", DWORD{CRYPT_USER_KEYSET}));
    EXPECT_EQ(record().containerNames, Lines({ONE, TWO}));
    EXPECT_TRUE(CPReleaseContext(context, 0));

    expectSuccess(acquisition(TWO.c_str(), CRYPT_NEWKEYSET | CRYPT_SILENT | CRYPT_MACHINE_KEYSET),
                  head(104) + ("DEBUG CPAcquireContext - Container name : " + TWO) + listed,
                  {INIT, DEVICES, DEVICES, KEY_LIST, KEY_LIST});
    EXPECT_EQ(record().containerName, TWO);
}

TEST_F(CspContextTest, AFailingTokenIsLeftForTheNextAcquisition) {
    scripted::always("talvik_init", {.status = 9});  // no matter
    scripted::next("talvik_initDevice", {.status = -7});
    expectSuccess(acquisition("no such\nERROR \x1B[2Jkey"),  // no line of its own, nothing that a terminal obeys
                  head() + Lines{"ERROR Init device failed for T1 : -7",
                                 "DEBUG CPAcquireContext - Container name : no such\\x0AERROR \\x1B[2Jkey",
                                 "DEBUG Acquire Context :: Key List is empty"},
                  {INIT, DEVICES, INIT, INIT_ONE, INIT, INIT_TWO, DEVICES, KEY_LIST, SECOND_LIST, KEY_LIST});
    EXPECT_EQ(record().containerName, "no such\nERROR \x1B[2Jkey");
    EXPECT_TRUE(CPReleaseContext(context, 0));
    // An empty name is provided all the same.
    expectSuccess(
        acquisition(""),
        head() + Lines{"DEBUG CPAcquireContext - Container name : ", "DEBUG Acquire Context :: Key List is empty"},
        {INIT, DEVICES, INIT, INIT_ONE, DEVICES, KEY_LIST});
    EXPECT_EQ(record().containerName, "");
}

TEST_F(CspContextTest, AnAliasNamesItsTargetButResolvesByItself) {
    attachTokens({scripted::keyPair(0x11)});
    insertContainerAlias("mine", ONE);
    EXPECT_TRUE(acquisition("mine")());
    EXPECT_EQ(log.entries().back(), "DEBUG CPAcquireContext - resolved container mine -> " + ONE);
    EXPECT_EQ(record().containerName, ONE);
    EXPECT_EQ(record().deviceId, "T1");
}

// The last token is pulled between the enumeration and the resolution.
TEST_F(CspContextTest, ATokenThatVanishesLeavesNoDevice) {
    scripted::before("talvik_initDevice", [] { scripted::attach({}); });
    expectError(acquisition(nullptr), NTE_TOKEN_KEYSET_STORAGE_FULL, "ERROR No initialized device found");
    EXPECT_EQ(context, UNTOUCHED_HANDLE);
}

TEST_F(CspContextTest, ReleaseRefusesFlagsAndForeignHandles) {
    const HCRYPTPROV held = acquire();
    const auto refused = refusalsOf("CPReleaseContext", CPReleaseContext);
    const std::string context = "CPReleaseContext: invalid or uninitialized context";
    refused(NTE_BAD_FLAGS, "CPReleaseContext: invalid dwFlags=0x00000001", held, 1);
    refused(NTE_BAD_FLAGS, "CPReleaseContext: invalid dwFlags=0xABCDEF01", 0, 0xABCDEF01);
    refused(NTE_BAD_UID, context, 0, 0);
    refused(NTE_BAD_UID, context, invalid, 0);
    EXPECT_TRUE(csp::contextOf(held));
}

}  // namespace
