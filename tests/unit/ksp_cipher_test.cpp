#include "unit/ksp_test.h"

using namespace testing;
using namespace talvik;

namespace {

const Bytes INPUT = bytes(20);

class KspCipher : public KspTest {
  protected:
    using Function = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, PBYTE, DWORD, VOID*, PBYTE, DWORD,
                                              DWORD*, DWORD);
    // With a buffer of `room` bytes; a null one for 0.
    Act calling(Function function, NCRYPT_KEY_HANDLE key, DWORD room, DWORD flags = 0) {
        return [=, this] {
            offer(UNTOUCHED);
            return function(hProv, key, const_cast<BYTE*>(INPUT.data()), 20, nullptr, room != 0 ? data.data() : nullptr,
                            room, &size, flags);
        };
    }
    Act encrypting(NCRYPT_KEY_HANDLE key, DWORD room, DWORD flags = 0) {
        return calling(ksp.Encrypt, key, room, flags);
    }
    Act decrypting(NCRYPT_KEY_HANDLE key, DWORD room, DWORD flags = 0) {
        return calling(ksp.Decrypt, key, room, flags);
    }
};

TEST_F(KspCipher, RefusesWhatIsMissing) {
    const NCRYPT_KEY_HANDLE key = openOnlyKey();
    BYTE* const input = const_cast<BYTE*>(INPUT.data());
    BYTE some[256];
    for (const bool encrypts : {true, false}) {
        const std::string name = encrypts ? "KSPEncrypt" : "KSPDecrypt";
        const auto refused = refusalsOf(name, encrypts ? ksp.Encrypt : ksp.Decrypt);
        const std::string noKey = name + ": key handle or pcbResult is null";
        const std::string noInput = name + ": pbInput is null or cbInput is zero",
                          tooLarge = name + ": cbInput is too large";
        refused(NTE_INVALID_PARAMETER, noKey, hProv, 0, input, 20, nullptr, some, 256, &size, 0);
        refused(NTE_INVALID_PARAMETER, noKey, hProv, key, input, 20, nullptr, some, 256, nullptr, 0);
        refused(NTE_INVALID_PARAMETER, noInput, hProv, key, nullptr, 20, nullptr, some, 256, &size, 0);
        refused(NTE_INVALID_PARAMETER, noInput, hProv, key, input, 0, nullptr, some, 256, &size, 0);
        refused(NTE_INVALID_PARAMETER, tooLarge, hProv, key, input, 0x80000000, nullptr, some, 256, &size, 0);
    }
    // As a size query, encryption needs its input and decryption does not.
    EXPECT_EQ(ksp.Encrypt(hProv, key, nullptr, 0, nullptr, nullptr, 0, &size, 0), NTE_INVALID_PARAMETER);
    expect(ERROR_SUCCESS, "KSPDecrypt",
           [&] { return ksp.Decrypt(hProv, key, nullptr, 0, nullptr, nullptr, 0, &size, NCRYPT_SILENT_FLAG); });
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
            keyOf(key)->keyLength = row.length;
        expect(ERROR_SUCCESS, "KSPEncrypt", encrypting(key, 0));
        EXPECT_TRUE(isOnlyTold(row.size));
        const std::string tooSmall = "ERROR KSPEncrypt: output buffer too small, required=";
        expect(NTE_BUFFER_TOO_SMALL, "KSPEncrypt", encrypting(key, row.size - 1), {tooSmall + number(row.size)});
        EXPECT_TRUE(isOnlyTold(row.size));
        Bytes modulus = filled(128, 0xAB);
        modulus[0] = 0xC1;
        const Bytes der = buildRsaPublicKeyDerFromBytes(modulus, Bytes{1, 0, 1});
        for (const auto& [flags, padding] : {std::pair<DWORD, int>{0, 1}, {NCRYPT_PAD_OAEP_FLAG, 4}}) {
            const Lines calls = {"talvik_encrypt(" + number(row.encryption) + ", " + number(padding) + ", " +
                                 hex(INPUT) + ", 20, out, 1024, " + hex(der) + ", " + number(der.size()) + ", null)"};
            const Lines converting = {"DEBUG KSP: Public key is raw modulus, converting to DER"};
            scripted::next("talvik_encrypt", {.output = bytes(row.size)});
            expect(ERROR_SUCCESS, "KSPEncrypt", encrypting(key, row.size, flags),
                   converting + "DEBUG KSP: Encrypt success", calls);
            EXPECT_EQ(delivered(), bytes(row.size));
            // More than the key's length says: nothing is written where it does not fit.
            scripted::next("talvik_encrypt", {.output = bytes(row.size + 1)});
            expect(NTE_BUFFER_TOO_SMALL, "KSPEncrypt", encrypting(key, row.size, flags),
                   converting + (tooSmall + number(row.size + 1)), calls);
            EXPECT_TRUE(isOnlyTold(row.size + 1));
            for (const scripted::Outcome& outcome : {scripted::Outcome{21}, {.length = -5}, {.length = 1025}}) {
                scripted::next("talvik_encrypt", outcome);
                expect(NTE_INTERNAL_ERROR, "KSPEncrypt", encrypting(key, row.size, flags),
                       converting + ("ERROR KSP: Encrypt failed: " + number(outcome.status)), calls);
            }
        }
    }
}

TEST_F(KspCipher, DecryptsOnTheTokenUnderThePin) {
    const NCRYPT_KEY_HANDLE key = openOnlyKey();
    const auto call = [](const std::string& pin) {
        return "talvik_decrypt(\"T1\", " + KEY_ID + ", \"" + pin + "\", " + hex(INPUT) + ", 20, out, out, true, null)";
    };
    scripted::always("talvik_decrypt", {.output = bytes(9)});
    expect(ERROR_SUCCESS, "KSPDecrypt", decrypting(key, 9), PIN_KNOWN + "DEBUG KSP: Decrypt success", {call(PIN)});
    EXPECT_EQ(delivered(), bytes(9));
    expect(NTE_BUFFER_TOO_SMALL, "KSPDecrypt", decrypting(key, 8),
           PIN_KNOWN + "ERROR KSPDecrypt: output buffer too small, required=9", {call(PIN)});
    EXPECT_TRUE(isOnlyTold(9));
    for (const scripted::Outcome& outcome : {scripted::Outcome{13}, {0, bytes(3), -1}, {0, bytes(3), 0x7FFFFFFF}}) {
        scripted::next("talvik_decrypt", outcome);
        expect(NTE_INTERNAL_ERROR, "KSPDecrypt", decrypting(key, 9),
               PIN_KNOWN + ("ERROR KSP: Decrypt failed: " + number(outcome.status)), {call(PIN)});
    }

    expectPinHandling({"KSPDecrypt",
                       "talvik_decrypt",
                       "Decrypt",
                       "Decrypt failed",
                       [=, this](DWORD flags) { return decrypting(key, 9, flags); },
                       {},
                       {"DEBUG KSP: Decrypt success"},
                       call});
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
        const std::string mode = row.ecb ? " ECB mode" : " CBC mode";
        keyOf(key)->useEcb = row.ecb;
        const Bytes iv = row.hasIv ? bytes(16, 0x70) : Bytes{}, value = bytes(row.length, 0xA0);
        setSharedIv(iv);
        const bool passesIv = row.hasIv && !row.ecb;
        const std::string ivText = passesIv ? hex(iv) + ", 16" : "null, 0";
        const std::string keyText = hex(value) + ", " + number(row.length);
        const auto goesWith = [&](const std::string& entryPoint, const std::string& verb, const std::string& operation,
                                  Function function, DWORD made, int tooLong, const Lines& lines,
                                  const Lines& whenAsked, const Lines& calls) {
            scripted::always(operation, {.output = bytes(made)});
            expect(ERROR_SUCCESS, entryPoint, calling(function, key, 0), lines + whenAsked, calls);
            EXPECT_TRUE(isOnlyTold(made));
            expect(NTE_BUFFER_TOO_SMALL, entryPoint, calling(function, key, made - 1),
                   lines + ("ERROR " + entryPoint + ": symmetric output buffer too small, required=" + number(made)),
                   calls);
            EXPECT_TRUE(isOnlyTold(made));
            expect(ERROR_SUCCESS, entryPoint, calling(function, key, made),
                   lines + ("DEBUG KSP: Symmetric " + verb + " success, length: " + number(made)), calls);
            EXPECT_EQ(delivered(), bytes(made));
            for (const scripted::Outcome& outcome :
                 {scripted::Outcome{14}, {0, bytes(3), -1}, {0, bytes(3), tooLong}}) {
                scripted::next(operation, outcome);
                expect(NTE_INTERNAL_ERROR, entryPoint, calling(function, key, 32),
                       lines + ("ERROR KSP: Symmetric " + verb + "ion failed: " + number(outcome.status)), calls);
            }
        };
        goesWith("KSPEncrypt", "encrypt", "talvik_encrypt_aes", ksp.Encrypt, 32, 1 << 30,
                 {"DEBUG KSP: Symmetric encrypt" + mode}, {},
                 {"talvik_encrypt_aes(\"T1\", " + number(row.encryption) + ", " + keyText + ", " + hex(INPUT) +
                  ", 20, out, out, false, " + ivText + ", null, 0, null)"});
        goesWith(
            "KSPDecrypt", "decrypt", "talvik_decryptSymetric", ksp.Decrypt, 7, 21,
            {"DEBUG KSP: Symmetric decrypt" + mode, "DEBUG KSP: Decrypt input iv : " + (passesIv ? upperHex(iv) : ""),
             "DEBUG KSP: Decrypt input key : " + upperHex(value)},
            {"DEBUG pbOutput == NULL "},
            {"talvik_decryptSymetric(\"T1\", " + hex(INPUT) + ", 20, out, 20, " + ivText + ", " + keyText + ", null)"});
    }
}

}  // namespace
