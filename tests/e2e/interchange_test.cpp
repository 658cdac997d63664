// The provider over a device library that is not the virtual token: the same DLL file, another library beside it.
#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <gtest/gtest.h>

#include "support/scripted_library.h"

namespace {

TEST(Interchange, RunsOverAnyLibraryWithTheContract) {
    HCRYPTPROV context = 0;
    const auto acquire = [&] {
        return CryptAcquireContextA(&context, nullptr, "Talvik Cryptographic Provider CSP", PROV_RSA_FULL, 0);
    };
    scripted::reset();
    EXPECT_FALSE(acquire());
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_TOKEN_KEYSET_STORAGE_FULL));

    scripted::attach({{"S1", {scripted::tokenInfo("S1", true), {scripted::keyPair(0xAB)}, {}, {}}}});
    scripted::Bytes signature(256);
    for (std::size_t i = 0; i < signature.size(); ++i) {
        signature[i] = static_cast<unsigned char>(i);
    }
    scripted::always("talvik_finalHash", {0, scripted::Bytes(32, 0x5A)});
    scripted::always("talvik_signHash", {0, signature});

    ASSERT_TRUE(acquire());
    HCRYPTHASH hash = 0;
    ASSERT_TRUE(CryptCreateHash(context, CALG_SHA_256, 0, 0, &hash));
    BYTE signedBytes[256] = {};
    DWORD size = sizeof signedBytes;
    ASSERT_TRUE(CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signedBytes, &size)) << std::hex << GetLastError();
    std::reverse(signature.begin(), signature.end());
    EXPECT_EQ(scripted::Bytes(signedBytes, signedBytes + size), signature);
    EXPECT_EQ(scripted::callCount("talvik_signHash"), 1);
    CryptDestroyHash(hash);
    CryptReleaseContext(context, 0);
}

}  // namespace
