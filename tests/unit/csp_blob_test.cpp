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
    CspBlobTest() {
        acquire();
        ownKey("key", key);
        state = [this] { return factsOfKey(key); };
        setDevicePassword(DEVICE, "1234");
        std::memset(importing.keyId, 0xAB, sizeof importing.keyId);
        importing.storageFlag = 1;
    }

    // From a block of memory that ends where the blob ends.
    BOOL import(const Bytes& blob, HCRYPTKEY with = 0) { return importTo(&key, blob, with); }
    BOOL importTo(HCRYPTKEY* to, const Bytes& blob, HCRYPTKEY with = 0) {
        return CPImportKey(prov, blob.data(), static_cast<DWORD>(blob.size()), with, 5, to);
    }

    HCRYPTKEY key = 0;
    csp::KEY_HANDLE importing;
    const HCRYPTKEY unwrapping = reinterpret_cast<HCRYPTKEY>(&importing);
};

TEST_F(CspBlobTest, PublicKeysBecomeDerWithTheirOwnExponent) {
    for (const auto& [bits, exponent] : {std::pair<std::uint32_t, std::uint32_t>{1024, 0x10001},
                                         {2048, 0x10001},
                                         {3072, 0x10001},
                                         {4096, 0x10001},
                                         {4096, 3},
                                         {4096, 0xFFFFFFFF},
                                         {4096, 0x01020304}}) {
        Bytes modulus = bytes(bits / 8, 7);
        modulus[0] = 0xC1;
        show("bits " + number(bits),
             [&, blob = rsaBlob(bits, exponent, modulus) + Bytes{1, 2}] { return import(blob); });
        const csp::KEY_HANDLE& made = *csp::keyOf(key);
        EXPECT_EQ(content(made.publicKey, made.publicKeyLen),
                  buildRsaPublicKeyDerFromBytes(modulus, uintToBigEndianBytes(static_cast<std::int32_t>(exponent), 3)));
    }
}

TEST_F(CspBlobTest, MalformedBlobsAreRefusedWithTheirText) {
    std::vector<std::pair<std::string, Bytes>> rows = {
        {"magic", rsaBlob(1024, 3, bytes(128), 0x32415352)},
        {"short magic", rsaBlob(1024, 3, bytes(128), 0x0A)},
        {"modulus too short", rsaBlob(1024, 3, bytes(127))},
        {"size of a lie", rsaBlob(0xFFFFFFFF, 3, bytes(128))},
        {"no modulus", cut(rsaBlob(0, 3, {}), 19)},
        {"no key to unwrap with", keyBlob(SIMPLEBLOB, CALG_AES_128, bytes(5))},
        {"plain 192", keyBlob(PLAINTEXTKEYBLOB, CALG_AES_192, bytes(24))},
        {"plain 3DES", keyBlob(PLAINTEXTKEYBLOB, CALG_3DES, bytes(24))},
        {"plain nonsense", keyBlob(PLAINTEXTKEYBLOB, 0xFFFFFFFF, bytes(24))},
        {"plain 129 bytes", keyBlob(PLAINTEXTKEYBLOB, CALG_AES_128, bytes(129))}};
    for (const std::uint32_t bits : {0u, 1025u, 1536u, 8192u, 65536u})
        rows.emplace_back("bits " + number(bits), rsaBlob(bits, 0x10001, bytes(bits / 8)));
    for (const std::uint32_t type : {0, 2, 3, 4, 5, 9, 255, 7, 10})
        rows.emplace_back("type " + number(type), keyBlob(type, CALG_AES_128, bytes(16)));
    for (const auto& [name, blob] : rows) {
        show(name, [&, &blob = blob] { return import(blob); });
        show(name + " to nowhere", [&, &blob = blob] { return importTo(nullptr, blob); });
    }
    // That there is nowhere to put a key matters only where there is one.
    scripted::always("talvik_decrypt", {.output = bytes(16)});
    for (const Bytes& blob : {rsaBlob(1024, 3, bytes(128)), keyBlob(SIMPLEBLOB, CALG_AES_128, bytes(5)),
                              keyBlob(PLAINTEXTKEYBLOB, CALG_AES_128, bytes(16))})
        show("good, to nowhere", [&] { return importTo(nullptr, blob, unwrapping); });
    const BYTE some[12] = {SIMPLEBLOB};
    showNulls("CPImportKey", CPImportKey, prov, some, 12, 0, 0, &key);
    showEach<DWORD>("length", {0, 11, 12}, [&](DWORD length) { return CPImportKey(prov, some, length, 0, 0, &key); });
}

TEST_F(CspBlobTest, SessionKeysAreUnwrappedInEitherOrder) {
    const auto showImport = [&](const std::string& name, ALG_ID algorithm,
                                const std::vector<scripted::Outcome>& answers) {
        for (const scripted::Outcome& outcome : answers)
            scripted::next("talvik_decrypt", outcome);
        show(name, [&, blob = keyBlob(SIMPLEBLOB, algorithm, bytes(5))] { return import(blob, unwrapping); });
    };
    for (const ALG_ID algorithm : {CALG_AES_128, CALG_AES_256, CALG_3DES})
        showImport("algorithm " + number(algorithm), algorithm, {{0, bytes(16, 0x41)}});
    for (const std::size_t length : {24, 32, 20, 0, 33})
        showImport("value of " + number(length), CALG_AES_128, {{0, bytes(length, 0x41)}});
    for (const ALG_ID algorithm : {CALG_AES_192, CALG_RC4})
        showImport("algorithm " + number(algorithm), algorithm, {{0, bytes(24)}});
    showImport("in the other order", CALG_AES_256, {{13, bytes(3)}, {0, bytes(16)}});
    // Neither a renewed sign-on nor a lie is worth a question to the user.
    for (const scripted::Outcome& outcome : {scripted::Outcome{49}, {0, bytes(16), -16}, {0, bytes(16), INT_MAX}})
        showImport("in no order", CALG_AES_256, {outcome, outcome});
    scripted::next("talvik_decrypt", {.output = bytes(16)});
    EXPECT_TRUE(import(keyBlob(SIMPLEBLOB, CALG_AES_128, bytes(0x10001)), unwrapping));
}

TEST_F(CspBlobTest, PlainKeysAreStoredOnTheToken) {
    scripted::always("talvik_importAesKey", {.output = filled(16, 0x77)});
    for (const auto& [algorithm, length] :
         {std::pair<ALG_ID, std::size_t>{CALG_AES_128, 1}, {CALG_AES_128, 16}, {CALG_AES_256, 32}, {CALG_AES_256, 128}})
        show("value of " + number(length),
             [&, blob = keyBlob(PLAINTEXTKEYBLOB, algorithm, bytes(length))] { return import(blob); });
    scripted::next("talvik_importAesKey", {5});
    show("refused", [&, blob = keyBlob(PLAINTEXTKEYBLOB, CALG_AES_128, bytes(16))] { return import(blob); });
}

TEST_F(CspBlobTest, WrappedKeysGoToEveryKeyThatMayUnwrapThem) {
    const auto kek = [](std::uint32_t type, unsigned char fill, std::int32_t idLength = 3) {
        return wrappingKey(type, fill, static_cast<unsigned char>(fill + 1), idLength);
    };
    ALG_ID algorithm = CALG_AES_128;
    const auto showImport = [&](const std::string& name, const std::vector<scripted::Outcome>& answers) {
        for (const scripted::Outcome& outcome : answers)
            scripted::next("talvik_decrypt_aes", outcome);
        show(name, [&, blob = keyBlob(SYMMETRICWRAPKEYBLOB, algorithm, bytes(5))] { return import(blob); });
    };
    scripted::always("talvik_importAesKey", {.output = filled(16, 0x99)});
    attachToken({}, {}, {kek(11, 0x11), kek(8, 0x22), kek(9, 0x33), kek(10, 0x45), kek(8, 0x66), kek(0, 0x77)});
    for (const ALG_ID wrapped : {CALG_AES_128, CALG_RC4}) {
        algorithm = wrapped;
        for (const scripted::Outcome& first : {scripted::Outcome{13, bytes(2)}, {0, bytes(2), -2}, {0, bytes(2), 5000}})
            showImport("the second unwraps " + number(wrapped) + " after " + number(first.length.value_or(13)),
                       {first, {0, bytes(24)}});
    }
    scripted::next("talvik_importAesKey", {3});
    showImport("not stored", {{13}, {0, bytes(24)}});
    showImport("too long to be stored", {{13}, {0, bytes(129)}});
    scripted::always("talvik_decrypt_aes", {13});
    showImport("none unwraps", {});
    attachToken({});
    showImport("no keys", {});
    attachToken({}, {}, {kek(8, 0x22, -1), kek(8, 0x22, 1000)});
    showImport("lying lengths", {});
}

class CspExportTest : public CspBlobTest {
  protected:
    CspExportTest() {
        attachTokens({scripted::keyPair(0x11, 3, TALVIK_KEY_RSA_3072, 384), pair, scripted::keyPair(0xAB, 1)});
        importing.algId = CALG_RSA_SIGN;
    }
    BOOL exporting(DWORD type, DWORD room = 4096) {
        offer(room);
        return CPExportKey(prov, exported, 99, type, 9, data.data(), &size);
    }

    TalvikKeyPair pair = scripted::keyPair(0xAB, 2);
    const HCRYPTKEY exported = unwrapping;
};

TEST_F(CspExportTest, ThePublicHalfBySizeRule) {
    pair.modulus[255] = 0x5A;  // told apart from the later record of the same identifier: the first counts
    attachTokens({pair, scripted::keyPair(0xAB)});
    SHOW(CPExportKey(prov, exported, 99, PUBLICKEYBLOB, 9, nullptr, &size));
    showEach<DWORD>("room", {0, 1, 275, 276, 277, 0xFFFFFFFF},
                    [&](DWORD room) { return exporting(PUBLICKEYBLOB, room); });
    EXPECT_EQ(delivered(), words({0x206, CALG_RSA_SIGN, RSA1, 2048, 0x10001}) + reversed(content(pair.modulus, 256)));
}

TEST_F(CspExportTest, Refusals) {
    for (const std::uint32_t type : {0u, 1u, 3u, 4u, 5u, 8u}) {
        attachTokens({scripted::keyPair(0xAB, 3, type)});
        show("key type " + number(type), [&] { return exporting(PUBLICKEYBLOB); });
    }
    // The token's list may have changed since the handle was made.
    attachTokens({scripted::keyPair(0xAC)});
    show("the key has gone", [&] { return exporting(PUBLICKEYBLOB); });
    attachTokens({});
    show("all have gone", [&] { return exporting(PUBLICKEYBLOB); });
    showEach<DWORD>("type", {0, 1, 5, 8, 10, 11, 0x106, 0xFFFFFFFF, PRIVATEKEYBLOB},
                    [&](DWORD type) { return exporting(type); });
    pair.modulusLength = 0xFFFFFFFF;
    attachTokens({pair});
    show("a lying record counts as carrying the whole field", [&] { return exporting(PUBLICKEYBLOB, 700); });
    showNulls("CPExportKey", CPExportKey, prov, exported, 0, PUBLICKEYBLOB, 0, data.data(), &size);
    SHOW(CPExportKey(invalid, 0, 0, PUBLICKEYBLOB, 0, nullptr, nullptr));
}

}  // namespace
