// The provider over a device library that is not the virtual token: the same DLL file, another library beside it.
#include "e2e/surroundings.h"
#include "support/scripted_library.h"

namespace e2e {
namespace {

TEST(Interchange, RunsOverAnyLibraryWithTheContract) {
    scripted::reset();
    EXPECT_EQ(errorOf(acquire() != 0), NTE_TOKEN_KEYSET_STORAGE_FULL);

    scripted::attach({{"S1", {scripted::tokenInfo("S1", true), {scripted::keyPair(0xAB)}, {}, {}}}});
    const Bytes signature = pattern(256);
    scripted::always("talvik_finalHash", {0, Bytes(32, 0x5A)});
    scripted::always("talvik_signHash", {0, signature});
    const Context context = acquire();
    ASSERT_TRUE(context);
    EXPECT_EQ(sign(digest(context, CALG_SHA_256, bytesOf("x"))), reversed(signature));
    EXPECT_EQ(scripted::callCount("talvik_signHash"), 1);
}

}  // namespace
}  // namespace e2e
