// That the guard works, what only it sees, and what the unit tests do not call: registration.
#include "soak/guarded_heap.h"

#include <windows.h>

#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>

#include "csp/key.h"
#include "ksp/key.h"
#include "token/aes_import.h"
#include "token/library_buffer.h"
#include "token/pin_dialog.h"
#include "token/secret_text.h"

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

// Whether an object's memory is given back without the secret that `field` of it has held.
template <class Object, class Field>
bool isWipedAtItsEnd(Field field) {
    const int before = guarded_heap::releasedSecrets();
    auto object = std::make_unique<Object>();
    guarded_heap::plantSecret(field(*object));
    object.reset();
    return guarded_heap::releasedSecrets() == before;
}

TEST(GuardedHeap, SecretsAreWipedWithWhatHoldsThem) {
    using namespace talvik;
    struct Careless {
        char text[guarded_heap::secretSize];
    };
    struct Text : SecretText {
        Text() : SecretText(std::string(guarded_heap::secretSize, ' ')) {}
    };
    struct Library : LibraryBuffer {
        Library() : LibraryBuffer(guarded_heap::secretSize) {}
    };
    EXPECT_FALSE(isWipedAtItsEnd<Careless>([](auto& object) { return object.text; })) << "nothing is seen";
    EXPECT_TRUE(isWipedAtItsEnd<csp::KEY_HANDLE>([](auto& key) { return key.aesKey; }));
    EXPECT_TRUE(isWipedAtItsEnd<ksp::KspKey>([](auto& key) { return key.symmetricKey; }));
    EXPECT_TRUE(isWipedAtItsEnd<AesRequest>([](auto& request) { return request.record.keyId; }));
    EXPECT_TRUE(isWipedAtItsEnd<PinAnswer>([](auto& answer) { return answer.pin; }));
    EXPECT_TRUE(isWipedAtItsEnd<Text>([](auto& text) { return const_cast<char*>(text.c_str()); }));
    EXPECT_TRUE(isWipedAtItsEnd<Library>([](auto& buffer) {
        unsigned char*& bytes = *buffer.bytesOut();
        *buffer.lengthOut() = guarded_heap::secretSize;
        return bytes = static_cast<unsigned char*>(std::malloc(guarded_heap::secretSize));
    }));
}

// Wine's bcrypt.dll keeps no configuration: the call is refused, with everything that it took returned.
TEST(GuardedHeap, RegistrationEndsCleanly) {
    for (int i = 0; i < 3; ++i) {
        DllRegisterServer();
        EXPECT_EQ(DllUnregisterServer(), S_OK);
    }
}

}  // namespace
