#include "token/shared_state.h"
#include "unit/ksp_test.h"

using namespace testing;

namespace {

const std::string KEY_ID = "abababababababababababababababab";
const Bytes INPUT = bytes(20);

class KspCipher : public KspTest {
  protected:
    using Function = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, PBYTE, DWORD, VOID*, PBYTE, DWORD,
                                              DWORD*, DWORD);
    // With a buffer of `room` bytes; a null one for 0.
    Act calling(Function function, NCRYPT_KEY_HANDLE key, DWORD room, DWORD flags = 0) {
        return [=, this] {
            output = Bytes(1100, 0xCD);
            size = UNTOUCHED;
            return function(hProv, key, const_cast<BYTE*>(INPUT.data()), 20, nullptr,
                            room != 0 ? output.data() : nullptr, room, &size, flags);
        };
    }
    Act encrypting(NCRYPT_KEY_HANDLE key, DWORD room, DWORD flags = 0) {
        return calling(ksp.Encrypt, key, room, flags);
    }
    Act decrypting(NCRYPT_KEY_HANDLE key, DWORD room, DWORD flags = 0) {
        return calling(ksp.Decrypt, key, room, flags);
    }
    Bytes written() const { return {output.begin(), output.begin() + size}; }

    Bytes output;
    DWORD size = 0;
};

TEST_F(KspCipher, RefusesWhatIsMissing) {
    const NCRYPT_KEY_HANDLE key = openOnlyKey();
    BYTE* const input = const_cast<BYTE*>(INPUT.data());
    BYTE buffer[256];
    for (const bool encrypts : {true, false}) {
        const std::string name = encrypts ? "KSPEncrypt" : "KSPDecrypt";
        const Function function = encrypts ? ksp.Encrypt : ksp.Decrypt;
        const auto call = [&](NCRYPT_KEY_HANDLE k, BYTE* data, DWORD length, DWORD* s) {
            return [=, this, &buffer] { return function(hProv, k, data, length, nullptr, buffer, 256, s, 0); };
        };
        const std::string noKey = name + ": key handle or pcbResult is null";
        const std::string noInput = name + ": pbInput is null or cbInput is zero";
        expectRefused(name,
                      {{call(0, input, 20, &size), NTE_INVALID_PARAMETER, noKey},
                       {call(key, input, 20, nullptr), NTE_INVALID_PARAMETER, noKey},
                       {call(key, nullptr, 20, &size), NTE_INVALID_PARAMETER, noInput},
                       {call(key, input, 0, &size), NTE_INVALID_PARAMETER, noInput},
                       {call(key, input, 0x80000000, &size), NTE_INVALID_PARAMETER, name + ": cbInput is too large"}});
    }
    // As a size query, encryption needs its input and decryption does not.
    EXPECT_EQ(ksp.Encrypt(hProv, key, nullptr, 0, nullptr, nullptr, 0, &size, 0), NTE_INVALID_PARAMETER);
    expect(ERROR_SUCCESS, "KSPDecrypt",
           [&] { return ksp.Decrypt(hProv, key, nullptr, 0, nullptr, nullptr, 0, &size, NCRYPT_SILENT_FLAG); }, {}, {});
    EXPECT_EQ(size, 256u);
}

TEST_F(KspCipher, EncryptsWithThePublicKey) {
    struct {
        std::uint32_t keyType;
        DWORD length, size;  // bits, 0: the key's own; bytes
        int encryption;
    } const rows[] = {{1, 0, 128, 7}, {2, 0, 256, 8}, {3, 0, 384, 9}, {4, 0, 512, 10}, {2, 1536, 192, 8}};
    for (const auto& row : rows) {
        const NCRYPT_KEY_HANDLE key = openOnlyKey(row.keyType, 128);
        if (row.length != 0)
            talvik::ksp::keyOf(key)->keyLength = row.length;
        expect(ERROR_SUCCESS, "KSPEncrypt", encrypting(key, 0), {}, {});
        EXPECT_EQ(size, row.size);
        const std::string tooSmall = "ERROR KSPEncrypt: output buffer too small, required=";
        expect(NTE_BUFFER_TOO_SMALL, "KSPEncrypt", encrypting(key, row.size - 1), {tooSmall + std::to_string(row.size)},
               {});
        EXPECT_EQ(size, row.size);
        Bytes modulus = filled(128, 0xAB);
        modulus[0] = 0xC1;
        const Bytes der = talvik::buildRsaPublicKeyDerFromBytes(modulus, Bytes{1, 0, 1});
        for (const auto& [flags, padding] : {std::pair<DWORD, int>{0, 1}, {NCRYPT_PAD_OAEP_FLAG, 4}}) {
            const Lines calls = {"talvik_encrypt(" + std::to_string(row.encryption) + ", " + std::to_string(padding) +
                                 ", " + hex(INPUT) + ", 20, out, 1024, " + hex(der) + ", " +
                                 std::to_string(der.size()) + ", null)"};
            const Lines converting = {"DEBUG KSP: Public key is raw modulus, converting to DER"};
            scripted::next("talvik_encrypt", {.output = bytes(row.size)});
            expect(ERROR_SUCCESS, "KSPEncrypt", encrypting(key, row.size, flags),
                   converting + Lines{"DEBUG KSP: Encrypt success"}, calls);
            EXPECT_EQ(written(), bytes(row.size));
            // More than the key's length says: nothing is written where it does not fit.
            scripted::next("talvik_encrypt", {.output = bytes(row.size + 1)});
            expect(NTE_BUFFER_TOO_SMALL, "KSPEncrypt", encrypting(key, row.size, flags),
                   converting + Lines{tooSmall + std::to_string(row.size + 1)}, calls);
            EXPECT_EQ(size, row.size + 1);
            EXPECT_THAT(output, Each(0xCD));
            for (const scripted::Outcome& outcome : {scripted::Outcome{21}, {.length = -5}, {.length = 1025}}) {
                scripted::next("talvik_encrypt", outcome);
                expect(NTE_INTERNAL_ERROR, "KSPEncrypt", encrypting(key, row.size, flags),
                       converting + Lines{"ERROR KSP: Encrypt failed: " + std::to_string(outcome.status)}, calls);
            }
        }
    }
}

TEST_F(KspCipher, DecryptsOnTheTokenUnderThePin) {
    const NCRYPT_KEY_HANDLE key = openOnlyKey();
    const auto call = [](const std::string& pin) {
        return "talvik_decrypt(\"T1\", " + KEY_ID + ", \"" + pin + "\", " + hex(INPUT) + ", 20, out, out, true, null)";
    };
    const std::string expired = "DEBUG KSP: Decrypt SSO expired, re-prompting for PIN";
    scripted::always("talvik_decrypt", {.output = bytes(9)});
    expect(ERROR_SUCCESS, "KSPDecrypt", decrypting(key, 9), PIN_KNOWN + Lines{"DEBUG KSP: Decrypt success"},
           {call(PIN)});
    EXPECT_EQ(written(), bytes(9));
    expect(NTE_BUFFER_TOO_SMALL, "KSPDecrypt", decrypting(key, 8),
           PIN_KNOWN + Lines{"ERROR KSPDecrypt: output buffer too small, required=9"}, {call(PIN)});
    EXPECT_EQ(size, 9u);
    EXPECT_THAT(output, Each(0xCD));
    for (const scripted::Outcome& outcome : {scripted::Outcome{13}, {0, bytes(3), -1}, {0, bytes(3), 0x7FFFFFFF}}) {
        scripted::next("talvik_decrypt", outcome);
        expect(NTE_INTERNAL_ERROR, "KSPDecrypt", decrypting(key, 9),
               PIN_KNOWN + Lines{"ERROR KSP: Decrypt failed: " + std::to_string(outcome.status)}, {call(PIN)});
    }

    // Once more after an expired sign-on, with the PIN asked for in between.
    scripted::next("talvik_decrypt", {49});
    robot.enters("5678");
    EXPECT_EQ(decrypting(key, 9)(), ERROR_SUCCESS);
    EXPECT_THAT(log.take(), Contains(expired));
    EXPECT_THAT(scripted::takeCalls(), Contains(call("5678")));
    scripted::next("talvik_decrypt", {49});
    robot.cancels();
    EXPECT_EQ(decrypting(key, 9)(), NTE_FAIL);
    EXPECT_EQ(log.take().back(), "ERROR KSPDecrypt: password validation failed after SSO expiry");
    robot.cancels();
    EXPECT_EQ(decrypting(key, 9)(), NTE_FAIL);
    EXPECT_EQ(log.take().back(), "ERROR KSPDecrypt: password validation failed");

    const std::string silent = "ERROR KSPDecrypt: silent mode requested but PIN not validated";
    expect(NTE_SILENT_CONTEXT, "KSPDecrypt", decrypting(key, 9, NCRYPT_SILENT_FLAG), {silent},
           {"talvik_getTokenInfo(\"T1\", null)"});
    talvik::setDevicePassword(DEVICE, PIN);
    scripted::next("talvik_decrypt", {49});
    expect(NTE_SILENT_CONTEXT, "KSPDecrypt", decrypting(key, 9, NCRYPT_SILENT_FLAG), PIN_KNOWN + Lines{expired, silent},
           {call(PIN), "talvik_getTokenInfo(\"T1\", null)"});
    EXPECT_EQ(robot.finish().size(), 3u);
}

// The key, the chaining and the vector choose the library's mode; without a vector it gets a null pointer.
TEST_F(KspCipher, UsesTheAesKeyOfTheHandle) {
    open();
    struct {
        std::size_t length;
        bool ecb, hasIv;
        int encryption;
    } const rows[] = {{16, false, true, 1}, {24, false, true, 2}, {32, false, true, 2}, {32, false, false, 2},
                      {16, true, true, 5},  {24, true, true, 6},  {32, true, false, 6}};
    for (const auto& row : rows) {
        const NCRYPT_KEY_HANDLE key = aesKey(row.length);
        const std::string mode = row.ecb ? "ECB" : "CBC";
        talvik::ksp::keyOf(key)->useEcb = row.ecb;
        const Bytes iv = row.hasIv ? bytes(16, 0x70) : Bytes{};
        talvik::setSharedIv(iv);
        const bool passesIv = row.hasIv && !row.ecb;
        const std::string ivText = passesIv ? hex(iv) + ", 16" : "null, 0";
        const std::string keyText = hex(bytes(row.length, 0xA0)) + ", " + std::to_string(row.length);

        const Lines encryptCall = {"talvik_encrypt_aes(\"T1\", " + std::to_string(row.encryption) + ", " + keyText +
                                   ", " + hex(INPUT) + ", 20, out, out, false, " + ivText + ", null, 0, null)"};
        const Lines encryptMode = {"DEBUG KSP: Symmetric encrypt " + mode + " mode"};
        scripted::always("talvik_encrypt_aes", {.output = bytes(32)});
        expect(ERROR_SUCCESS, "KSPEncrypt", encrypting(key, 0), encryptMode, encryptCall);
        EXPECT_EQ(size, 32u);
        expect(NTE_BUFFER_TOO_SMALL, "KSPEncrypt", encrypting(key, 31),
               encryptMode + Lines{"ERROR KSPEncrypt: symmetric output buffer too small, required=32"}, encryptCall);
        EXPECT_EQ(size, 32u);
        expect(ERROR_SUCCESS, "KSPEncrypt", encrypting(key, 32),
               encryptMode + Lines{"DEBUG KSP: Symmetric encrypt success, length: 32"}, encryptCall);
        EXPECT_EQ(written(), bytes(32));
        for (const scripted::Outcome& outcome : {scripted::Outcome{14}, {0, bytes(3), -1}, {0, bytes(3), 1 << 30}}) {
            scripted::next("talvik_encrypt_aes", outcome);
            expect(NTE_INTERNAL_ERROR, "KSPEncrypt", encrypting(key, 32),
                   encryptMode + Lines{"ERROR KSP: Symmetric encryption failed: " + std::to_string(outcome.status)},
                   encryptCall);
        }

        const Lines decryptCall = {"talvik_decryptSymetric(\"T1\", " + hex(INPUT) + ", 20, out, 20, " + ivText + ", " +
                                   keyText + ", null)"};
        const auto upperHex = [](const Bytes& value) {
            return talvik::bytesToHexString(value.data(), static_cast<int>(value.size()));
        };
        const Lines decryptMode = {"DEBUG KSP: Symmetric decrypt " + mode + " mode",
                                   "DEBUG KSP: Decrypt input iv : " + (passesIv ? upperHex(iv) : ""),
                                   "DEBUG KSP: Decrypt input key : " + upperHex(bytes(row.length, 0xA0))};
        scripted::always("talvik_decryptSymetric", {.output = bytes(7)});
        expect(ERROR_SUCCESS, "KSPDecrypt", decrypting(key, 0), decryptMode + Lines{"DEBUG pbOutput == NULL "},
               decryptCall);
        EXPECT_EQ(size, 7u);
        expect(NTE_BUFFER_TOO_SMALL, "KSPDecrypt", decrypting(key, 6),
               decryptMode + Lines{"ERROR KSPDecrypt: symmetric output buffer too small, required=7"}, decryptCall);
        EXPECT_EQ(size, 7u);
        EXPECT_THAT(output, Each(0xCD));
        expect(ERROR_SUCCESS, "KSPDecrypt", decrypting(key, 7),
               decryptMode + Lines{"DEBUG KSP: Symmetric decrypt success, length: 7"}, decryptCall);
        EXPECT_EQ(written(), bytes(7));
        for (const scripted::Outcome& outcome : {scripted::Outcome{15}, {.length = -1}, {.length = 21}}) {
            scripted::next("talvik_decryptSymetric", outcome);
            expect(NTE_INTERNAL_ERROR, "KSPDecrypt", decrypting(key, 20),
                   decryptMode + Lines{"ERROR KSP: Symmetric decryption failed: " + std::to_string(outcome.status)},
                   decryptCall);
        }
    }
}

}  // namespace
