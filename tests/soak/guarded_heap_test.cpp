// That the guard works, and what the unit tests do not call: registration.
#include <windows.h>

#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>

extern "C" HRESULT WINAPI DllRegisterServer();
extern "C" HRESULT WINAPI DllUnregisterServer();

namespace {

bool isReadable(std::uintptr_t at) {
    MEMORY_BASIC_INFORMATION region{};
    VirtualQuery(reinterpret_cast<const void*>(at), &region, sizeof region);
    return region.State == MEM_COMMIT;
}

TEST(GuardedHeap, EndsBlocksAtAGuardAndTakesThemAway) {
    for (const std::size_t size : {std::size_t{1}, std::size_t{13}, std::size_t{4096 - 16}, std::size_t{4099}}) {
        auto block = std::make_unique<unsigned char[]>(size);
        const volatile auto begin = reinterpret_cast<std::uintptr_t>(block.get());
        EXPECT_TRUE(isReadable(begin + size - 1));
        EXPECT_FALSE(isReadable(begin + size)) << size;
        block.reset();
        EXPECT_FALSE(isReadable(begin)) << size;
        void* const allocated = std::malloc(size);
        EXPECT_FALSE(isReadable(reinterpret_cast<std::uintptr_t>(allocated) + size)) << size;
        std::free(allocated);
    }
}

// Wine's bcrypt.dll keeps no configuration: the call is refused, with everything that it took returned.
TEST(GuardedHeap, RegistrationEndsCleanly) {
    for (int i = 0; i < 3; ++i) {
        DllRegisterServer();
        EXPECT_EQ(DllUnregisterServer(), S_OK);
    }
}

}  // namespace
