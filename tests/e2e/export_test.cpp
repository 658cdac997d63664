// The exported public key, outside the system's cryptography.
#include "e2e/objects.h"

namespace e2e {
namespace {

class Export : public Tokens {};

TEST_F(Export, OpensslVerifiesWithItWhatTheTokenSigned) {
    const Context context = acquire();
    presentPin(context);
    const Key key = generate(context);
    ASSERT_TRUE(key);
    const Bytes blob = exported(key);
    ASSERT_EQ(blob.size(), 276u);
    writePem(blob, "public.pem");
    write("data", pattern(1000));
    write("signature", reversed(sign(digest(context, CALG_SHA_256, pattern(1000)))));
    run("dgst -sha256 -verify public.pem -signature signature data");

    Bytes small(blob.size());
    for (const std::size_t room : {std::size_t{0}, blob.size() - 1}) {
        auto size = static_cast<DWORD>(room);
        EXPECT_FALSE(CryptExportKey(key, 0, PUBLICKEYBLOB, 0, small.data(), &size));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
        EXPECT_EQ(size, blob.size());
        EXPECT_EQ(small, Bytes(blob.size()));
    }
}

TEST_F(Export, NothingPrivateAndNoOtherSize) {
    const TalvikKeyPair large = makeKeyPair(token(), TALVIK_KEY_RSA_3072, TALVIK_USAGE_BOTH);
    const Context context = acquire(containerOf(large).c_str());
    const Key key = userKey(context);
    ASSERT_TRUE(key);
    DWORD size = 0;
    for (const auto& [type, error] : {std::pair<DWORD, long>{PUBLICKEYBLOB, NTE_BAD_KEY},
                                      {PRIVATEKEYBLOB, ERROR_ACCESS_DENIED},
                                      {SIMPLEBLOB, NTE_BAD_TYPE},
                                      {OPAQUEKEYBLOB, NTE_BAD_TYPE}}) {
        EXPECT_FALSE(CryptExportKey(key, 0, type, 0, nullptr, &size));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(error)) << type;
    }
}

}  // namespace
}  // namespace e2e
