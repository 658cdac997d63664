#include "unit/ksp_test.h"

using namespace testing;
using namespace talvik;

namespace {

constexpr std::uint32_t RSA1 = 0x31415352;
constexpr std::uint32_t KEY_DATA = 0x4D42444B;
constexpr std::uint32_t CAPI_HEADER = 0x00000206;

Bytes modulusOf(std::size_t size) {
    Bytes modulus = bytes(size, 7);
    modulus[0] = 0xC1;
    return modulus;
}
Bytes rsaBlob(std::uint32_t bits, const Bytes& exponent, const Bytes& modulus) {
    return words({RSA1, bits, static_cast<std::uint32_t>(exponent.size()), static_cast<std::uint32_t>(modulus.size()),
                  0, 0}) +
           exponent + modulus;
}
Bytes legacyBlob(std::uint32_t bits, std::uint32_t exponent, const Bytes& modulus) {
    return words({CAPI_HEADER, CALG_RSA_KEYX, RSA1, bits, exponent}) + reversed(modulus);
}
Bytes keyDataBlob(const Bytes& value) {
    return words({KEY_DATA, 9, static_cast<std::uint32_t>(value.size())}) + value;
}

class KspBlobs : public KspTest {
  protected:
    KspBlobs() { open(); }

    // From a buffer that ends where the data ends.
    SECURITY_STATUS import(const wchar_t* type, const Bytes& blob, NCRYPT_KEY_HANDLE with = 0) {
        return ksp.ImportKey(hProv, with, type, nullptr, &key, const_cast<BYTE*>(blob.data()),
                             static_cast<DWORD>(blob.size()), 0);
    }
    void showImport(const std::string& name, const wchar_t* type, const Bytes& blob, NCRYPT_KEY_HANDLE with = 0) {
        show(name, [&] { return import(type, blob, with); });
    }
    Bytes exported(const wchar_t* type) {
        return readBySizeRule([&](BYTE* buffer, DWORD room, DWORD* size) {
            return ksp.ExportKey(hProv, key, 0, type, nullptr, buffer, room, size, 0);
        });
    }
};

TEST_F(KspBlobs, RsaPublicKeysGoRoundWithTheDefaultExponent) {
    for (const wchar_t* type : {L"RSAPUBLICBLOB", L"PUBLICBLOB"})
        for (const std::uint32_t bits : {1024u, 2048u, 3072u, 4096u}) {
            const Bytes modulus = modulusOf(bits / 8);
            showImport("bits " + number(bits), type, rsaBlob(bits, {3}, modulus) + Bytes{1, 2});
            EXPECT_EQ(exported(type), rsaBlob(bits, {1, 0, 1}, modulus));
            EXPECT_EQ(exported(L"CAPIPUBLICBLOB"), legacyBlob(bits, 0x10001, modulus));
        }
    for (const std::uint32_t bits : {1024u, 2048u, 3072u, 4096u}) {
        const Bytes modulus = modulusOf(bits / 8), der = buildRsaPublicKeyDerFromBytes(modulus, Bytes{0, 1, 3});
        showImport("legacy, bits " + number(bits), L"CAPIPUBLICBLOB", legacyBlob(bits, 0x103, modulus));
        EXPECT_EQ(content(keyOf(key)->publicKey, keyOf(key)->publicKeyLength), der);
        // What is held is exported as it is.
        EXPECT_EQ(exported(L"PUBLICBLOB"), rsaBlob(static_cast<std::uint32_t>(der.size() * 8), {1, 0, 1}, der));
    }
    SHOW(ksp.ExportKey(hProv, key, 0, L"PUBLICBLOB", nullptr, data.data(), 600, &size, 0));
}

TEST_F(KspBlobs, MalformedBlobsAreRefusedWithTheirText) {
    const std::tuple<const char*, const wchar_t*, Bytes> rows[] = {
        {"no header", L"PUBLICBLOB", bytes(23)},
        {"magic", L"RSAPUBLICBLOB", words({0x32415352, 1024, 0, 0, 0, 0})},
        {"material", L"PUBLICBLOB", words({RSA1, 1024, 3, 128, 0, 0}) + bytes(130)},
        {"exponent", L"PUBLICBLOB", words({RSA1, 1024, 0xFFFFFFFF, 128, 0, 0}) + bytes(131)},
        {"sum", L"PUBLICBLOB", words({RSA1, 1024, 0xFFFFFF80, 0x80, 0, 0}) + bytes(131)},
        {"modulus", L"PUBLICBLOB", words({RSA1, 1024, 3, 0xFFFFFFFC, 0, 0}) + bytes(131)},
        {"bits", L"PUBLICBLOB", rsaBlob(1536, {1, 0, 1}, bytes(192))},
        {"long modulus", L"PUBLICBLOB", rsaBlob(2048, {1, 0, 1}, bytes(1025))},
        {"legacy no header", L"CAPIPUBLICBLOB", bytes(19)},
        {"legacy magic", L"CAPIPUBLICBLOB", words({CAPI_HEADER, 0, KEY_DATA, 1024, 3})},
        {"legacy modulus", L"CAPIPUBLICBLOB", words({CAPI_HEADER, 0, RSA1, 1024, 3}) + bytes(127)},
        {"legacy lie", L"CAPIPUBLICBLOB", words({CAPI_HEADER, 0, RSA1, 0xFFFFFFFF, 3}) + bytes(128)},
        {"legacy bits", L"CAPIPUBLICBLOB", legacyBlob(1536, 0x10001, bytes(192))},
        {"legacy none", L"CAPIPUBLICBLOB", legacyBlob(0, 0x10001, {})},
        {"data no header", L"KeyDataBlob", bytes(11)},
        {"data magic", L"KeyDataBlob", words({RSA1, 1, 16}) + bytes(16)},
        {"data short", L"KeyDataBlob", words({KEY_DATA, 1, 16}) + bytes(15)},
        {"data lie", L"KeyDataBlob", words({KEY_DATA, 1, 0xFFFFFFF4}) + bytes(16)},
        {"data length", L"KeyDataBlob", keyDataBlob(bytes(20))},
        {"opaque", L"OpaqueTransport", bytes(1)},
        {"pkcs8", L"PKCS8_PRIVATEKEY", bytes(1)},
        {"lower case", L"publicblob", bytes(1)},
        {"no type", L"", bytes(1)}};
    for (const auto& [name, type, blob] : rows)
        showImport(name, type, blob);
    BYTE some[24] = {};
    showNulls("KSPImportKey", ksp.ImportKey, hProv, 0, L"PUBLICBLOB", nullptr, &key, some, 24, 0);
}

TEST_F(KspBlobs, PlainAesKeysAreStoredOnTheToken) {
    setDevicePassword(DEVICE, PIN);
    scripted::always("talvik_importAesKey", {.output = filled(16, 0x77)});
    for (const std::size_t length : {16, 24, 32})
        showImport("value of " + number(length), L"KeyDataBlob", keyDataBlob(bytes(length)));
    scripted::next("talvik_importAesKey", {17});
    showImport("refused", L"KeyDataBlob", keyDataBlob(bytes(16)));
}

TEST_F(KspBlobs, WrappedAesKeysGoToEveryKeyThatMayUnwrapThem) {
    const auto kek = [](std::uint32_t type, unsigned char fill) { return wrappingKey(type, fill, fill); };
    attachToken({}, {}, {kek(11, 0x11), kek(8, 0x22), kek(9, 0x33), kek(10, 0x45), kek(8, 0x66)});
    const auto unwrapped = [&](std::size_t blobLength, std::size_t length) {
        scripted::next("talvik_decrypt_aes", {30});
        scripted::next("talvik_decrypt_aes", {.output = bytes(length)});
        showImport("value of " + number(length) + " in " + number(blobLength), L"OpaqueKeyBlob", bytes(blobLength));
    };
    scripted::always("talvik_decrypt_aes", {30});
    showImport("none unwraps", L"OpaqueKeyBlob", bytes(5));
    unwrapped(5, 6);  // a short wrapping cannot hold a longer key: the second key's answer counts as none
    unwrapped(5, 5);
    for (const std::size_t length : {16, 24, 32, 5, 33})
        unwrapped(64, length);
    scripted::next("talvik_importAesKey", {3});
    unwrapped(64, 32);
}

TEST_F(KspBlobs, EncryptedAesKeysStayInTheHandle) {
    const TalvikKeyPair pair = scripted::keyPair(0xAB);
    attachTokens({pair});
    const NCRYPT_KEY_HANDLE importKey = openKey(pair);
    const auto decrypted = [&](const wchar_t* type, std::size_t length) {
        scripted::next("talvik_decrypt", {.output = bytes(length)});
        showImport("value of " + number(length), type, bytes(5), importKey);
    };
    for (const std::size_t length : {16, 24, 32, 0, 33})
        decrypted(L"OpaqueTransport", length);
    for (const wchar_t* type : {L"PKCS8_PRIVATEKEY", L"no type at all"})
        decrypted(type, 16);
    for (const scripted::Outcome& outcome : {scripted::Outcome{49}, {0, bytes(16), -16}, {0, bytes(16), 5000}}) {
        scripted::next("talvik_decrypt", outcome);
        showImport("not decrypted", L"OpaqueTransport", bytes(5), importKey);
    }
}

TEST_F(KspBlobs, ExportsPublicKeysOnly) {
    const TalvikKeyPair pair = scripted::keyPair(0xAB);
    attachTokens({scripted::keyPair(0x11), pair});
    openKey(pair);
    showNulls("KSPExportKey", ksp.ExportKey, hProv, key, 0, L"PUBLICBLOB", nullptr, data.data(), 8, &size, 0);
    for (const wchar_t* type :
         {L"PRIVATEBLOB", L"CAPIPRIVATEBLOB", L"RSAPRIVATEBLOB", L"", L"PUBLICBLOB", L"CAPIPUBLICBLOB"})
        show(narrowed(type), [&] { return ksp.ExportKey(hProv, key, 0, type, nullptr, data.data(), 8, &size, 0); });
    // A handle without the public key gets it from the token.
    keyOf(key)->publicKeyLength = 0;
    SHOW(ksp.ExportKey(hProv, key, 0, L"PUBLICBLOB", nullptr, data.data(), 600, &size, 0));
    EXPECT_EQ(delivered(), rsaBlob(2048, {1, 0, 1}, content(pair.modulus, 256)));
    keyOf(key)->publicKeyLength = 0;
    attachTokens({});
    SHOW(ksp.ExportKey(hProv, key, 0, L"CAPIPUBLICBLOB", nullptr, data.data(), 8, &size, 0));
}

}  // namespace
