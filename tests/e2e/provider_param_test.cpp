// What applications ask the provider: who it is, what is on the token, random bytes.
#include <algorithm>

#include "e2e/objects.h"

namespace e2e {
namespace {

class ProviderParam : public Tokens {};

TEST_F(ProviderParam, ContainersAreThoseOfTheToken) {
    std::vector<std::string> made;
    for (const std::uint32_t usage : {TALVIK_USAGE_SIGN, TALVIK_USAGE_EXCHANGE, TALVIK_USAGE_BOTH}) {
        made.push_back(containerOf(makeKeyPair(token(), TALVIK_KEY_RSA_1024, usage)));
    }
    const Context context = acquire();
    std::vector<std::string> found;
    char name[200] = {};
    DWORD room = sizeof name;
    for (DWORD flags = CRYPT_FIRST;
         CryptGetProvParam(context, PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &room, flags);
         flags = CRYPT_NEXT, room = sizeof name) {
        found.push_back(name);
    }
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
    EXPECT_EQ(found, made);
    const DWORD specs[] = {AT_SIGNATURE, AT_KEYEXCHANGE, AT_SIGNATURE};
    for (std::size_t i = 0; i < made.size(); ++i) {
        const Context named = acquire(made[i].c_str());
        DWORD spec = 0, size = sizeof spec;
        EXPECT_TRUE(CryptGetProvParam(named, PP_KEYSPEC, reinterpret_cast<BYTE*>(&spec), &size, 0));
        EXPECT_EQ(spec, specs[i]);
        EXPECT_TRUE(userKey(named, spec));
    }
}

TEST_F(ProviderParam, PinRightWrongEmptyAndEndless) {
    const Context context = acquire();
    const auto present = [&](DWORD parameter, const std::string& text) {
        return CryptSetProvParam(context, parameter, reinterpret_cast<const BYTE*>(text.c_str()), 0);
    };
    for (const DWORD parameter : {PP_SIGNATURE_PIN, PP_KEYEXCHANGE_PIN}) {
        for (const std::string& wrong : {std::string("9999"), std::string(), std::string(300, '1')}) {
            EXPECT_FALSE(present(parameter, wrong));
            EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_KEYSET_ENTRY_BAD));
        }
        EXPECT_TRUE(present(parameter, pin));
    }
    EXPECT_FALSE(present(PP_ADMIN_PIN, "12345678"));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
}

TEST_F(ProviderParam, RandomBytesFromTheTokenFromSoftwareAndWithoutAToken) {
    std::vector<Bytes> drawn;
    const auto draw = [&](const Context& context) {
        Bytes bytes(40, 0xCD);
        EXPECT_TRUE(CryptGenRandom(context, 32, bytes.data()));
        EXPECT_TRUE(std::all_of(bytes.begin() + 32, bytes.end(), [](unsigned char byte) { return byte == 0xCD; }));
        drawn.push_back(bytes);
    };
    const Context context = acquire();
    for (const DWORD hardware : {1, 0, 1}) {
        EXPECT_TRUE(CryptSetProvParam(context, PP_USE_HARDWARE_RNG, reinterpret_cast<const BYTE*>(&hardware), 0));
        draw(context);
    }
    change("detach", token());
    EXPECT_FALSE(CryptGenRandom(context, 32, Bytes(32).data()));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    draw(acquire(nullptr, CRYPT_VERIFYCONTEXT));
    std::sort(drawn.begin(), drawn.end());
    EXPECT_EQ(std::adjacent_find(drawn.begin(), drawn.end()), drawn.end());
}

}  // namespace
}  // namespace e2e
