#include "csp/key.h"
#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

const Bytes INPUT = bytes(20);

// A key handle of 2048 bits over a buffer whose every byte that should not change is a canary.
class CspCipherTest : public ProviderTest {
  protected:
    CspCipherTest() : prov(acquire()) {
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
        const Bytes value = bytes(32);
        std::copy(value.begin(), value.end(), key.aesKey);
        key.aesKeyLen = length;
    }
    HCRYPTKEY handle() { return reinterpret_cast<HCRYPTKEY>(&key); }

    Call encrypting(DWORD room, DWORD flags = 0, DWORD inputSize = 20) {
        return [=, this] {
            fill(inputSize);
            return CPEncrypt(prov, handle(), 99, FALSE, flags, data.data(), &size, room);
        };
    }
    Call decrypting(DWORD inputSize = 20) {
        return [=, this] {
            fill(inputSize);
            return CPDecrypt(prov, handle(), 99, FALSE, 7, data.data(), &size);
        };
    }
    Bytes answered() const { return {data.begin(), data.begin() + size}; }
    bool isInputIntact() const {
        return std::equal(INPUT.begin(), INPUT.end(), data.begin()) && isUntouchedFrom(INPUT.size());
    }
    bool isUntouchedFrom(std::size_t from) const {
        return Bytes(data.begin() + static_cast<std::ptrdiff_t>(from), data.end()) == filled(data.size() - from, 0xCD);
    }

    csp::KEY_HANDLE key;
    HCRYPTPROV prov;

  private:
    void fill(DWORD inputSize) {
        offer(inputSize);
        std::copy(INPUT.begin(), INPUT.end(), data.begin());
    }
};

// The mechanism compares bytes with bits: no real key's length meets it, so the rows that do have made-up ones.
TEST_F(CspCipherTest, EncryptsWithThePublicKeyInTheCallersByteOrder) {
    const Bytes ciphertext = bytes(256);
    scripted::always("talvik_encrypt", {.output = ciphertext});
    for (const auto& [length, mechanism] : {std::pair<DWORD, int>{128, 8}, {256, 8}, {512, 8}, {550, 8}, {1024, 7}})
        for (const bool isDer : {false, true})
            for (const auto& [flags, padding] : {std::pair<DWORD, int>{0, 1}, {CRYPT_OAEP | 0x80, 4}, {0x80, 1}}) {
                key.publicKey[0] = isDer ? 0x30 : 0xC1;
                key.publicKeyLen = length;
                const Bytes held = content(key.publicKey, length);
                const Bytes der = isDer ? held : buildRsaPublicKeyDer(hex(held), "010001");
                expectSuccess(encrypting(256, flags),
                              {"DEBUG CPEncrypt",
                               isDer ? "DEBUG CSP: Public key is already DER encoded"
                                     : "DEBUG CSP: Public key is raw modulus, converting to DER",
                               "DEBUG CPEncrypt - return success"},
                              {"talvik_encrypt(" + number(mechanism) + ", " + number(padding) + ", " + hex(INPUT) +
                               ", 20, out, 0, " + hex(der) + ", " + number(der.size()) + ", null)"});
                EXPECT_EQ(delivered(), reversed(ciphertext));
            }
}

TEST_F(CspCipherTest, SizeQueriesAndShortBuffersGoByTheKeysBits) {
    for (const auto& [bits, required] : {std::pair<DWORD, DWORD>{1024, 128}, {2048, 256}, {4096, 512}, {521, 65}}) {
        for (const int aesLength : {0, 16}) {
            key.keyBits = bits;
            key.aesKeyLen = aesLength;
            size = UNTOUCHED;
            expectSuccess([&] { return CPEncrypt(prov, handle(), 0, TRUE, 0, nullptr, &size, 0); },
                          {"DEBUG CPEncrypt"});
            EXPECT_EQ(size, required);
            expectFailure(encrypting(required - 1), ERROR_MORE_DATA,
                          {"DEBUG CPEncrypt", "ERROR CPEncrypt: buffer too small, cbBufLen=" + number(required - 1) +
                                                  " requiredSize=" + number(required)});
            EXPECT_EQ(size, required);
            EXPECT_TRUE(isInputIntact());
        }
    }
    // An imported public key has no bits of its own: what the library produces decides.
    key.aesKeyLen = 0;
    key.keyBits = 0;
    scripted::always("talvik_encrypt", {.output = bytes(256)});
    expectError(encrypting(255), ERROR_MORE_DATA, "ERROR CPEncrypt: output buffer too small, required=256");
    EXPECT_EQ(size, 256u);
    EXPECT_TRUE(isInputIntact());
    EXPECT_TRUE(encrypting(256)());
}

TEST_F(CspCipherTest, ARefusedOrLyingEncryptionDeliversNothing) {
    for (const int aesLength : {0, 16}) {
        key.aesKeyLen = aesLength;
        const char* const operation = aesLength == 0 ? "talvik_encrypt" : "talvik_encrypt_aes";
        const std::string failed =
            aesLength == 0 ? "Encrypt data failed: " : "CPEncrypt: symmetric encryption failed: ";
        for (const scripted::Outcome& outcome :
             {scripted::Outcome{21}, {21, bytes(16)}, {49}, {0, bytes(16), -1}, {0, bytes(16), 5000}}) {
            scripted::next(operation, outcome);
            expectError(encrypting(1200), NTE_PROVIDER_DLL_FAIL, "ERROR " + failed + number(outcome.status));
            EXPECT_TRUE(isInputIntact());
        }
    }
}

TEST_F(CspCipherTest, DecryptsOnTheTokenAndAsksAgainWhenTheSignOnExpired) {
    const auto call = [](const std::string& pin) {
        return "talvik_decrypt(\"T1\", " + hex(filled(16, 0xAB)) + ", \"" + pin + "\", " + hex(reversed(INPUT)) +
               ", 20, out, out, true, null)";
    };
    const Lines head = {"DEBUG CPDecrypt", "DEBUG CPDecrypt - dwFlags : 7",
                        "DEBUG CPDecrypt - key id : ABABABABABABABABABABABABABABABAB", "DEBUG CPDecrypt - usage : 3"};
    const Lines turning = {"DEBUG Before reversing encrypted data", "DEBUG After reversing encrypted data",
                           "DEBUG Before decrypting data"};
    const Lines before = head + VALIDATED + turning;
    const Lines after = {"DEBUG After decrypting data", "DEBUG CPDecrypt- return"};
    for (const std::size_t length : {9u, 0u, 20u}) {
        scripted::next("talvik_decrypt", {.output = bytes(length, 0x41)});
        expectSuccess(decrypting(), before + after, {call("1234")});
        EXPECT_EQ(answered(), bytes(length, 0x41));
        EXPECT_TRUE(isUntouchedFrom(20));
    }
    scripted::next("talvik_decrypt", {.output = bytes(21)});
    expectFailure(decrypting(), ERROR_MORE_DATA,
                  before + Lines{after[0], "ERROR CPDecrypt: output buffer too small, required=21"}, {call("1234")});
    EXPECT_EQ(size, 21u);
    EXPECT_TRUE(isInputIntact());
    for (const scripted::Outcome& outcome : {scripted::Outcome{13}, {0, bytes(3), -1}, {0, bytes(3), INT_MAX}}) {
        scripted::next("talvik_decrypt", outcome);
        expectFailure(decrypting(), NTE_PROVIDER_DLL_FAIL,
                      before + Lines{after[0], "ERROR Decrypt data failed : " + number(outcome.status)},
                      {call("1234")});
        EXPECT_TRUE(isInputIntact());
    }
    expectRenewal({"CPDecrypt", "talvik_decrypt", decrypting(), head, turning, after,
                   Lines{after[0], "ERROR Decrypt data failed : 49"}, call});
}

TEST_F(CspCipherTest, AesGoesByKeyLengthAndVector) {
    struct {
        int length, chained, plain;
    } const rows[] = {{16, 1, 5}, {24, 2, 6}, {32, 2, 6}};
    for (const auto& row : rows) {
        for (const std::size_t ivLength : {0u, 8u, 16u}) {
            useAes(row.length);
            const Bytes vector = filled(ivLength, 0x1F);
            setSharedIv(vector);
            const Bytes bare = bytes(static_cast<std::size_t>(row.length));
            const std::string value = hex(bare), iv = ivLength != 0 ? hex(vector) : "null";
            scripted::next("talvik_encrypt_aes", {.output = bytes(32)});
            expectSuccess(encrypting(32),
                          {"DEBUG CPEncrypt", "DEBUG CPEncrypt: symmetric encryption, keyLen=" + number(row.length),
                           "DEBUG CPEncrypt: symmetric encryption success, length=32"},
                          {"talvik_encrypt_aes(\"T1\", " + number(ivLength != 0 ? row.chained : row.plain) + ", " +
                           value + ", " + number(row.length) + ", " + hex(INPUT) + ", 20, out, out, false, " + iv +
                           ", " + number(ivLength) + ", null, 0, null)"});
            EXPECT_EQ(delivered(), bytes(32));

            scripted::next("talvik_decryptSymetric", {.output = Bytes{0xAB, 0x0C}});
            expectSuccess(decrypting(),
                          {"DEBUG CPDecrypt", "DEBUG CPDecrypt - dwFlags : 7", "DEBUG CPDecrypt - key id : ",
                           "DEBUG CPDecrypt - usage : 0", "DEBUG CPDecrypt input iv : " + upperHex(vector),
                           "DEBUG CPDecrypt input key : " + upperHex(bare), "DEBUG CPDecrypt - decrypted data : AB0C",
                           "DEBUG CPDecrypt- return"},
                          {"talvik_decryptSymetric(\"T1\", " + hex(INPUT) + ", 20, out, 20, " + iv + ", " +
                           number(ivLength) + ", " + value + ", " + number(row.length) + ", null)"});
            EXPECT_EQ(answered(), Bytes({0xAB, 0x0C}));
            EXPECT_TRUE(isUntouchedFrom(20));
        }
    }
    for (const scripted::Outcome& outcome : {scripted::Outcome{13}, {0, bytes(3), -1}, {0, bytes(3), 21}}) {
        scripted::next("talvik_decryptSymetric", outcome);
        expectError(decrypting(), NTE_PROVIDER_DLL_FAIL,
                    "ERROR Symetric decryption failed : " + number(outcome.status));
        EXPECT_TRUE(isInputIntact());
    }
    scripted::next("talvik_encrypt_aes", {.output = bytes(32)});
    expectError(encrypting(31), ERROR_MORE_DATA, "ERROR CPEncrypt: symmetric output buffer too small, required=32");
    EXPECT_EQ(size, 32u);
    EXPECT_TRUE(isInputIntact());
    for (const int length : {1, 15, 17, 20, 31}) {
        useAes(length);
        expectFailure(encrypting(1200), NTE_BAD_KEY,
                      {"DEBUG CPEncrypt", "DEBUG CPEncrypt: symmetric encryption, keyLen=" + number(length),
                       "ERROR CPEncrypt: unsupported symmetric key length: " + number(length)});
    }
}

// A context without a token still encrypts: its device is "".
TEST_F(CspCipherTest, AesNeedsNoToken) {
    useAes(16);
    prov = acquire("", CRYPT_VERIFYCONTEXT);
    scripted::next("talvik_encrypt_aes", {.output = bytes(16)});
    EXPECT_TRUE(encrypting(16)());
    EXPECT_THAT(scripted::takeCalls(), ElementsAre(StartsWith("talvik_encrypt_aes(\"\", 5, ")));
}

TEST_F(CspCipherTest, Refusals) {
    DWORD length = 20;
    BYTE some[256] = {};
    const std::string noContext = ": context is null or not initialized", noKey = ": key handle is null";
    const auto encrypt = refusalsOf("CPEncrypt", CPEncrypt);
    encrypt(ERROR_INVALID_PARAMETER, "CPEncrypt: pcbDataLen is null", 0, 0, 0, TRUE, 0, some, nullptr, 256);
    encrypt(NTE_BAD_UID, "CPEncrypt" + noContext, 0, 0, 0, TRUE, 0, some, &length, 256);
    encrypt(NTE_BAD_UID, "CPEncrypt" + noContext, invalid, handle(), 0, TRUE, 0, some, &length, 256);
    encrypt(NTE_BAD_KEY, "CPEncrypt" + noKey, prov, 0, 0, TRUE, 0, some, &length, 256);
    const auto decrypt = refusalsOf("CPDecrypt", CPDecrypt);
    decrypt(NTE_BAD_UID, "CPDecrypt" + noContext, 0, 0, 0, TRUE, 0, some, nullptr);
    decrypt(NTE_BAD_UID, "CPDecrypt" + noContext, invalid, handle(), 0, TRUE, 0, some, &length);
    decrypt(NTE_BAD_KEY, "CPDecrypt" + noKey, prov, 0, 0, TRUE, 0, some, nullptr);
    decrypt(ERROR_INVALID_PARAMETER, "CPDecrypt: pcbDataLen is null", prov, handle(), 0, TRUE, 0, some, nullptr);
    decrypt(NTE_BAD_DATA, "Invalid data length for decrypt : 20", prov, handle(), 0, TRUE, 0, nullptr, &length);
    for (const DWORD wrong : {0u, 0x80000000u, 0xFFFFFFFFu}) {
        expectError(encrypting(256, 0, wrong), NTE_BAD_LEN, "ERROR Invalid data length for encrypt: " + number(wrong));
        expectError(decrypting(wrong), NTE_BAD_DATA, "ERROR Invalid data length for decrypt : " + number(wrong));
    }
    EXPECT_THAT(scripted::takeCalls(), IsEmpty());
}

}  // namespace
