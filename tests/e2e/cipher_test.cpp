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

class Cipher : public Tokens, public ::testing::WithParamInterface<std::uint32_t> {
  protected:
    // In as much room as the key needs; with one byte less it is refused.
    Bytes encrypted(const Key& key, const Bytes& plaintext, DWORD flags) {
        EXPECT_TRUE(encrypt(key, plaintext, size - 1, flags).empty());
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
        return encrypt(key, plaintext, size, flags);
    }
    const std::size_t size = GetParam() * 128;
};

TEST_P(Cipher, ReachesTheTokensKeyFromOpensslAndFromCryptoApi) {
    const Context context = acquire(makeKeyPair(token(), GetParam(), TALVIK_USAGE_EXCHANGE));
    givePin(context);
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
            run("pkeyutl -encrypt -pubin -keyform DER -inkey public.der -in plain -out cipher" + mode(padding.name));
            EXPECT_EQ(decrypt(key, reversed(read("cipher"))), plaintext);
            EXPECT_TRUE(decrypt(key, read("cipher")).empty()) << "in the token's own order";
            EXPECT_EQ(decrypt(key, encrypted(key, plaintext, padding.flags)), plaintext);
        }
        EXPECT_TRUE(encrypt(key, pattern(longest + 1), size, padding.flags).empty());
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    }
    for (const std::size_t length : {std::size_t{1}, size - 1, size + 1}) {
        EXPECT_TRUE(decrypt(key, pattern(length)).empty());
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    }
}

// An imported key says nothing of its size: the caller must know how much room its ciphertext needs.
TEST_P(Cipher, ImportedPublicKeyVerifiesAndEncrypts) {
    run("genrsa -out key.pem " + std::to_string(size * 8));
    run("rsa -in key.pem -RSAPublicKey_out -outform DER -out public.der");
    const Bytes der = read("public.der");
    const Context context = acquire("", CRYPT_VERIFYCONTEXT);
    const Key key = import(context, delivered([&](BYTE* data, DWORD* length) {
                               return CryptDecodeObject(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, der.data(),
                                                        static_cast<DWORD>(der.size()), 0, data, length);
                           }));
    ASSERT_TRUE(key) << std::hex << GetLastError();
    DWORD needed = 1;
    EXPECT_TRUE(CryptEncrypt(key, 0, TRUE, 0, nullptr, &needed, 0));
    EXPECT_EQ(needed, 0u);
    for (const auto& padding : paddings) {
        for (const std::size_t taken : {std::size_t{1}, size - padding.overhead}) {
            const Bytes plaintext = pattern(taken);
            write("cipher", reversed(encrypted(key, plaintext, padding.flags)));
            run("pkeyutl -decrypt -inkey key.pem -in cipher -out plain" + mode(padding.name));
            EXPECT_EQ(read("plain"), plaintext) << padding.name;
        }
    }
    write("data", pattern(1000));
    run("dgst -sha256 -sign key.pem -out signature data");
    const Bytes signature = reversed(read("signature"));
    EXPECT_TRUE(verifies(digest(context, CALG_SHA_256, pattern(1000)), signature, key));
    EXPECT_FALSE(verifies(digest(context, CALG_SHA_256, pattern(999)), signature, key));
}

INSTANTIATE_TEST_SUITE_P(KeyType, Cipher, ::testing::Values(1, 2, 3, 4), ::testing::PrintToStringParamName());

}  // namespace
}  // namespace e2e
