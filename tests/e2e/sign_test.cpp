// Signatures, checked with openssl.
#include <algorithm>

#include "e2e/surroundings.h"
#include "support/dialog_robot.h"

namespace e2e {
namespace {

class Sign : public Tokens {};

TEST_F(Sign, EveryDigestVerifiesWithOpensslAndWithTheProvider) {
    DialogRobot robot;
    robot.enters(pin);
    const Context context = acquire();
    const Key key = generate(context);
    ASSERT_TRUE(key);
    const Bytes publicKey = e2e::publicKey(context);
    const Bytes data = pattern(5000);

    constexpr std::pair<ALG_ID, const char*> digests[] = {
        {CALG_SHA1, "-sha1"}, {CALG_SHA_256, "-sha256"}, {CALG_SHA_384, "-sha384"}, {CALG_SHA_512, "-sha512"}};
    for (const auto& [algorithm, option] : digests) {
        Bytes signature = sign(digest(context, algorithm, data));
        ASSERT_EQ(signature.size(), 256u) << option;
        EXPECT_TRUE(opensslAccepts(publicKey, option, data, signature)) << option;
        EXPECT_FALSE(opensslAccepts(publicKey, option, pattern(5001), signature)) << option;

        const auto size = static_cast<DWORD>(signature.size());
        EXPECT_TRUE(CryptVerifySignatureA(digest(context, algorithm, data), signature.data(), size, key, nullptr, 0));
        signature[7] ^= 1;
        EXPECT_FALSE(CryptVerifySignatureA(digest(context, algorithm, data), signature.data(), size, key, nullptr, 0));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_SIGNATURE)) << option;
    }
    EXPECT_EQ(robot.finish(), std::vector<std::string>{"PIN"}) << "one PIN for key and signatures";
}

TEST_F(Sign, DigestMadeElsewhereIsSigned) {
    DialogRobot robot;
    robot.enters(pin);
    const Context context = acquire();
    ASSERT_TRUE(generate(context));
    write("data", bytesOf("made elsewhere"));
    ASSERT_EQ(openssl("dgst -sha256 -binary -out digest data").exitCode, 0);
    Hash hash;
    ASSERT_TRUE(CryptCreateHash(context, CALG_SHA_256, 0, 0, hash.put()));
    ASSERT_TRUE(CryptSetHashParam(hash, HP_HASHVAL, read("digest").data(), 0));
    EXPECT_TRUE(opensslAccepts(publicKey(context), "-sha256", bytesOf("made elsewhere"), sign(hash)));
}

class OpensslSignature : public Tokens, public ::testing::WithParamInterface<int> {};

TEST_P(OpensslSignature, IsVerifiedWithAnImportedPublicKey) {
    const std::string bits = std::to_string(GetParam());
    const Bytes data = bytesOf("signed by openssl");
    write("data", data);
    ASSERT_EQ(openssl("genrsa -out key.pem " + bits).exitCode, 0);
    ASSERT_EQ(openssl("rsa -in key.pem -RSAPublicKey_out -outform DER -out public.der").exitCode, 0);
    ASSERT_EQ(openssl("dgst -sha256 -sign key.pem -out signature data").exitCode, 0);

    const Bytes der = read("public.der");
    BYTE blob[1024];
    DWORD size = sizeof blob;
    ASSERT_TRUE(CryptDecodeObject(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, der.data(), static_cast<DWORD>(der.size()),
                                  0, blob, &size));
    const Context context = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    Key key;
    ASSERT_TRUE(CryptImportKey(context, blob, size, 0, 0, key.put())) << std::hex << GetLastError();

    Bytes signature = read("signature");
    std::reverse(signature.begin(), signature.end());
    const auto length = static_cast<DWORD>(signature.size());
    EXPECT_TRUE(CryptVerifySignatureA(digest(context, CALG_SHA_256, data), signature.data(), length, key, nullptr, 0));
    EXPECT_FALSE(CryptVerifySignatureA(digest(context, CALG_SHA_256, der), signature.data(), length, key, nullptr, 0));
}

INSTANTIATE_TEST_SUITE_P(Bits, OpensslSignature, ::testing::Values(1024, 2048, 3072, 4096),
                         ::testing::PrintToStringParamName());

TEST_F(Sign, TwoProcessesOnOneToken) {
    {
        DialogRobot robot;
        robot.enters(pin);
        ASSERT_TRUE(generate(acquire()));
    }
    const std::string names[] = {"first", "second"};
    Role first("sign", names[0]);
    Role second("sign", names[1]);
    EXPECT_EQ(first.wait(), 0u);
    EXPECT_EQ(second.wait(), 0u);
    const Bytes key = publicKey(acquire());
    for (const std::string& name : names) {
        EXPECT_TRUE(opensslAccepts(key, "-sha256", bytesOf(name), read("signature-" + name)));
    }
}

}  // namespace
}  // namespace e2e
