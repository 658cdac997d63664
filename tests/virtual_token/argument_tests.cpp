// Every pointer, length and device of every operation: a status, never a crash.
#include <set>

#include "virtual_token/fixture.h"

namespace talvik_test {
namespace {

TEST_F(VirtualTokenTest, WrongArguments) {
    TalvikKeyPair pair{};
    TalvikCertificate certificate{}, longDer{}, longAlias{};
    longDer.derLength = sizeof longDer.der + 1;
    longAlias.keyAliasLength = 0xFFFFFFFF;
    TalvikSymmetricKey aes{};
    CertificateDetails details;
    unsigned char id[16] = {}, data[64] = {}, *made = nullptr;
    int length = 64, left = 0;
    void* hash = nullptr;
    ASSERT_EQ(talvik_initHash("", TALVIK_HASH_SHA1, &hash, nullptr), 0);
    const auto aesType = EncryptionType::Aes128Ecb;
    const auto rsa = EncryptionType::Rsa2048;
    const auto pkcs1 = PaddingMode::Pkcs1;

    EXPECT_EQ(talvik_initDevice(nullptr, false, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_initDevice("T9", false, nullptr), NoSuchDevice);
    EXPECT_EQ(talvik_initDevice("t1", false, nullptr), NoSuchDevice);
    EXPECT_EQ(talvik_initDevice(("..\\" + home() + "\\T1").c_str(), false, nullptr), NoSuchDevice);
    EXPECT_EQ(talvik_validatePassword(device, nullptr, 1, &left, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_validatePassword(device, pin, 1, nullptr, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_validatePassword("T9", pin, 1, &left, nullptr), NoSuchDevice);
    EXPECT_EQ(talvik_generateKeyPair(device, pin, nullptr, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_generateKeyPair(device, nullptr, &pair, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_generateKeyPair(device, "", &pair, nullptr), PinRequired);
    EXPECT_EQ(talvik_generateKeyPair("T9", pin, &pair, nullptr), NoSuchDevice);
    EXPECT_EQ(talvik_deleteKeyPair(device, nullptr, pin, true, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_deleteKeyPair(device, id, pin, true, nullptr), NoSuchObject);
    EXPECT_EQ(talvik_importCertificate(device, pin, nullptr, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_importCertificate(device, pin, &certificate, nullptr), BadCertificate);
    EXPECT_EQ(talvik_importCertificate(device, pin, &longDer, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_importCertificate(device, pin, &longAlias, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_importAesKey(device, pin, nullptr, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_importAesKey(device, pin, &aes, nullptr), BadKey);
    EXPECT_EQ(talvik_getCertificateDetails(nullptr, 10, details, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_getCertificateDetails(data, -1, details, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_signHash(device, id, pin, nullptr, 20, data, &length, false, nullptr, false), InvalidArgument);
    EXPECT_EQ(talvik_signHash(device, id, pin, data, -20, data, &length, false, nullptr, false), InvalidArgument);
    EXPECT_EQ(talvik_signHash(device, id, pin, data, 20, nullptr, &length, false, nullptr, false), InvalidArgument);
    EXPECT_EQ(talvik_signHash(device, id, pin, data, 20, data, nullptr, false, nullptr, false), InvalidArgument);
    EXPECT_EQ(talvik_signHash(device, id, pin, data, 20, data, &length, false, nullptr, false), NoSuchObject);
    EXPECT_EQ(talvik_verifySignatureHash(2, "", data, 20, nullptr, 9, data, 9, nullptr, false), InvalidArgument);
    EXPECT_EQ(talvik_verifySignatureHash(2, "", data, 20, data, 9, data, -9, nullptr, false), BadKey);
    EXPECT_EQ(talvik_encrypt(rsa, pkcs1, data, 9, data, nullptr, data, 9, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_encrypt(rsa, static_cast<PaddingMode>(2), data, 9, data, &length, data, 9, nullptr), Unsupported);
    EXPECT_EQ(talvik_decrypt(device, id, pin, data, 64, nullptr, &length, true, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_decrypt(device, id, pin, nullptr, 64, &made, &left, true, nullptr), InvalidArgument);
    EXPECT_EQ(
        talvik_encrypt_aes("", aesType, nullptr, 16, data, 9, &made, &left, false, nullptr, 0, nullptr, 0, nullptr),
        InvalidArgument);
    EXPECT_EQ(talvik_encrypt_aes("", aesType, data, 16, data, -9, &made, &left, false, nullptr, 0, nullptr, 0, nullptr),
              InvalidArgument);
    EXPECT_EQ(talvik_decryptSymetric("", data, 16, nullptr, &length, nullptr, 0, data, 16, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_decrypt_aes(device, id, 15, data, 32, &made, &left, true, nullptr, 0, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_decrypt_aes(device, id, 16, data, 32, &made, &left, true, nullptr, 0, nullptr), NoSuchObject);
    EXPECT_EQ(talvik_generateRamdomNumber("", 9, nullptr, true, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_generateRamdomNumber("", -9, data, true, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_generateRamdomNumber("", 9, data, false, nullptr), NoSuchDevice);
    EXPECT_EQ(talvik_initHash("", TALVIK_HASH_SHA1, nullptr, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_updateHash(hash, nullptr, 9, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_updateHash(hash, data, -9, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_finalHash(hash, nullptr, &length, nullptr), InvalidArgument);
    EXPECT_EQ(talvik_finalHash(hash, data, nullptr, nullptr), InvalidArgument);
    EXPECT_EQ(made, nullptr);
    EXPECT_TRUE(talvik_getKeyPairList(nullptr, nullptr).empty());
    EXPECT_TRUE(talvik_getCertificateList("T9", nullptr).empty());
    EXPECT_EQ(talvik_getTokenInfo(nullptr, nullptr).tokenId, "");
    EXPECT_EQ(talvik_init(0, nullptr, 2), 0);
}

// A signature goes to a caller who vouches for the room, whatever the length says on entry; a plaintext goes into the
// caller's buffer only when it fits. The length is told either way.
TEST_F(VirtualTokenTest, RoomIsRespected) {
    const Key key = generate(TALVIK_KEY_RSA_1024, TALVIK_USAGE_SIGN);
    unsigned char signature[129] = {};
    signature[128] = 0xA5;
    const Bytes digest = pattern(32);
    for (const int hint : {-1, 0, 127, 128}) {
        int length = hint;
        EXPECT_EQ(talvik_signHash(device, key.id(), pin, digest.data(), 32, signature, &length, false, nullptr, false),
                  0);
        EXPECT_EQ(length, 128);
    }
    EXPECT_EQ(signature[128], 0xA5);
    Bytes sealed = encryptAes(EncryptionType::Aes128Ecb, pattern(16), pattern(20), {}).bytes;
    for (const auto& [room, status] : {std::pair{19, +BufferTooSmall}, {20, 0}, {32, 0}, {0, 0}}) {
        int length = room;
        unsigned char plaintext[32];
        EXPECT_EQ(talvik_decryptSymetric("", sealed.data(), 32, plaintext, &length, nullptr, 0, pattern(16).data(), 16,
                                         nullptr),
                  status);
        EXPECT_EQ(length, 20);
    }
    std::set<Bytes> drawn;
    for (const bool isSoftware : {false, true, false, true}) {
        Bytes random(3u << 20);
        EXPECT_EQ(talvik_generateRamdomNumber(isSoftware ? "" : device, 3 << 20, random.data(), isSoftware, nullptr),
                  0);
        drawn.emplace(random.end() - 16, random.end());
    }
    EXPECT_EQ(drawn.size(), 4u);
}

}  // namespace
}  // namespace talvik_test
