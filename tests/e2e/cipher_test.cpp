// RSA encryption and decryption, with openssl at the other end.
#include "e2e/objects.h"

namespace e2e {
namespace {

constexpr struct {
    const char* name;
    DWORD flags;
    std::size_t overhead;
} paddings[] = {{"pkcs1", 0, 11}, {"oaep", CRYPT_OAEP, 42}};

std::string mode(const char* padding) {
    return std::string(" -pkeyopt rsa_padding_mode:") + padding;
}

class Cipher : public Tokens, public ::testing::WithParamInterface<std::uint32_t> {};

TEST_P(Cipher, ReachesTheTokensKeyFromOpensslAndFromCryptoApi) {
    const TalvikKeyPair pair = makeKeyPair(token(), GetParam(), TALVIK_USAGE_EXCHANGE);
    const std::size_t size = pair.modulusLength;
    ASSERT_EQ(size, GetParam() * 128);
    writePublicKey(pair);
    const Context context = acquire(containerOf(pair).c_str());
    presentPin(context);
    const Key key = userKey(context, AT_KEYEXCHANGE);
    ASSERT_TRUE(key);
    DWORD needed = 0;
    EXPECT_TRUE(CryptEncrypt(key, 0, TRUE, 0, nullptr, &needed, 0));
    EXPECT_EQ(needed, size);
    for (const auto& padding : paddings) {
        SCOPED_TRACE(padding.name);
        const std::size_t longest = size - padding.overhead;
        for (const std::size_t length : {std::size_t{1}, longest}) {
            const Bytes plaintext = pattern(length);
            write("plain", plaintext);
            run("pkeyutl -encrypt -pubin -inkey public.pem -in plain -out cipher" + mode(padding.name));
            EXPECT_EQ(decrypt(key, reversed(read("cipher"))), plaintext);
            EXPECT_TRUE(decrypt(key, read("cipher")).empty()) << "in the token's own order";
            const Bytes ciphertext = encrypt(key, plaintext, size, padding.flags);
            EXPECT_EQ(ciphertext.size(), size);
            EXPECT_EQ(decrypt(key, ciphertext), plaintext);
        }
        EXPECT_TRUE(encrypt(key, pattern(longest + 1), size, padding.flags).empty());
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
        EXPECT_TRUE(encrypt(key, pattern(1), size - 1, padding.flags).empty());
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    }
    for (const std::size_t length : {std::size_t{1}, size - 1, size + 1}) {
        EXPECT_TRUE(decrypt(key, pattern(length)).empty());
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    }
}

// An imported key says nothing of its size: the caller must know how much room its ciphertext needs.
TEST_P(Cipher, ImportedPublicKeyVerifiesAndEncrypts) {
    const std::size_t size = GetParam() * 128;
    run("genrsa -out key.pem " + std::to_string(size * 8));
    run("rsa -in key.pem -RSAPublicKey_out -outform DER -out public.der");
    const Bytes der = read("public.der");
    Bytes blob(1024);
    auto length = static_cast<DWORD>(blob.size());
    ASSERT_TRUE(CryptDecodeObject(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, der.data(), static_cast<DWORD>(der.size()),
                                  0, blob.data(), &length));
    blob.resize(length);
    const Context context = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    const Key key = import(context, blob);
    ASSERT_TRUE(key) << std::hex << GetLastError();
    DWORD needed = 1;
    EXPECT_TRUE(CryptEncrypt(key, 0, TRUE, 0, nullptr, &needed, 0));
    EXPECT_EQ(needed, 0u);
    for (const auto& padding : paddings) {
        for (const std::size_t taken : {std::size_t{1}, size - padding.overhead}) {
            const Bytes plaintext = pattern(taken);
            EXPECT_TRUE(encrypt(key, plaintext, size - 1, padding.flags).empty());
            EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
            write("cipher", reversed(encrypt(key, plaintext, size, padding.flags)));
            run("pkeyutl -decrypt -inkey key.pem -in cipher -out plain" + mode(padding.name));
            EXPECT_EQ(read("plain"), plaintext) << padding.name;
        }
    }
    write("data", pattern(1000));
    run("dgst -sha256 -sign key.pem -out signature data");
    const Bytes signature = reversed(read("signature"));
    const auto verifies = [&](const Bytes& data) {
        return CryptVerifySignatureA(digest(context, CALG_SHA_256, data), signature.data(), static_cast<DWORD>(size),
                                     key, nullptr, 0);
    };
    EXPECT_TRUE(verifies(pattern(1000)));
    EXPECT_FALSE(verifies(pattern(999)));
}

INSTANTIATE_TEST_SUITE_P(KeyType, Cipher, ::testing::Values(1, 2, 3, 4), ::testing::PrintToStringParamName());

}  // namespace
}  // namespace e2e
