// Signatures and encryption, each checked with openssl.
#include "e2e_ksp/cng.h"

namespace e2e {
namespace {

constexpr const char* digests[] = {"sha1", "sha256", "sha384", "sha512"};
const std::string pss = " -pkeyopt rsa_padding_mode:pss -pkeyopt rsa_pss_saltlen:digest";

class CngCrypt : public Tokens {
  protected:
    CngCrypt() { EXPECT_EQ(givePin(provider), ERROR_SUCCESS); }
    const CngObject provider = openProvider();
};

TEST_F(CngCrypt, SignaturesOfEveryKeyVerifyWithOpenssl) {
    const struct {
        const wchar_t* algorithm;
        DWORD bits;
        std::size_t length;
    } rows[] = {{L"RSA", 1024, 128},    {L"RSA", 2048, 256},    {L"RSA", 3072, 384},    {L"RSA", 4096, 512},
                {L"ECDSA_P256", 0, 64}, {L"ECDSA_P384", 0, 96}, {L"ECDSA_P521", 0, 132}};
    for (const auto& row : rows) {
        const CngObject key = createKey(provider, row.algorithm, row.bits);
        const Bytes publicKey = publicKeyOf(key);
        using Paddings = std::vector<DWORD>;
        for (const DWORD padding : row.bits == 0 ? Paddings{0} : Paddings{BCRYPT_PAD_PKCS1, BCRYPT_PAD_PSS}) {
            for (const char* const algorithm : digests) {
                SCOPED_TRACE(std::string(algorithm) + " " + std::to_string(row.length) + " " + std::to_string(padding));
                Bytes digest = digestOf(pattern(1000), algorithm);
                const Bytes signature = sign(key, digest, padding);
                if (padding == BCRYPT_PAD_PSS && row.bits == 1024 && digest.size() == 64) {
                    EXPECT_EQ(status, NTE_INTERNAL_ERROR) << "digest and salt of 64 bytes have no room in 128";
                    continue;
                }
                EXPECT_EQ(signature.size(), row.length);
                EXPECT_TRUE(
                    opensslVerifies(publicKey, algorithm, digest, signature, padding == BCRYPT_PAD_PSS ? pss : ""));
                EXPECT_TRUE(verifies(key, digest, signature, padding));
                digest[0] ^= 1;
                EXPECT_FALSE(verifies(key, digest, signature, padding));
            }
        }
    }
}

TEST_F(CngCrypt, OpensslsSignaturesVerify) {
    const CngObject key = importKey(provider, BCRYPT_RSAPUBLIC_BLOB, blobOfNewKey());
    for (const char* const algorithm : digests) {
        Bytes digest = digestOf(pattern(77), algorithm);
        for (const bool usesPss : {false, true}) {
            run("pkeyutl -sign -inkey other.pem -in digest -out made -pkeyopt digest:" + std::string(algorithm) +
                (usesPss ? pss : ""));
            const DWORD padding = usesPss ? BCRYPT_PAD_PSS : BCRYPT_PAD_PKCS1;
            EXPECT_TRUE(verifies(key, digest, read("made"), padding)) << algorithm << usesPss;
            EXPECT_FALSE(verifies(key, digest, read("made"), padding ^ (BCRYPT_PAD_PSS | BCRYPT_PAD_PKCS1)));
        }
    }
}

// Both ways through openssl: CBC where the key takes a vector of a whole block, and ECB.
void checkAes(const CngObject& key, const Bytes& value) {
    const std::string bits = std::to_string(value.size() * 8);
    Bytes iv = pattern(16);
    const Bytes plaintext = pattern(1001);
    for (const bool ecb : {false, true}) {
        if (value.size() == 24 && !ecb) {
            continue;
        }
        SCOPED_TRACE(bits + (ecb ? " ECB" : " CBC"));
        const std::wstring mode = ecb ? L"ChainingModeECB" : L"ChainingModeCBC";
        ASSERT_EQ(NCryptSetProperty(key, L"ChainingMode", (BYTE*)mode.c_str(), 32, 0), ERROR_SUCCESS);
        if (!ecb) {
            ASSERT_EQ(NCryptSetProperty(key, L"IV", iv.data(), 16, 0), ERROR_SUCCESS);
        }
        const std::string cipher = "enc -aes-" + bits + (ecb ? "-ecb" : "-cbc -iv " + hex(iv)) + " -K " + hex(value);
        write("plaintext", plaintext);
        write("ciphertext", encrypt(key, plaintext, 0));
        run(cipher + " -d -in ciphertext -out decrypted");
        EXPECT_EQ(read("decrypted"), plaintext);
        run(cipher + " -in plaintext -out ciphertext");
        EXPECT_EQ(decrypt(key, read("ciphertext")), plaintext);
    }
}

TEST_F(CngCrypt, AesAgreesWithOpenssl) {
    for (const std::size_t length : {16u, 24u, 32u}) {
        checkAes(importKey(provider, BCRYPT_KEY_DATA_BLOB, keyData(pattern(length))), pattern(length));
    }
}

TEST_F(CngCrypt, WrappedAndEncryptedAesKeysComeIn) {
    Bytes kek = pattern(32);
    kek[0] ^= 1;
    importKey(provider, BCRYPT_KEY_DATA_BLOB, keyData(kek));
    const CngObject pair = createKey(provider, L"RSA", 2048, AT_KEYEXCHANGE);
    publicKeyOf(pair);
    for (const std::size_t length : {16u, 32u}) {
        const Bytes value = pattern(length);
        write("key", value);
        run("enc -aes-256-ecb -K " + hex(kek) + " -in key -out wrapped");
        checkAes(importKey(provider, BCRYPT_OPAQUE_KEY_BLOB, read("wrapped")), value);
        run("pkeyutl -encrypt -pubin -keyform DER -inkey public.der -in key -out encrypted");
        checkAes(importKey(provider, L"OpaqueTransport", read("encrypted"), pair), value);
    }
}

}  // namespace
}  // namespace e2e
