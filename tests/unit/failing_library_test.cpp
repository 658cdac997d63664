#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

// Whatever operation fails, and whenever: each call ends as FALSE or TRUE, nothing is left behind that the next run
// stumbles over.
class FailingLibrary : public ProviderTest {
  protected:
    const Bytes digest = bytes(32, 0x40);
    const Bytes signatureOfToken = bytes(256, 0x80);
};

TEST_F(FailingLibrary, AnyOperationMayFailAtAnyMoment) {
    const char* const operations[] = {"talvik_init",     "talvik_initDevice",          "talvik_validatePassword",
                                      "talvik_initHash", "talvik_updateHash",          "talvik_finalHash",
                                      "talvik_signHash", "talvik_verifySignatureHash", "talvik_generateKeyPair"};
    scripted::generates(scripted::keyPair(0x22));
    const auto story = [&] {
        HCRYPTPROV context = 0;
        HCRYPTHASH own = 0;
        HCRYPTKEY key = 0;
        Bytes buffer(600);
        DWORD length = 600;
        std::vector<BOOL> results = {CPAcquireContext(&context, nullptr, 0, someTable()),
                                     CPGenKey(context, CALG_RSA_SIGN, 0, &key),
                                     CPCreateHash(context, CALG_SHA_256, 0, 0, &own)};
        if (own) {
            results.push_back(CPHashData(context, own, digest.data(), 32, 0));
            results.push_back(CPSignHash(context, own, 2, nullptr, 0, buffer.data(), &length));
            results.push_back(CPVerifySignature(context, own, buffer.data(), 256, key, nullptr, 0));
            results.push_back(CPDestroyHash(context, own));
        }
        if (key)
            results.push_back(CPDestroyKey(context, key));
        results.push_back(CPReleaseContext(context, 0));
        return results;
    };
    attachTokens({scripted::keyPair(0x22)});
    scripted::always("talvik_finalHash", {.output = digest});
    scripted::always("talvik_signHash", {.output = signatureOfToken});
    setDevicePassword(DEVICE, "1234");
    EXPECT_THAT(story(), Each(TRUE));
    for (const char* operation : operations)
        for (const int status : {1, -1, 48, INT_MAX, INT_MIN}) {
            SCOPED_TRACE(std::string(operation) + " " + number(status));
            scripted::always(operation, {.status = status});
            const auto results = story();
            EXPECT_TRUE(results.front() && results.back());
            scripted::always(operation, {.output = signatureOfToken});
            scripted::always("talvik_finalHash", {.output = digest});
        }
    EXPECT_THAT(story(), AllOf(SizeIs(9), Each(TRUE)));
}

}  // namespace
