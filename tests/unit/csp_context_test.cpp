#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

class CspContextTest : public ProviderTest {
  protected:
    CspContextTest() {
        own("context", context, [](HCRYPTPROV made) { return CPReleaseContext(made, 0); });
        state = [this]() -> std::string {
            if (context == 0 || context == UNTOUCHED_HANDLE)
                return "";
            const csp::CspContext& record = *csp::contextOf(context);
            Facts facts;
            facts("device", record.deviceId)("container", record.containerName)("keyset", record.keysetType);
            for (const std::string& name : record.containerNames)
                facts("holds", name);
            return facts;
        };
    }
    BOOL acquisition(const char* container, DWORD flags = 0) {
        return CPAcquireContext(&context, container, flags, someTable());
    }

    HCRYPTPROV context = UNTOUCHED_HANDLE;
};

TEST_F(CspContextTest, SomeNeedNoToken) {
    scripted::attach({});
    showNulls("CPAcquireContext", CPAcquireContext, &context, nullptr, 0, someTable());
    SHOW(CPAcquireContext(nullptr, nullptr, CRYPT_DELETEKEYSET, nullptr));
    showEach<DWORD>("verifying only", {0x10000000, 0x20000000, 0x40000000, 0x80000000, 0xF0000000, 0xF0000008},
                    [&](DWORD flags) { return acquisition("name", flags); });
    showEach<DWORD>("deleting", {CRYPT_DELETEKEYSET, CRYPT_DELETEKEYSET | CRYPT_VERIFYCONTEXT, 0x7FFFFFFF},
                    [&](DWORD flags) {
                        context = UNTOUCHED_HANDLE;
                        return acquisition("name", flags);
                    });
    SHOW(acquisition(nullptr));
}

TEST_F(CspContextTest, TokensAreInitialisedOncePerProcess) {
    attachTokens({scripted::keyPair(0x11), scripted::keyPair(0x22)});
    SHOW(acquisition(nullptr));
    SHOW(acquisition(TWO.c_str(), CRYPT_NEWKEYSET | CRYPT_SILENT | CRYPT_MACHINE_KEYSET));
}

TEST_F(CspContextTest, AFailingTokenIsLeftForTheNextAcquisition) {
    scripted::always("talvik_init", {.status = 9});  // no matter
    scripted::next("talvik_initDevice", {.status = -7});
    SHOW(acquisition("no such\nERROR \x1B[2Jkey"));  // no line of its own, nothing that a terminal obeys
    show("an empty name is provided all the same", [&] { return acquisition(""); });
}

TEST_F(CspContextTest, AnAliasNamesItsTargetButResolvesByItself) {
    attachTokens({scripted::keyPair(0x11)});
    insertContainerAlias("mine", ONE);
    SHOW(acquisition("mine"));
}

// The last token is pulled between the enumeration and the resolution.
TEST_F(CspContextTest, ATokenThatVanishesLeavesNoDevice) {
    scripted::before("talvik_initDevice", [] { scripted::attach({}); });
    SHOW(acquisition(nullptr));
}

TEST_F(CspContextTest, ReleaseRefusesFlagsAndForeignHandles) {
    HCRYPTPROV held = 0;
    ASSERT_TRUE(CPAcquireContext(&held, nullptr, CRYPT_VERIFYCONTEXT, someTable()));
    SHOW(CPReleaseContext(held, 1));
    SHOW(CPReleaseContext(0, 0xABCDEF01));
    SHOW(CPReleaseContext(0, 0));
    SHOW(CPReleaseContext(invalid, 0));
    SHOW(CPReleaseContext(held, 0));
}

}  // namespace
