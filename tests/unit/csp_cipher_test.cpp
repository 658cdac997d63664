#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

const Bytes INPUT = bytes(20);

// A key handle of 2048 bits over a buffer whose every byte that should not change is a canary.
class CspCipherTest : public ProviderTest {
  protected:
    CspCipherTest() {
        acquire();
        setDevicePassword(DEVICE, "1234");
        std::memset(key.keyId, 0xAB, sizeof key.keyId);
        key.keyIdLen = 16;
        key.keyUsage = 3;
        key.keyBits = 2048;
        key.storageFlag = 1;
        std::memset(key.publicKey, 0xC1, 256);
        key.publicKeyLen = 256;
    }
    void useAes(int length) {
        key = {};
        std::ranges::copy(bytes(32), key.aesKey);
        key.aesKeyLen = length;
    }

    BOOL encrypt(DWORD room, DWORD flags = 0, DWORD inputSize = 20) {
        fill(inputSize);
        return CPEncrypt(prov, handle, 99, FALSE, flags, data.data(), &size, room);
    }
    BOOL decrypt(DWORD inputSize = 20) {
        fill(inputSize);
        return CPDecrypt(prov, handle, 99, FALSE, 7, data.data(), &size);
    }

    csp::KEY_HANDLE key;
    const HCRYPTKEY handle = reinterpret_cast<HCRYPTKEY>(&key);

  private:
    void fill(DWORD inputSize) {
        offer(inputSize);
        std::ranges::copy(INPUT, data.begin());
    }
};

// The mechanism compares bytes with bits: no real key's length meets it, so the rows that do have made-up ones.
TEST_F(CspCipherTest, EncryptsWithThePublicKeyInTheCallersByteOrder) {
    const Bytes ciphertext = bytes(256);
    scripted::always("talvik_encrypt", {.output = ciphertext});
    for (const bool isDer : {false, true}) {
        key.publicKey[0] = isDer ? 0x30 : 0xC1;
        for (const DWORD length : {128, 256, 512, 550, 1024}) {
            key.publicKeyLen = length;
            show("key of " + number(length) + " bytes", [&] { return encrypt(256); });
            EXPECT_EQ(delivered(), reversed(ciphertext));
        }
        showEach<DWORD>("flags", {0, CRYPT_OAEP | 0x80, 0x80}, [&](DWORD flags) { return encrypt(256, flags); });
    }
}

TEST_F(CspCipherTest, SizeQueriesAndShortBuffersGoByTheKeysBits) {
    for (const int aesLength : {0, 16})
        for (const DWORD bits : {1024, 2048, 4096, 521}) {
            key.keyBits = bits;
            key.aesKeyLen = aesLength;
            show("size of " + number(bits), [&] { return CPEncrypt(prov, handle, 0, TRUE, 0, nullptr, &size, 0); });
        }
    for (const DWORD bits : {1024, 2048, 4096, 521}) {
        key.keyBits = bits;
        show("too short for " + number(bits), [&] { return encrypt(bits / 8 - 1); });
    }
    // An imported public key has no bits of its own: what the library produces decides.
    key.aesKeyLen = 0;
    key.keyBits = 0;
    scripted::always("talvik_encrypt", {.output = bytes(256)});
    showEach<DWORD>("no bits, room", {255, 256}, [&](DWORD room) { return encrypt(room); });
}

TEST_F(CspCipherTest, ARefusedOrLyingEncryptionDeliversNothing) {
    for (const std::string operation : {"talvik_encrypt", "talvik_encrypt_aes"}) {
        showLies(operation, [&] { return encrypt(1200); }, {5000});
        for (const scripted::Outcome& outcome : {scripted::Outcome{21, bytes(16)}, {49}}) {
            scripted::next(operation, outcome);
            show(operation + " says " + number(outcome.status), [&] { return encrypt(1200); });
        }
        key.aesKeyLen = 16;
    }
}

TEST_F(CspCipherTest, DecryptsOnTheTokenAndAsksAgainWhenTheSignOnExpired) {
    showEach<std::size_t>("plaintext of", {9, 0, 20, 21}, [&](std::size_t length) {
        scripted::next("talvik_decrypt", {.output = bytes(length, 0x41)});
        return decrypt();
    });
    showLies("talvik_decrypt", [&] { return decrypt(); });
    showRenewal("talvik_decrypt", [&] { return decrypt(); });
}

TEST_F(CspCipherTest, AesGoesByKeyLengthAndVector) {
    scripted::always("talvik_encrypt_aes", {.output = bytes(32)});
    scripted::always("talvik_decryptSymetric", {.output = Bytes{0xAB, 0x0C}});
    for (const auto& operation : {Shown([&] { return encrypt(32); }), Shown([&] { return decrypt(); })})
        for (const std::size_t ivLength : {0, 8, 16})
            for (const int length : {16, 24, 32}) {
                useAes(length);
                setSharedIv(filled(ivLength, 0x1F));
                show("key of " + number(length), operation);
            }
    showLies("talvik_decryptSymetric", [&] { return decrypt(); }, {21});
    show("too short", [&] { return encrypt(31); });
    for (const int length : {1, 15, 17, 20, 31}) {
        useAes(length);
        show("key of " + number(length), [&] { return encrypt(1200); });
    }
    useAes(16);
    acquire("", CRYPT_VERIFYCONTEXT);
    show("without a token", [&] { return encrypt(32); });
}

TEST_F(CspCipherTest, Refusals) {
    scripted::always("talvik_encrypt", {.output = bytes(256)});
    showNulls("CPEncrypt", CPEncrypt, prov, handle, 0, FALSE, 0, data.data(), &size, 256);
    showNulls("CPDecrypt", CPDecrypt, prov, handle, 0, FALSE, 0, data.data(), &size);
    showEach<DWORD>("encrypting", {0, 0x80000000, 0xFFFFFFFF}, [&](DWORD length) { return encrypt(256, 0, length); });
    showEach<DWORD>("decrypting", {0, 0x80000000, 0xFFFFFFFF}, [&](DWORD length) { return decrypt(length); });
}

}  // namespace
