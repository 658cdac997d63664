// What AES and RSA refuse, threads that share a key, and the keys that unwrap others. That openssl agrees with all of
// it is tested through the provider.
#include <thread>

#include "gcrypt_objects.h"
#include "rsa_padding.h"
#include "virtual_token/fixture.h"

namespace talvik_test {
namespace {

TEST(AesRefusals, KeysVectorsAndPadding) {
    const Bytes text = pattern(20);
    const struct {
        EncryptionType type;
        std::size_t keyLength, ivLength;
        int status;
    } rows[] = {
        {EncryptionType::Aes128Cbc, 16, 0, BadInitialVector},  // decryption would take it for ECB
        {EncryptionType::Aes128Cbc, 16, 8, BadInitialVector},  {EncryptionType::Aes256Cbc, 24, 8, BadInitialVector},
        {EncryptionType::Aes128Ecb, 16, 16, BadInitialVector}, {EncryptionType::Aes128Cbc, 24, 16, BadKey},
        {EncryptionType::Aes256Cbc, 16, 16, BadKey},           {EncryptionType::Aes256Cbc, 20, 16, BadKey},
        {EncryptionType::Rsa2048, 16, 16, Unsupported},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(encryptAes(row.type, pattern(row.keyLength), text, pattern(row.ivLength)).status, row.status)
            << static_cast<int>(row.type) << " " << row.keyLength << " " << row.ivLength;
    }
    EXPECT_EQ(decryptAes(pattern(16), encryptAes(EncryptionType::Aes128Ecb, pattern(16), {}, {}).bytes, {}).status, 0);
    const Bytes sealed = encryptAes(EncryptionType::Aes128Cbc, pattern(16), text, pattern(16)).bytes;
    EXPECT_EQ(decryptAes(pattern(16), Bytes(sealed.begin(), sealed.begin() + 16), pattern(16)).status, BadData);
    EXPECT_EQ(decryptAes(pattern(16), Bytes(sealed.begin(), sealed.end() - 1), pattern(16)).status, BadData);
    EXPECT_EQ(decryptAes(pattern(16), {}, pattern(16)).status, InvalidArgument);
    EXPECT_EQ(decryptAes(pattern(16), sealed, pattern(8)).status, BadInitialVector);
    EXPECT_EQ(decryptAes(pattern(20), sealed, pattern(16)).status, BadKey);
}

TEST_F(VirtualTokenTest, RsaDataMustFitItsKey) {
    const Key key = generate(TALVIK_KEY_RSA_1024, TALVIK_USAGE_EXCHANGE);
    ASSERT_EQ(key.status, 0);
    writeRsaKey(scratch(), "key", key.publicKey());
    for (const auto& [padding, longest] : {std::pair{PaddingMode::Pkcs1, 117u}, {PaddingMode::Oaep, 86u}}) {
        EXPECT_EQ(decrypt(key, encrypt(read("key.der"), pattern(longest), padding).bytes).bytes, pattern(longest));
        EXPECT_EQ(encrypt(read("key.der"), pattern(longest + 1), padding).status, BadData);
    }
    EXPECT_EQ(decrypt(key, Bytes(128, 1)).status, BadData);     // no padding of either kind
    EXPECT_EQ(decrypt(key, Bytes(128, 0xFF)).status, BadData);  // not below the modulus
    EXPECT_EQ(decrypt(key, Bytes(127, 1)).status, BadData);     // wrong length
    EXPECT_EQ(sign(key, pattern(32)).status, UsageForbidden);
}

TEST_F(VirtualTokenTest, ThreadsUseOneKeyWithEitherPadding) {
    const Key key = generate(TALVIK_KEY_RSA_1024, TALVIK_USAGE_SIGN);
    writeRsaKey(scratch(), "key", key.publicKey());
    const Bytes publicKey = read("key.der");
    EXPECT_EQ(sign(key, pattern(64), true).status, Unsupported) << "digest and salt have no room";
    std::vector<std::jthread> threads;
    for (const std::size_t length : {32u, 48u, 32u, 48u}) {
        threads.emplace_back([&, digest = pattern(length)] {
            const Bytes expected = sign(key, digest).bytes;
            for (int i = 0; i < 50; ++i) {
                EXPECT_EQ(sign(key, digest).bytes, expected);
                EXPECT_EQ(verify(publicKey, digest, sign(key, digest, true).bytes, true), 0);
            }
        });
    }
}

// Blocks of openssl's, and ours damaged where nothing but the check in question tells.
TEST(RsaPadding, IsCheckedToItsLastByte) {
    run("genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024 -out private.pem");
    write("text", pattern(5));
    const auto blockOf = [](const std::string& options) {
        run("pkeyutl -encrypt -inkey private.pem -in text -out sealed -pkeyopt rsa_padding_mode:oaep" + options);
        run("pkeyutl -decrypt -inkey private.pem -in sealed -out block -pkeyopt rsa_padding_mode:none");
        return read("block");
    };
    Bytes oaep = blockOf("");
    EXPECT_TRUE(virtual_token::removeOaep(oaep));
    oaep[0] = 1;
    EXPECT_FALSE(virtual_token::removeOaep(oaep));
    EXPECT_FALSE(virtual_token::removeOaep(blockOf(" -pkeyopt rsa_oaep_label:00")));
    for (const std::size_t padding : {7, 8}) {
        Bytes pkcs1(128, 0xFF);
        pkcs1[0] = pkcs1[2 + padding] = 0;
        pkcs1[1] = 2;
        EXPECT_EQ(virtual_token::removePkcs1(pkcs1).has_value(), padding == 8);
    }
}

TEST(Sealing, NeverRepeats) {
    const auto sealed = [] { return virtual_token::seal(pattern(32), pattern(32), "context"); };
    EXPECT_NE(sealed(), sealed());
}

// Malformed and dangerous public keys are refused before any arithmetic.
TEST_F(VirtualTokenTest, RsaPublicKeysAreChecked) {
    run("genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out private.pem");
    run("pkey -in private.pem -pubout -outform DER -out key.der");
    const Bytes good = read("key.der");
    constexpr std::size_t modulusStart = 33;  // after the headers and the guard byte
    Bytes evenModulus = good, zeroExponent = good;
    evenModulus[modulusStart + 255] &= 0xFE;
    std::fill(zeroExponent.end() - 3, zeroExponent.end(), 0);
    const Bytes bad[] = {{}, {0x30}, evenModulus, zeroExponent, Bytes(good.begin(), good.end() - 1), pattern(294)};
    EXPECT_EQ(encrypt(good, pattern(5), PaddingMode::Pkcs1).status, 0);
    EXPECT_EQ(verify(good, pattern(32), pattern(256)), BadSignature);
    for (const Bytes& key : bad) {
        EXPECT_EQ(encrypt(key, pattern(5), PaddingMode::Pkcs1).status, BadKey);
        EXPECT_EQ(verify(key, pattern(32), pattern(256)), BadKey);
    }
    for (std::size_t i = 0; i < good.size(); ++i) {  // any damaged byte: refused or used, never a crash
        Bytes damaged = good;
        damaged[i] ^= 0xFF;
        encrypt(damaged, pattern(5), PaddingMode::Pkcs1);
    }
}

// The key-encryption keys of a token are tried in turn: only the right one may accept.
TEST_F(VirtualTokenTest, AesKeysUnwrapKeys) {
    constexpr int keyCount = 20;
    const auto value = [](int i) {
        Bytes key = pattern(16);
        key[0] = static_cast<unsigned char>(i);
        return key;
    };
    for (int i = 0; i < keyCount; ++i) {
        EXPECT_EQ(importAes(value(i), TALVIK_KEY_AES_128).keyId[0], i);  // still the value
    }
    const std::vector<TalvikSymmetricKey> keys = talvik_getAesKeyList(device, nullptr);
    ASSERT_EQ(keys.size(), static_cast<std::size_t>(keyCount));
    for (int wrapping = 0; wrapping < keyCount; ++wrapping) {
        const Bytes wrapped = encryptAes(EncryptionType::Aes128Ecb, value(wrapping), pattern(32), {}).bytes;
        for (int tried = 0; tried < keyCount; ++tried) {
            const Result opened = unwrap(keys[static_cast<std::size_t>(tried)].keyId, wrapped);
            EXPECT_EQ(opened.status, tried == wrapping ? 0 : BadData);
            EXPECT_EQ(opened.bytes, tried == wrapping ? pattern(32) : Bytes());
        }
    }
}

}  // namespace
}  // namespace talvik_test
