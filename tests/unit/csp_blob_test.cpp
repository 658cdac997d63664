#include "csp/key.h"
#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

constexpr std::uint32_t RSA1 = 0x31415352;

// Type, version 2, reserved 0x7777, algorithm.
Bytes header(std::uint32_t type, ALG_ID algorithm) {
    return words({type | 0x77770200, algorithm});
}
Bytes rsaBlob(std::uint32_t bits, std::uint32_t exponent, const Bytes& modulus, std::uint32_t magic = RSA1) {
    return header(PUBLICKEYBLOB, CALG_RSA_KEYX) + words({magic, bits, exponent}) + reversed(modulus);
}
// What lies between the header and the payload is not looked at.
Bytes keyBlob(std::uint32_t type, ALG_ID algorithm, const Bytes& payload) {
    return header(type, algorithm) + words({0xDEADBEEF}) + payload;
}

class CspBlobTest : public ProviderTest {
  protected:
    CspBlobTest() : prov(acquire()) {
        setDevicePassword(DEVICE, "1234");
        std::memset(importing.keyId, 0xAB, sizeof importing.keyId);
        importing.storageFlag = 1;
    }
    ~CspBlobTest() override { release(); }

    // From a block of memory that ends where the blob ends.
    Call import(const Bytes& blob, bool withKey = false) {
        return [=, this] {
            release();
            return CPImportKey(prov, blob.data(), static_cast<DWORD>(blob.size()),
                               withKey ? reinterpret_cast<HCRYPTKEY>(&importing) : 0, 5, &handle);
        };
    }
    Call nowhere(const Bytes& blob, bool withKey = false) {
        return [=, this] {
            return CPImportKey(prov, blob.data(), static_cast<DWORD>(blob.size()),
                               withKey ? reinterpret_cast<HCRYPTKEY>(&importing) : 0, 5, nullptr);
        };
    }
    void release() {  // without a line in the log
        if (handle != UNTOUCHED_HANDLE)
            delete csp::keyOf(std::exchange(handle, UNTOUCHED_HANDLE));
    }
    const csp::KEY_HANDLE& imported() const { return *csp::keyOf(handle); }

    static Lines head(const Bytes& blob) {
        const std::string algorithm =
            number(blob[4] | blob[5] << 8 | blob[6] << 16 | static_cast<DWORD>(blob[7]) << 24);
        return {"DEBUG CPImportKey",
                "DEBUG Input length : " + number(blob.size()),
                "DEBUG Input flag : 5",
                "DEBUG CPImportKey - input type : " + number(blob[0]),
                "DEBUG CPImportKey - input version : " + number(blob[1]),
                "DEBUG CPImportKey - input alg : " + algorithm,
                "DEBUG CPImportKey - input data length : " + number(blob.size() - 12)};
    }
    HCRYPTPROV prov;
    HCRYPTKEY handle = UNTOUCHED_HANDLE;
    csp::KEY_HANDLE importing;
};

TEST_F(CspBlobTest, PublicKeysBecomeDerWithTheirOwnExponent) {
    for (const std::uint32_t bits : {1024u, 2048u, 3072u, 4096u}) {
        for (const auto& [exponent, written] :
             {std::pair{0x10001u, "010001"}, {3u, "000003"}, {0xFFFFFFFFu, "000000"}, {0x01020304u, "020304"}}) {
            Bytes modulus = bytes(bits / 8, 7);
            modulus[0] = 0xC1;
            const Bytes blob = rsaBlob(bits, exponent, modulus) + Bytes{1, 2};
            expectSuccess(import(blob), head(blob) + Lines{std::string("DEBUG Public exponent : ") + written,
                                                           "DEBUG PUBLICKEYBLOB imported successfully"});
            const Bytes der = buildRsaPublicKeyDer(hex(modulus), written);
            EXPECT_EQ(content(imported().publicKey, imported().publicKeyLen), der);
            EXPECT_EQ(std::tuple(imported().algId, imported().keyIdLen, imported().keyBits, imported().aesKeyLen),
                      std::tuple(bits / 1024, 16u, 0u, 0));
        }
    }
}

TEST_F(CspBlobTest, MalformedBlobsAreRefusedWithTheirText) {
    const std::string magic = "CPImportKey PUBLICKEYBLOB: magic mismatch, actual=0x";
    const std::string size = "CPImportKey PUBLICKEYBLOB: size mismatch, cbDataLen=";
    std::vector<std::tuple<Bytes, ErrorCode, std::string>> rows = {
        {rsaBlob(1024, 3, bytes(128), 0x32415352), NTE_BAD_DATA, magic + "32415352"},
        {rsaBlob(1024, 3, bytes(128), 0x0A), NTE_BAD_DATA, magic + "a"},
        {rsaBlob(1024, 3, bytes(127)), NTE_BAD_DATA, size + "147 required=148"},
        {rsaBlob(0xFFFFFFFF, 3, bytes(128)), NTE_BAD_DATA, size + "148 required=536870931"},
        {cut(rsaBlob(0, 3, {}), 19), NTE_BAD_DATA, size + "19 required=20"},
        {keyBlob(SIMPLEBLOB, CALG_AES_128, bytes(5)), NTE_BAD_TYPE, "SIMPLEBLOB requires public key handle"},
        {keyBlob(PLAINTEXTKEYBLOB, CALG_AES_192, bytes(24)), NTE_BAD_ALGID,
         "Unsupported algorithm for PLAINTEXTKEYBLOB: 26127"},
        {keyBlob(PLAINTEXTKEYBLOB, 0xFFFFFFFF, bytes(24)), NTE_BAD_ALGID,
         "Unsupported algorithm for PLAINTEXTKEYBLOB: 4294967295"},
        {keyBlob(PLAINTEXTKEYBLOB, CALG_AES_128, bytes(129)), NTE_BAD_TYPE, "PLAINTEXTKEYBLOB import failed"}};
    for (const std::uint32_t type : {0, 2, 3, 4, 5, 7, 9, 10, 12, 255})
        rows.emplace_back(keyBlob(type, CALG_AES_128, bytes(16)), NTE_BAD_TYPE,
                          type == PRIVATEKEYBLOB || type == PUBLICKEYBLOBEX
                              ? "Key Block Not Implemented yet"
                              : "CPImportKey - Unsupported type : " + number(type));
    for (const auto& [blob, error, text] : rows) {
        SCOPED_TRACE(text);
        expectFailure(import(blob), error, head(blob) + ("ERROR " + text));
        EXPECT_EQ(handle, UNTOUCHED_HANDLE);
        // That there is nowhere to put a key matters only where there is one.
        if (text != "PLAINTEXTKEYBLOB import failed")
            expectError(nowhere(blob), error, "ERROR " + text);
    }
    for (const std::uint32_t bits : {0u, 1025u, 1536u, 8192u, 65536u}) {
        const Bytes blob = rsaBlob(bits, 0x10001, bytes(bits / 8));
        expectFailure(import(blob), NTE_BAD_DATA,
                      head(blob) + "DEBUG Public exponent : 010001" + "ERROR Unsupported RSA key size");
    }
    const BYTE some[12] = {SIMPLEBLOB};
    const auto refused = refusalsOf("CPImportKey", CPImportKey);
    const std::string noContext = "CPImportKey - Contest null or not initialised";
    refused(ERROR_INVALID_PARAMETER, "CPImportKey - Input data is null", 0, nullptr, 12, 0, 0, &handle);
    refused(NTE_BAD_UID, noContext, 0, some, 12, 0, 0, &handle);
    refused(NTE_BAD_UID, noContext, invalid, some, 12, 0, 0, &handle);
    for (HCRYPTKEY* const to : {&handle, static_cast<HCRYPTKEY*>(nullptr)})
        for (const DWORD length : {0u, 11u, 12u})
            refused(NTE_INVALID_PARAMETER, "CPImportKey - Input data to import is empty", prov, some, length, 0, 0, to);
    scripted::always("talvik_decrypt", {.output = bytes(16)});
    for (const Bytes& blob : {rsaBlob(1024, 3, bytes(128)), keyBlob(SIMPLEBLOB, CALG_AES_128, bytes(5)),
                              keyBlob(PLAINTEXTKEYBLOB, CALG_AES_128, bytes(16))})
        expectError(nowhere(blob, true), ERROR_INVALID_PARAMETER, "ERROR CPImportKey - phKey is null");
    EXPECT_EQ(scripted::callCount("talvik_importAesKey"), 0);
}

// Cut anywhere, or with any header byte turned over, a blob is imported or refused with one of its errors.
TEST_F(CspBlobTest, CutAndDamagedBlobsDoNoHarm) {
    setLogLevel(0);
    scripted::always("talvik_decrypt", {13});
    scripted::always("talvik_importAesKey", {11});
    struct {
        Bytes blob;
        ErrorCode whenCut;
    } const rows[] = {{rsaBlob(1024, 0x10001, bytes(128)), NTE_BAD_DATA},
                      {keyBlob(SIMPLEBLOB, CALG_AES_128, bytes(256)), NTE_FAIL},
                      {keyBlob(PLAINTEXTKEYBLOB, CALG_AES_128, bytes(16)), NTE_BAD_TYPE},
                      {keyBlob(SYMMETRICWRAPKEYBLOB, CALG_AES_128, bytes(32)), NTE_BAD_KEY}};
    for (const auto& row : rows) {
        for (std::size_t length = 1; length < row.blob.size(); ++length) {
            EXPECT_FALSE(import(cut(row.blob, length), true)());
            EXPECT_EQ(GetLastError(), static_cast<DWORD>(length <= 12 ? NTE_INVALID_PARAMETER : row.whenCut)) << length;
        }
        for (std::size_t at = 0; at < 20; ++at) {
            Bytes damaged = row.blob;
            damaged[at] ^= 0xFF;
            if (!import(damaged, true)()) {
                EXPECT_THAT(static_cast<HRESULT>(GetLastError()),
                            AnyOf(NTE_BAD_DATA, NTE_BAD_TYPE, NTE_BAD_ALGID, NTE_FAIL, NTE_BAD_KEY))
                    << at;
            }
        }
    }
}

TEST_F(CspBlobTest, SessionKeysAreUnwrappedInEitherOrder) {
    const auto call = [](const Bytes& ciphertext) {
        return "talvik_decrypt(\"T1\", " + hex(filled(16, 0xAB)) + ", \"1234\", " + hex(ciphertext) +
               ", 5, out, out, true, null)";
    };
    const Bytes received = bytes(5);
    const Lines once = {call(reversed(received))}, twice = {call(reversed(received)), call(received)};
    const Lines unwrapped = {"DEBUG Output key id : 00000000000000000000000000000000",
                             "DEBUG SIMPLEBLOB imported successfully (AES)"};
    const Lines failed = {"ERROR SIMPLEBLOB decryption failed"};
    const auto start = [&](const Bytes& blob) {
        return head(blob) + "DEBUG Input key id : ABABABABABABABABABABABABABABABAB";
    };
    for (const auto& [algorithm, code] :
         {std::pair<ALG_ID, DWORD>{CALG_AES_128, 8}, {CALG_AES_256, 10}, {CALG_3DES, 11}}) {
        const Bytes blob = keyBlob(SIMPLEBLOB, algorithm, received);
        for (const std::size_t length : {16u, 24u, 32u, 20u, 0u}) {
            const Bytes value = bytes(length, 0x41);
            scripted::next("talvik_decrypt", {.output = value});
            expectSuccess(import(blob, true), start(blob) + unwrapped, once);
            const csp::KEY_HANDLE& key = imported();
            EXPECT_EQ(content(key.aesKey, key.aesKeyLen), value);
            EXPECT_EQ(std::tuple(key.algId, key.keyIdLen, key.keyBits, key.publicKeyLen),
                      std::tuple(code, 16u, 0u, 0u));
        }
        scripted::next("talvik_decrypt", {13, bytes(3)});
        scripted::next("talvik_decrypt", {.output = bytes(16)});
        expectSuccess(import(blob, true), start(blob) + failed + unwrapped, twice);
    }
    scripted::next("talvik_decrypt", {.output = bytes(16)});
    EXPECT_TRUE(import(keyBlob(SIMPLEBLOB, CALG_AES_128, bytes(0x10001)), true)());
    const Bytes blob = keyBlob(SIMPLEBLOB, CALG_AES_256, received);
    scripted::next("talvik_decrypt", {.output = bytes(33)});
    expectFailure(import(blob, true), NTE_BAD_DATA, start(blob) + "ERROR SIMPLEBLOB decryption failed (key too long)",
                  once);
    for (const ALG_ID algorithm : {CALG_AES_192, CALG_RC4}) {
        const Bytes other = keyBlob(SIMPLEBLOB, algorithm, received);
        scripted::next("talvik_decrypt", {.output = bytes(24)});
        expectFailure(import(other, true), NTE_BAD_ALGID,
                      start(other) + ("ERROR Unsupported algorithm for SIMPLEBLOB: " + number(algorithm)), once);
    }
    // Neither a renewed sign-on nor a lie is worth a question to the user.
    for (const scripted::Outcome& outcome : {scripted::Outcome{49}, {0, bytes(16), -16}, {0, bytes(16), INT_MAX}}) {
        scripted::next("talvik_decrypt", outcome);
        scripted::next("talvik_decrypt", outcome);
        expectFailure(import(blob, true), NTE_FAIL,
                      start(blob) + failed + "ERROR SIMPLEBLOB decryption failed (both orderings)", twice);
        EXPECT_EQ(handle, UNTOUCHED_HANDLE);
    }
}

TEST_F(CspBlobTest, PlainKeysAreStoredOnTheToken) {
    for (const auto& [algorithm, type] : {std::pair<ALG_ID, DWORD>{CALG_AES_128, 8}, {CALG_AES_256, 10}}) {
        for (const std::size_t length : {1u, 16u, 32u, 128u}) {
            const Bytes blob = keyBlob(PLAINTEXTKEYBLOB, algorithm, bytes(length));
            scripted::next("talvik_importAesKey", {.output = filled(16, 0x77)});
            expectSuccess(import(blob), head(blob) + "DEBUG PLAINTEXTKEYBLOB imported successfully (AES)",
                          {storeAesCall(bytes(length), type)});
            EXPECT_THAT(imported().keyId, Each(0x77));
            EXPECT_EQ(std::tuple(imported().keyIdLen, imported().algId, imported().aesKeyLen),
                      std::tuple(16u, algorithm, 0));
            EXPECT_THAT(imported().aesKey, Each(0));
        }
        scripted::next("talvik_importAesKey", {5});
        const Bytes blob = keyBlob(PLAINTEXTKEYBLOB, algorithm, bytes(16));
        expectFailure(import(blob), NTE_BAD_TYPE, head(blob) + "ERROR PLAINTEXTKEYBLOB import failed",
                      {storeAesCall(bytes(16), type)});
    }
}

TEST_F(CspBlobTest, WrappedKeysGoToEveryKeyThatMayUnwrapThem) {
    const auto kek = [](std::uint32_t type, unsigned char fill, std::int32_t idLength = 3) {
        return wrappingKey(type, fill, static_cast<unsigned char>(fill + 1), idLength);
    };
    const std::string none = "ERROR Failed to unwrap SYMMETRICWRAPKEYBLOB with any available KEK";
    const std::string notStored = "ERROR Import of unwrapped AES key failed";
    for (const auto& [algorithm, type] : {std::pair<ALG_ID, DWORD>{CALG_AES_128, 8}, {CALG_RC4, 10}}) {
        const Bytes blob = keyBlob(SYMMETRICWRAPKEYBLOB, algorithm, bytes(5));
        const Lines start = head(blob) + "DEBUG SYMMETRICWRAPKEYBLOB: wrapped key length = 5";
        attachToken({}, {}, {kek(11, 0x11), kek(8, 0x22), kek(9, 0x33), kek(10, 0x45), kek(8, 0x66), kek(0, 0x77)});
        const Lines tries = {AES_LIST, unwrapCall(filled(3, 0x23), false), unwrapCall(filled(3, 0x46), true)};
        const Lines found = start + "DEBUG Successfully unwrapped key with KEK: 45454545454545454545454545454545";
        const auto answerOnSecond = [](const scripted::Outcome& first, std::size_t length = 24) {
            scripted::next("talvik_decrypt_aes", first);
            scripted::next("talvik_decrypt_aes", {.output = bytes(length)});
        };
        for (const scripted::Outcome& first :
             {scripted::Outcome{13, bytes(2)}, {0, bytes(2), -2}, {0, bytes(2), 5000}}) {
            answerOnSecond(first);
            scripted::next("talvik_importAesKey", {.output = filled(16, 0x99)});
            expectSuccess(import(blob), found + "DEBUG SYMMETRICWRAPKEYBLOB imported successfully",
                          tries + storeAesCall(bytes(24), type));
            EXPECT_THAT(imported().keyId, Each(0x99));
            EXPECT_EQ(std::tuple(imported().algId, imported().aesKeyLen), std::tuple(algorithm, 0));
        }
        answerOnSecond({13});
        scripted::next("talvik_importAesKey", {3});
        expectFailure(import(blob), NTE_BAD_TYPE, found + notStored, tries + storeAesCall(bytes(24), type));
        answerOnSecond({13}, 129);
        expectFailure(import(blob), NTE_BAD_TYPE, found + notStored, tries);
        scripted::always("talvik_decrypt_aes", {13});
        expectFailure(import(blob), NTE_BAD_KEY, start + none, tries + unwrapCall(filled(3, 0x67), false));
        attachToken({});
        expectFailure(import(blob), NTE_BAD_KEY, start + none, {AES_LIST});
        attachToken({}, {}, {kek(8, 0x22, -1), kek(8, 0x22, 1000)});
        const std::string whole = unwrapCall(filled(128, 0x23), false);
        expectFailure(import(blob), NTE_BAD_KEY, start + none, {AES_LIST, whole, whole});
    }
}

class CspExportTest : public CspBlobTest {
  protected:
    CspExportTest() {
        attachTokens({scripted::keyPair(0x11, 3, TALVIK_KEY_RSA_3072, 384), pair, scripted::keyPair(0xAB, 1)});
        importing.algId = CALG_RSA_SIGN;
    }
    Call exporting(DWORD type, DWORD room = 4096, bool hasBuffer = true) {
        return [=, this] {
            offer(room);
            return CPExportKey(prov, key, 99, type, 9, hasBuffer ? data.data() : nullptr, &size);
        };
    }
    static Lines head(DWORD type) {
        return {"DEBUG CPExportKey", "DEBUG dwBlobType : " + number(type), "DEBUG dwFlags : 9"};
    }

    TalvikKeyPair pair = scripted::keyPair(0xAB, 2);
    const HCRYPTKEY key = reinterpret_cast<HCRYPTKEY>(&importing);
};

TEST_F(CspExportTest, ThePublicHalfBySizeRule) {
    pair.modulus[255] = 0x5A;  // told apart from the later record of the same identifier: the first counts
    attachTokens({pair, scripted::keyPair(0xAB)});
    expectOutcome(exporting(PUBLICKEYBLOB, UNTOUCHED, false), TRUE, ERROR_MORE_DATA,
                  head(6) + "DEBUG Emport public key more data required" + "DEBUG Exportkey return status : 1",
                  {KEY_LIST});
    EXPECT_TRUE(isOnlyTold(276));
    for (const DWORD room : {0u, 1u, 275u}) {
        expectFailure(exporting(PUBLICKEYBLOB, room), ERROR_MORE_DATA,
                      head(6) + "ERROR ExportPublicKeyComponents: output buffer too small, required=276" +
                          "DEBUG Exportkey return status : 0",
                      {KEY_LIST});
        EXPECT_TRUE(isOnlyTold(276));
    }
    for (const DWORD room : {276u, 277u, 0xFFFFFFFFu}) {
        expectOutcome(exporting(PUBLICKEYBLOB, room), TRUE, 0,
                      head(6) + "DEBUG key usage : 9216" + "DEBUG Exportkey return status : 1", {KEY_LIST});
        EXPECT_EQ(delivered(),
                  words({0x206, CALG_RSA_SIGN, RSA1, 2048, 0x10001}) + reversed(content(pair.modulus, 256)));
    }
}

TEST_F(CspExportTest, Refusals) {
    const std::string prefix = "ExportPublicKeyComponents: ";
    const auto refusing = [&](DWORD type, ErrorCode error, const std::string& because, const Lines& calls) {
        expectFailure(exporting(type), error,
                      head(type) + Lines{"ERROR " + because, "DEBUG Exportkey return status : 0"}, calls);
        EXPECT_TRUE(isOnlyTold(4096));
    };
    for (const std::uint32_t type : {0u, 1u, 3u, 4u, 5u, 8u}) {
        attachTokens({scripted::keyPair(0xAB, 3, type)});
        refusing(PUBLICKEYBLOB, NTE_BAD_KEY, prefix + "key algorithm is not RSA-2048, cannot export", {KEY_LIST});
    }
    // The token's list may have changed since the handle was made.
    attachTokens({scripted::keyPair(0xAC)});
    refusing(PUBLICKEYBLOB, NTE_BAD_KEY, prefix + "matching key not found in key list", {KEY_LIST});
    attachTokens({});
    refusing(PUBLICKEYBLOB, NTE_BAD_KEY, prefix + "key list is empty", {KEY_LIST});
    refusing(PRIVATEKEYBLOB, ERROR_ACCESS_DENIED, "CPExportKey: PRIVATEKEYBLOB export denied", {});
    for (const DWORD type : {0u, 1u, 5u, 8u, 10u, 11u, 0x106u, 0xFFFFFFFFu})
        refusing(type, NTE_BAD_TYPE, "CPExportKey: unsupported dwBlobType=" + number(type), {});
    // A record that lies about its modulus is taken as carrying the whole field.
    pair.modulusLength = 0xFFFFFFFF;
    attachTokens({pair});
    EXPECT_FALSE(exporting(PUBLICKEYBLOB, 700)());
    EXPECT_TRUE(isOnlyTold(1044));

    const auto refused = refusalsOf("CPExportKey", CPExportKey);
    const std::string missing = "CPExportKey: hKey or pcbData is null";
    refused(ERROR_INVALID_PARAMETER, missing, 0, 0, 0, 6, 0, nullptr, &size);
    refused(ERROR_INVALID_PARAMETER, missing, 0, key, 0, 6, 0, nullptr, nullptr);
    refused(NTE_BAD_UID, "CPExportKey: context is null or not initialized", invalid, key, 0, 6, 0, nullptr, &size);
}

}  // namespace
