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
    SECURITY_STATUS call(Function function, DWORD room, DWORD flags = 0) {
        return function(hProv, key, input, 20, nullptr, room != 0 ? data.data() : nullptr, room, &size, flags);
    }
    // The size query, a short, the exact and a longer buffer; then what the library must not say.
    void showSizes(Function function, const std::string& operation, DWORD made, int tooLong) {
        for (const DWORD room : {DWORD{0}, made - 1, made, made + 1})
            show(operation + " into " + number(room), [&] { return call(function, room); });
        showLies(operation, [&] { return call(function, 600); }, {tooLong});
    }

    BYTE* const input = const_cast<BYTE*>(INPUT.data());
};

TEST_F(KspCipher, RefusesWhatIsMissing) {
    openOnlyKey();
    scripted::always("talvik_encrypt", {.output = bytes(256)});
    for (const auto& [name, function] : {std::pair{"KSPEncrypt", ksp.Encrypt}, {"KSPDecrypt", ksp.Decrypt}}) {
        showNulls(name, function, hProv, key, input, 20, nullptr, data.data(), 256, &size, 0);
        show(name + std::string(" of too much"), [&, function = function] {
            return function(hProv, key, input, 0x80000000, nullptr, data.data(), 256, &size, 0);
        });
    }
    // As a size query, encryption needs its input and decryption does not.
    SHOW(ksp.Encrypt(hProv, key, nullptr, 0, nullptr, nullptr, 0, &size, 0));
    SHOW(ksp.Decrypt(hProv, key, nullptr, 0, nullptr, nullptr, 0, &size, NCRYPT_SILENT_FLAG));
}

TEST_F(KspCipher, EncryptsWithThePublicKey) {
    for (const auto& [keyType, bits] :
         {std::pair<std::uint32_t, DWORD>{1, 1024}, {2, 2048}, {3, 3072}, {4, 4096}, {2, 1536}}) {
        openOnlyKey(keyType, 128);
        keyOf(key)->keyLength = bits;
        scripted::always("talvik_encrypt", {.output = bytes(bits / 8)});
        show("bits " + number(bits), [&] { return call(ksp.Encrypt, 600, NCRYPT_PAD_OAEP_FLAG); });
    }
    showSizes(ksp.Encrypt, "talvik_encrypt", 192, 1025);
    // More than the key's length says: nothing is written where it does not fit.
    scripted::next("talvik_encrypt", {.output = bytes(193)});
    show("longer than the key", [&] { return call(ksp.Encrypt, 192); });
}

TEST_F(KspCipher, DecryptsOnTheTokenUnderThePin) {
    openOnlyKey();
    scripted::always("talvik_decrypt", {.output = bytes(9)});
    showSizes(ksp.Decrypt, "talvik_decrypt", 9, INT_MAX);
    showPinHandling("talvik_decrypt", [&](DWORD flags) { return call(ksp.Decrypt, 9, flags); });
}

// The key, the chaining and the vector choose the library's mode; without a vector it gets a null pointer.
TEST_F(KspCipher, UsesTheAesKeyOfTheHandle) {
    open();
    scripted::always("talvik_encrypt_aes", {.output = bytes(32)});
    scripted::always("talvik_decryptSymetric", {.output = bytes(7)});
    for (const Function function : {ksp.Encrypt, ksp.Decrypt})
        for (const auto& [length, ecb, hasIv] : {std::tuple{16, false, true},
                                                 {24, false, true},
                                                 {32, false, true},
                                                 {32, false, false},
                                                 {16, true, true},
                                                 {24, true, true},
                                                 {32, true, false}}) {
            aesKey(static_cast<std::size_t>(length));
            keyOf(key)->useEcb = ecb;
            setSharedIv(hasIv ? bytes(16, 0x70) : Bytes{});
            show("key of " + number(length), [&] { return call(function, 32); });
        }
    setSharedIv(bytes(16, 0x70));
    showSizes(ksp.Encrypt, "talvik_encrypt_aes", 32, 1 << 30);
    showSizes(ksp.Decrypt, "talvik_decryptSymetric", 7, 21);
}

}  // namespace
