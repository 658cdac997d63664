#include <stdexcept>

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
    Act importing(const wchar_t* type, const Bytes& blob, NCRYPT_KEY_HANDLE with = 0) {
        return [=, this] {
            handle = UNTOUCHED_HANDLE;
            return ksp.ImportKey(hProv, with, type, nullptr, &handle, const_cast<BYTE*>(blob.data()),
                                 static_cast<DWORD>(blob.size()), 0);
        };
    }
    const KspKey& imported() {
        if (handle == UNTOUCHED_HANDLE)
            throw std::logic_error("nothing was imported");
        return *keyOf(keep(handle));
    }
    Bytes exported(const wchar_t* type) {
        return readBySizeRule([&](BYTE* buffer, DWORD room, DWORD* size) {
            return ksp.ExportKey(hProv, handle, 0, type, nullptr, buffer, room, size, 0);
        });
    }

    NCRYPT_KEY_HANDLE handle = 0;
};

TEST_F(KspBlobs, RsaPublicKeysGoRoundWithTheDefaultExponent) {
    for (const std::uint32_t bits : {1024u, 2048u, 3072u, 4096u}) {
        const Bytes modulus = modulusOf(bits / 8);
        for (const wchar_t* type : {L"RSAPUBLICBLOB", L"PUBLICBLOB"}) {
            expect(ERROR_SUCCESS, "KSPImportKey", importing(type, rsaBlob(bits, {3}, modulus) + Bytes{1, 2}),
                   {"DEBUG KSP: RSA public key imported, bits=" + number(bits)});
            EXPECT_EQ(std::tuple(imported().algorithm, imported().keyLength), std::tuple(bits / 1024, bits));
            log.mark();
            EXPECT_EQ(exported(type), rsaBlob(bits, {1, 0, 1}, modulus));
            EXPECT_EQ(log.take().back(), "DEBUG KSP: Public key exported, bits=" + number(bits));
            EXPECT_EQ(exported(L"CAPIPUBLICBLOB"), legacyBlob(bits, 0x10001, modulus));
        }
        const Bytes der = buildRsaPublicKeyDerFromBytes(modulus, Bytes{0, 1, 3});
        expect(ERROR_SUCCESS, "KSPImportKey", importing(L"CAPIPUBLICBLOB", legacyBlob(bits, 0x103, modulus)),
               {"DEBUG KSP: Public exponent : 000103", "DEBUG KSP: Legacy RSA public key imported successfully"});
        EXPECT_EQ(content(imported().publicKey, imported().publicKeyLength), der);
        EXPECT_EQ(std::tuple(imported().algorithm, imported().keyIdLength), std::tuple(bits / 1024, 16u));
        // What is held is exported as it is.
        EXPECT_EQ(exported(L"PUBLICBLOB"), rsaBlob(static_cast<std::uint32_t>(der.size() * 8), {1, 0, 1}, der));
    }
}

TEST_F(KspBlobs, MalformedBlobsAreRefusedWithTheirText) {
    const std::string rsa = "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB ", legacy = "KSPImportKey: LEGACY_RSAPUBLIC_BLOB ";
    const std::string data = "KSPImportKey: BCRYPT_KEY_DATA_BLOB ", exponent = "DEBUG KSP: Public exponent : 010001";
    const std::string material = "data too small for key material";
    const std::string needsKey = "KSP: Encrypted key import requires import key handle";
    const std::string unsupported = "KSP: Unsupported blob type for import";
    const std::tuple<const wchar_t*, Bytes, SECURITY_STATUS, std::string> rows[] = {
        {L"PUBLICBLOB", bytes(23), NTE_BAD_DATA, rsa + "data too small"},
        {L"RSAPUBLICBLOB", words({0x32415352, 1024, 0, 0, 0, 0}), NTE_BAD_DATA, rsa + "invalid magic"},
        {L"PUBLICBLOB", words({RSA1, 1024, 3, 128, 0, 0}) + bytes(130), NTE_BAD_DATA, rsa + material},
        {L"PUBLICBLOB", words({RSA1, 1024, 0xFFFFFFFF, 128, 0, 0}) + bytes(131), NTE_BAD_DATA, rsa + material},
        {L"PUBLICBLOB", words({RSA1, 1024, 0xFFFFFF80, 0x80, 0, 0}) + bytes(131), NTE_BAD_DATA, rsa + material},
        {L"PUBLICBLOB", words({RSA1, 1024, 3, 0xFFFFFFFC, 0, 0}) + bytes(131), NTE_BAD_DATA, rsa + material},
        {L"PUBLICBLOB", rsaBlob(1536, {1, 0, 1}, bytes(192)), NTE_NOT_SUPPORTED, "KSP: Unsupported RSA key size: 1536"},
        {L"PUBLICBLOB", rsaBlob(2048, {1, 0, 1}, bytes(1025)), NTE_BAD_KEY, rsa + "modulus too long: 1025"},
        {L"CAPIPUBLICBLOB", bytes(19), NTE_BAD_DATA, legacy + "data too small for header"},
        {L"CAPIPUBLICBLOB", words({CAPI_HEADER, 0, KEY_DATA, 1024, 3}), NTE_BAD_DATA, legacy + "invalid magic"},
        {L"CAPIPUBLICBLOB", words({CAPI_HEADER, 0, RSA1, 1024, 3}) + bytes(127), NTE_BAD_DATA,
         legacy + "data too small for modulus"},
        {L"CAPIPUBLICBLOB", words({CAPI_HEADER, 0, RSA1, 0xFFFFFFFF, 3}) + bytes(128), NTE_BAD_DATA,
         legacy + "data too small for modulus"},
        {L"KeyDataBlob", bytes(11), NTE_BAD_DATA, data + "data too small for header"},
        {L"KeyDataBlob", words({RSA1, 1, 16}) + bytes(16), NTE_BAD_DATA, data + "invalid magic"},
        {L"KeyDataBlob", words({KEY_DATA, 1, 16}) + bytes(15), NTE_BAD_DATA, data + material},
        {L"KeyDataBlob", words({KEY_DATA, 1, 0xFFFFFFF4}) + bytes(16), NTE_BAD_DATA, data + material},
        {L"KeyDataBlob", keyDataBlob(bytes(20)), NTE_NOT_SUPPORTED,
         "KSP: Unsupported key size for BCRYPT_KEY_DATA_BLOB: 20"},
        {L"OpaqueTransport", bytes(1), NTE_BAD_KEY, needsKey},
        {L"PKCS8_PRIVATEKEY", bytes(1), NTE_BAD_KEY, needsKey},
        {L"publicblob", bytes(1), NTE_NOT_SUPPORTED, unsupported},
        {L"", bytes(1), NTE_NOT_SUPPORTED, unsupported}};
    for (const auto& [type, blob, status, text] : rows) {
        SCOPED_TRACE(text);
        expect(status, "KSPImportKey", importing(type, blob), {"ERROR " + text});
        EXPECT_EQ(handle, UNTOUCHED_HANDLE);
    }
    for (const Bytes& blob : {legacyBlob(1536, 0x10001, bytes(192)), legacyBlob(0, 0x10001, {})})
        expect(NTE_NOT_SUPPORTED, "KSPImportKey", importing(L"CAPIPUBLICBLOB", blob),
               {exponent, "ERROR KSP: Unsupported RSA key size"});
    BYTE some[24] = {};
    const auto refused = refusalsOf("KSPImportKey", ksp.ImportKey);
    const std::string missing = "KSPImportKey: invalid parameters";
    refused(NTE_INVALID_PARAMETER, missing, hProv, 0, nullptr, nullptr, &handle, some, 24, 0);
    refused(NTE_INVALID_PARAMETER, missing, hProv, 0, L"PUBLICBLOB", nullptr, nullptr, some, 24, 0);
    refused(NTE_INVALID_PARAMETER, missing, hProv, 0, L"PUBLICBLOB", nullptr, &handle, nullptr, 24, 0);
    refused(NTE_INVALID_PARAMETER, missing, hProv, 0, L"PUBLICBLOB", nullptr, &handle, some, 0, 0);
}

// Cut anywhere, or with any header byte turned over, a blob is imported or refused and nothing else.
TEST_F(KspBlobs, CutAndDamagedBlobsDoNoHarm) {
    setLogLevel(0);
    const std::pair<const wchar_t*, Bytes> blobs[] = {{L"PUBLICBLOB", rsaBlob(1024, {1, 0, 1}, modulusOf(128))},
                                                      {L"CAPIPUBLICBLOB", legacyBlob(1024, 0x10001, modulusOf(128))},
                                                      {L"KeyDataBlob", keyDataBlob(bytes(32))}};
    for (const auto& [type, blob] : blobs) {
        for (std::size_t length = 1; length < blob.size(); ++length)
            EXPECT_EQ(importing(type, cut(blob, length))(), NTE_BAD_DATA);
        for (std::size_t at = 0; at < 24; ++at) {
            Bytes damaged = blob;
            damaged[at] ^= 0xFF;
            const SECURITY_STATUS status = importing(type, damaged)();
            EXPECT_THAT(status, AnyOf(ERROR_SUCCESS, NTE_BAD_DATA, NTE_NOT_SUPPORTED)) << at;
            if (status == ERROR_SUCCESS)
                keep(handle);
        }
    }
}

TEST_F(KspBlobs, PlainAesKeysAreStoredOnTheToken) {
    setDevicePassword(DEVICE, PIN);
    for (const auto& [length, type] : {std::pair<std::size_t, DWORD>{16, 8}, {24, 11}, {32, 10}}) {
        const Bytes value = bytes(length);
        const Lines calls = {storeAesCall(value, type)};
        scripted::next("talvik_importAesKey", {17});
        expect(NTE_BAD_TYPE, "KSPImportKey", importing(L"KeyDataBlob", keyDataBlob(value)),
               {"ERROR KSP: BCRYPT_KEY_DATA_BLOB import failed"}, calls);
        scripted::next("talvik_importAesKey", {.output = filled(16, 0x77)});
        expect(ERROR_SUCCESS, "KSPImportKey", importing(L"KeyDataBlob", keyDataBlob(value)),
               {"DEBUG KSP: BCRYPT_KEY_DATA_BLOB imported successfully (AES)"}, calls);
        const KspKey& key = imported();
        EXPECT_THAT(key.keyId, Each(0x77));
        EXPECT_EQ(content(key.symmetricKey, key.symmetricKeyLength), value);
        EXPECT_EQ(std::tuple(key.keyIdLength, key.algorithm, key.isFinalized), std::tuple(16u, type, 1));
    }
}

TEST_F(KspBlobs, WrappedAesKeysGoToEveryKeyThatMayUnwrapThem) {
    const auto kek = [](std::uint32_t type, unsigned char fill) { return wrappingKey(type, fill, fill); };
    attachToken({}, {}, {kek(11, 0x11), kek(8, 0x22), kek(9, 0x33), kek(10, 0x45), kek(8, 0x66)});
    const Lines start = {"DEBUG KSP: BCRYPT_OPAQUE_KEY_BLOB: wrapped key length = 5"};
    const Lines tries = {AES_LIST, unwrapCall(filled(3, 0x22), false), unwrapCall(filled(3, 0x45), true)};
    const Act import = importing(L"OpaqueKeyBlob", bytes(5));
    scripted::always("talvik_decrypt_aes", {30});
    expect(NTE_BAD_KEY, "KSPImportKey", import,
           start + "ERROR KSP: Failed to unwrap BCRYPT_OPAQUE_KEY_BLOB with any available KEK",
           tries + unwrapCall(filled(3, 0x66), false));

    const std::string found = "DEBUG KSP: Successfully unwrapped key with KEK: 45454545454545454545454545454545";
    const auto answerOnSecond = [](std::size_t length) {
        scripted::next("talvik_decrypt_aes", {30});
        scripted::next("talvik_decrypt_aes", {.output = bytes(length)});
    };
    // A short wrapping cannot hold a longer key: the second key's answer counts as none.
    answerOnSecond(6);
    EXPECT_EQ(import(), NTE_BAD_KEY);
    const Act importLong = importing(L"OpaqueKeyBlob", bytes(64));
    for (const auto& [length, type] : {std::pair<DWORD, DWORD>{16, 8}, {24, 10}, {32, 10}, {5, 10}}) {
        answerOnSecond(length);
        forgetSoFar();
        EXPECT_EQ(importLong(), ERROR_SUCCESS);
        EXPECT_EQ(log.take().back(), "DEBUG KSP: BCRYPT_OPAQUE_KEY_BLOB imported successfully");
        EXPECT_EQ(std::tuple(imported().algorithm, imported().symmetricKeyLength), std::tuple(type, length));
    }
    scripted::next("talvik_importAesKey", {3});
    for (const auto& [length, stored] : {std::pair<std::size_t, int>{32, 1}, {33, 0}}) {
        answerOnSecond(length);
        const int before = scripted::callCount("talvik_importAesKey");
        expectError(importLong, NTE_BAD_TYPE, "ERROR KSP: Import of unwrapped AES key failed");
        EXPECT_EQ(scripted::callCount("talvik_importAesKey") - before, stored);
    }
    answerOnSecond(5);
    forgetSoFar();
    EXPECT_EQ(import(), ERROR_SUCCESS);
    EXPECT_THAT(log.take(), Contains(found));
    EXPECT_THAT(scripted::takeCalls(), IsSupersetOf(tries));
    imported();
}

TEST_F(KspBlobs, EncryptedAesKeysStayInTheHandle) {
    const TalvikKeyPair pair = scripted::keyPair(0xAB);
    attachTokens({pair});
    const NCRYPT_KEY_HANDLE importKey = openKey(hProv, pair);
    const Lines start = {"DEBUG KSP: Input key id : ABABABABABABABABABABABABABABABAB"};
    const Lines calls = {"talvik_decrypt(\"T1\", " + KEY_ID + ", \"\", 0102030405, 5, out, out, true, null)"};
    for (const wchar_t* type : {L"OpaqueTransport", L"PKCS8_PRIVATEKEY", L"no type at all"}) {
        const Act import = importing(type, bytes(5), importKey);
        for (const auto& [length, code] : {std::pair<DWORD, DWORD>{16, 8}, {24, 11}, {32, 10}}) {
            scripted::next("talvik_decrypt", {.output = bytes(length)});
            expect(ERROR_SUCCESS, "KSPImportKey", import, start + "DEBUG KSP: Encrypted key imported successfully",
                   calls);
            EXPECT_THAT(imported().keyId, Each(0));
            EXPECT_EQ(std::tuple(imported().algorithm, imported().symmetricKeyLength, imported().keyIdLength),
                      std::tuple(code, length, 16u));
        }
        for (const std::size_t length : {0u, 33u}) {
            scripted::next("talvik_decrypt", {.output = bytes(length)});
            expect(NTE_NOT_SUPPORTED, "KSPImportKey", import,
                   start + ("ERROR KSP: Unsupported decrypted key length: " + number(length)), calls);
        }
        for (const scripted::Outcome& outcome : {scripted::Outcome{49}, {0, bytes(16), -16}, {0, bytes(16), 5000}}) {
            scripted::next("talvik_decrypt", outcome);
            expect(NTE_BAD_DATA, "KSPImportKey", import, start + "ERROR KSP: Encrypted key decryption failed", calls);
        }
    }
    EXPECT_THAT(robot.finish(), IsEmpty());
}

TEST_F(KspBlobs, ExportsPublicKeysOnly) {
    const TalvikKeyPair pair = scripted::keyPair(0xAB);
    attachTokens({scripted::keyPair(0x11), pair});
    handle = openKey(hProv, pair);
    const auto refused = refusalsOf("KSPExportKey", ksp.ExportKey);
    BYTE some[8];
    const auto refusedAs = [&](SECURITY_STATUS status, const std::string& text, const wchar_t* type) {
        refused(status, text, hProv, handle, 0, type, nullptr, some, 8, &size, 0);
    };
    const std::string missing = "KSPExportKey: key handle, pszBlobType, or pcbResult is null";
    const std::string tooSmall = "_BLOB output buffer too small, required=";
    refused(NTE_INVALID_PARAMETER, missing, hProv, 0, 0, L"PUBLICBLOB", nullptr, some, 8, &size, 0);
    refused(NTE_INVALID_PARAMETER, missing, hProv, handle, 0, L"PUBLICBLOB", nullptr, some, 8, nullptr, 0);
    refusedAs(NTE_INVALID_PARAMETER, missing, nullptr);
    for (const wchar_t* type : {L"PRIVATEBLOB", L"CAPIPRIVATEBLOB"})
        refusedAs(NTE_NOT_SUPPORTED, "KSPExportKey: private key export not supported", type);
    for (const wchar_t* type : {L"RSAPRIVATEBLOB", L""})
        refusedAs(NTE_NOT_SUPPORTED, "KSP: Unsupported blob type for export", type);
    refusedAs(NTE_BUFFER_TOO_SMALL, "KSPExportKey: BCRYPT_RSAPUBLIC" + tooSmall + "283", L"PUBLICBLOB");
    refusedAs(NTE_BUFFER_TOO_SMALL, "KSPExportKey: LEGACY_RSAPUBLIC" + tooSmall + "276", L"CAPIPUBLICBLOB");
    EXPECT_EQ(size, 276u);
    // A handle without the public key gets it from the token.
    keyOf(handle)->publicKeyLength = 0;
    scripted::takeCalls();
    EXPECT_EQ(exported(L"PUBLICBLOB"), rsaBlob(2048, {1, 0, 1}, content(pair.modulus, 256)));
    EXPECT_EQ(scripted::takeCalls(), Lines({KEY_LIST}));
    keyOf(handle)->publicKeyLength = 0;
    attachTokens({});
    expect(NTE_BAD_KEY, "KSPExportKey",
           [&] { return ksp.ExportKey(hProv, handle, 0, L"CAPIPUBLICBLOB", nullptr, some, 8, &size, 0); },
           {"ERROR KSP: No public key data available for export"}, {KEY_LIST});
}

}  // namespace
