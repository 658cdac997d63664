// What applications ask the provider: what is on the token, whether a PIN is right, random bytes.
#include "e2e/objects.h"

namespace e2e {
namespace {

class ProviderParam : public Tokens {};

TEST_F(ProviderParam, ContainersAreThoseOfTheToken) {
    constexpr std::pair<std::uint32_t, DWORD> usages[] = {
        {TALVIK_USAGE_SIGN, AT_SIGNATURE}, {TALVIK_USAGE_EXCHANGE, AT_KEYEXCHANGE}, {TALVIK_USAGE_BOTH, AT_SIGNATURE}};
    std::vector<std::string> made, found;
    for (const auto& [usage, keySpec] : usages) {
        made.push_back(makeKeyPair(token(), TALVIK_KEY_RSA_1024, usage));
        const Context named = acquire(made.back());
        const Bytes told =
            delivered([&](BYTE* data, DWORD* size) { return CryptGetProvParam(named, PP_KEYSPEC, data, size, 0); });
        EXPECT_EQ(told, (Bytes{static_cast<unsigned char>(keySpec), 0, 0, 0}));
        EXPECT_TRUE(userKey(named, keySpec));
    }
    const Context context = acquire();
    char name[200] = {};
    DWORD room = sizeof name;
    for (DWORD flags = CRYPT_FIRST;
         CryptGetProvParam(context, PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &room, flags);
         flags = CRYPT_NEXT, room = sizeof name) {
        found.push_back(name);
    }
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
    EXPECT_EQ(found, made);
}

TEST_F(ProviderParam, PinRightWrongEmptyAndEndless) {
    const Context context = acquire();
    for (const DWORD parameter : {PP_SIGNATURE_PIN, PP_KEYEXCHANGE_PIN}) {
        for (const std::string& wrong : {std::string("9999"), std::string(), std::string(300, '1')}) {
            EXPECT_EQ(errorOf(givePin(context, wrong.c_str(), parameter)), NTE_KEYSET_ENTRY_BAD);
        }
        EXPECT_TRUE(givePin(context, pin, parameter));
    }
}

TEST_F(ProviderParam, RandomBytesFromTheTokenFromSoftwareAndWithoutAToken) {
    std::vector<Bytes> drawn;
    const auto draw = [&](const Context& context) {
        Bytes bytes(40, 0xCD);
        EXPECT_TRUE(CryptGenRandom(context, 32, bytes.data()));
        EXPECT_EQ(Bytes(bytes.begin() + 32, bytes.end()), Bytes(8, 0xCD));
        drawn.push_back(bytes);
    };
    const Context context = acquire();
    for (const DWORD hardware : {1, 0, 1}) {
        EXPECT_TRUE(CryptSetProvParam(context, PP_USE_HARDWARE_RNG, reinterpret_cast<const BYTE*>(&hardware), 0));
        draw(context);
    }
    change("detach", token());
    EXPECT_EQ(errorOf(CryptGenRandom(context, 32, Bytes(32).data())), NTE_PROVIDER_DLL_FAIL);
    draw(acquire("", CRYPT_VERIFYCONTEXT));
    std::ranges::sort(drawn);
    EXPECT_EQ(std::ranges::adjacent_find(drawn), drawn.end());
}

}  // namespace
}  // namespace e2e
