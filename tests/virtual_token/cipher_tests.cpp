// What AES and RSA encryption refuse, and the keys that unwrap others. That both agree with openssl is tested through
// the provider.
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

Result encrypt(const Bytes& publicKey, const Bytes& plaintext, PaddingMode padding) {
    Result result{0, Bytes(1024)};
    int length = static_cast<int>(result.bytes.size());
    result.status =
        talvik_encrypt(EncryptionType::Rsa2048, padding, plaintext.data(), static_cast<int>(plaintext.size()),
                       result.bytes.data(), &length, publicKey.data(), static_cast<int>(publicKey.size()), nullptr);
    result.bytes.resize(result.status == 0 ? static_cast<std::size_t>(length) : 0);
    return result;
}

TEST_F(VirtualTokenTest, RsaDataMustFitItsKey) {
    const Key key = generate(TALVIK_KEY_RSA_1024, TALVIK_USAGE_EXCHANGE);
    ASSERT_EQ(key.status, 0);
    const Bytes publicKey = publicKeyFile(key);
    for (const auto& [padding, longest] : {std::pair{PaddingMode::Pkcs1, 117u}, {PaddingMode::Oaep, 86u}}) {
        EXPECT_EQ(decrypt(key, encrypt(publicKey, pattern(longest), padding).bytes).bytes, pattern(longest));
        EXPECT_EQ(encrypt(publicKey, pattern(longest + 1), padding).status, BadData);
    }
    EXPECT_EQ(decrypt(key, Bytes(128, 1)).status, BadData);     // no padding of either kind
    EXPECT_EQ(decrypt(key, Bytes(128, 0xFF)).status, BadData);  // not below the modulus
    EXPECT_EQ(decrypt(key, Bytes(127, 1)).status, BadData);     // wrong length
    EXPECT_EQ(sign(key, pattern(32)).status, UsageForbidden);
}

// Malformed and dangerous public keys are refused before any arithmetic.
TEST_F(VirtualTokenTest, RsaPublicKeysAreChecked) {
    openssl(scratch, "genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out private.pem");
    openssl(scratch, "pkey -in private.pem -pubout -outform DER -out key.der");
    const Bytes good = scratch.read("key.der");
    constexpr std::size_t modulusStart = 33;  // after the headers and the guard byte
    Bytes evenModulus = good, zeroExponent = good;
    evenModulus[modulusStart + 255] &= 0xFE;
    std::fill(zeroExponent.end() - 3, zeroExponent.end(), 0);
    const Bytes bad[] = {{}, {0x30}, evenModulus, zeroExponent, Bytes(good.begin(), good.end() - 1), pattern(294)};
    EXPECT_EQ(encrypt(good, pattern(5), PaddingMode::Pkcs1).status, 0);
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
        TalvikSymmetricKey record{};
        std::ranges::copy(value(i), record.keyId);
        record.keyIdLength = 16;
        record.keyType = TALVIK_KEY_AES_128;
        ASSERT_EQ(talvik_importAesKey(device, pin, &record, nullptr), 0);
        EXPECT_EQ(record.keyId[0], i);  // still the value
    }
    const std::vector<TalvikSymmetricKey> keys = talvik_getAesKeyList(device, nullptr);
    ASSERT_EQ(keys.size(), static_cast<std::size_t>(keyCount));
    for (std::size_t wrapping = 0; wrapping < keys.size(); ++wrapping) {
        const Bytes wrapped =
            encryptAes(EncryptionType::Aes128Ecb, value(static_cast<int>(wrapping)), pattern(32), {}).bytes;
        for (std::size_t tried = 0; tried < keys.size(); ++tried) {
            unsigned char* output = nullptr;
            int length = 0;
            const int status =
                talvik_decrypt_aes(device, keys[tried].keyId, keys[tried].keyIdLength, wrapped.data(),
                                   static_cast<int>(wrapped.size()), &output, &length, true, nullptr, 0, nullptr);
            EXPECT_EQ(status, tried == wrapping ? 0 : BadData);
            EXPECT_EQ(length, tried == wrapping ? 32 : 0);
            std::free(output);
        }
    }
}

}  // namespace
}  // namespace talvik_test
