// AES and RSA encryption against openssl.
#include "virtual_token/fixture.h"

namespace talvik_test {
namespace {

struct AesRow {
    const char* name;
    EncryptionType type;
    std::size_t keyLength;
    const char* openssl;
    bool chained;
};
constexpr AesRow aesRows[] = {
    {"Cbc128", EncryptionType::Aes128Cbc, 16, "-aes-128-cbc", true},
    {"Cbc192", EncryptionType::Aes256Cbc, 24, "-aes-192-cbc", true},
    {"Cbc256", EncryptionType::Aes256Cbc, 32, "-aes-256-cbc", true},
    {"Ecb128", EncryptionType::Aes128Ecb, 16, "-aes-128-ecb", false},
    {"Ecb192", EncryptionType::Aes256Ecb, 24, "-aes-192-ecb", false},
    {"Ecb256", EncryptionType::Aes256Ecb, 32, "-aes-256-ecb", false},
};

class AesTest : public testing::TestWithParam<AesRow> {};

TEST_P(AesTest, AgreesWithOpenssl) {
    const ScratchFolder scratch;
    const Bytes key = pattern(GetParam().keyLength), iv = GetParam().chained ? pattern(16) : Bytes();
    const std::string options =
        std::string(GetParam().openssl) + " -K " + hexOf(key) + (GetParam().chained ? " -iv " + hexOf(iv) : "");
    for (const std::size_t length : {0u, 1u, 15u, 16u, 17u, 4096u, GetParam().keyLength == 32 ? 64u << 20 : 100u}) {
        SCOPED_TRACE(length);
        const Bytes plaintext = pattern(length);
        scratch.write("plain", plaintext);
        openssl(scratch, "enc " + options + " -in plain -out cipher");
        const Result encrypted = encryptAes(GetParam().type, key, plaintext, iv);
        ASSERT_EQ(encrypted.status, 0);
        ASSERT_TRUE(encrypted.bytes == scratch.read("cipher"));
        const Result decrypted = decryptAes(key, encrypted.bytes, iv);
        ASSERT_EQ(decrypted.status, 0);
        ASSERT_TRUE(decrypted.bytes == plaintext);
    }
}

INSTANTIATE_TEST_SUITE_P(, AesTest, testing::ValuesIn(aesRows),
                         [](const testing::TestParamInfo<AesRow>& row) { return row.param.name; });

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
    const Bytes sealed = encryptAes(EncryptionType::Aes128Cbc, pattern(16), text, pattern(16)).bytes;
    EXPECT_EQ(decryptAes(pattern(16), Bytes(sealed.begin(), sealed.begin() + 16), pattern(16)).status, BadData);
    EXPECT_EQ(decryptAes(pattern(16), Bytes(sealed.begin(), sealed.end() - 1), pattern(16)).status, BadData);
    EXPECT_EQ(decryptAes(pattern(16), {}, pattern(16)).status, InvalidArgument);
    EXPECT_EQ(decryptAes(pattern(16), sealed, pattern(8)).status, BadInitialVector);
    EXPECT_EQ(decryptAes(pattern(20), sealed, pattern(16)).status, BadKey);
}

class RsaTest : public VirtualTokenTest, public testing::WithParamInterface<std::uint32_t> {
  protected:
    static Result encrypt(const Bytes& publicKey, const Bytes& plaintext, PaddingMode padding) {
        Result result{0, Bytes(1024)};
        int length = 0;  // callers preset none
        result.status =
            talvik_encrypt(EncryptionType::Rsa2048, padding, plaintext.data(), static_cast<int>(plaintext.size()),
                           result.bytes.data(), &length, publicKey.data(), static_cast<int>(publicKey.size()), nullptr);
        result.bytes.resize(result.status == 0 ? static_cast<std::size_t>(length) : 0);
        return result;
    }
};

constexpr struct {
    PaddingMode mode;
    const char* openssl;
    std::size_t overhead;
} paddings[] = {{PaddingMode::Pkcs1, "pkcs1", 11}, {PaddingMode::Oaep, "oaep", 42}};

TEST_P(RsaTest, BothPaddingsBothWays) {
    const std::size_t modulusLength = GetParam() * 128;
    const Key key = generate(GetParam(), TALVIK_USAGE_EXCHANGE);
    ASSERT_EQ(key.status, 0);
    const Bytes publicKey = publicKeyFile(key);
    openssl(scratch, "genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:" + std::to_string(modulusLength * 8) +
                         " -out private.pem");
    openssl(scratch, "pkey -in private.pem -pubout -outform DER -out other.der");
    for (const auto& padding : paddings) {
        SCOPED_TRACE(padding.openssl);
        for (const std::size_t length : {std::size_t{1}, std::size_t{32}, modulusLength - padding.overhead}) {
            const Bytes plaintext = pattern(length);
            scratch.write("plain", plaintext);
            const std::string mode = " -pkeyopt rsa_padding_mode:" + std::string(padding.openssl);
            openssl(scratch, "pkeyutl -encrypt -pubin -inkey key.pem -in plain -out cipher" + mode);
            const Result fromOpenssl = decrypt(key, scratch.read("cipher"));
            EXPECT_EQ(fromOpenssl.status, 0);
            EXPECT_EQ(fromOpenssl.bytes, plaintext);

            const Result encrypted = encrypt(scratch.read("other.der"), plaintext, padding.mode);
            ASSERT_EQ(encrypted.status, 0);
            scratch.write("cipher", encrypted.bytes);
            openssl(scratch, "pkeyutl -decrypt -inkey private.pem -in cipher -out decrypted" + mode);
            EXPECT_EQ(scratch.read("decrypted"), plaintext);
        }
        EXPECT_EQ(encrypt(publicKey, pattern(modulusLength - padding.overhead + 1), padding.mode).status, BadData);
    }
    EXPECT_EQ(decrypt(key, Bytes(modulusLength, 1)).status, BadData);      // no padding of either kind
    EXPECT_EQ(decrypt(key, Bytes(modulusLength, 0xFF)).status, BadData);   // not below the modulus
    EXPECT_EQ(decrypt(key, Bytes(modulusLength - 1, 1)).status, BadData);  // wrong length
    EXPECT_EQ(sign(key, pattern(32)).status, UsageForbidden);
}

INSTANTIATE_TEST_SUITE_P(, RsaTest,
                         testing::Values(TALVIK_KEY_RSA_1024, TALVIK_KEY_RSA_2048, TALVIK_KEY_RSA_3072,
                                         TALVIK_KEY_RSA_4096));

// Malformed and dangerous public keys are refused before any arithmetic.
TEST_F(RsaTest, PublicKeysAreChecked) {
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
