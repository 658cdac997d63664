#include "e2e/objects.h"

#include <algorithm>
#include <cstring>

namespace e2e {
namespace {

void append(Bytes& blob, DWORD value) {
    for (int shift = 0; shift < 32; shift += 8) {
        blob.push_back(static_cast<unsigned char>(value >> shift));
    }
}

}  // namespace

void presentPin(const Context& context) {
    EXPECT_TRUE(CryptSetProvParam(context, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(pin), 0));
}

TalvikKeyPair makeKeyPair(const std::string& token, std::uint32_t keyType, std::uint32_t usage) {
    TalvikKeyPair key{};
    key.keyType = keyType;
    key.usage = usage;
    EXPECT_EQ(talvik_generateKeyPair(token.c_str(), pin, &key, nullptr), 0);
    return key;
}

void storeCertificate(const std::string& token, const Bytes& der) {
    TalvikCertificate certificate{};
    std::copy(der.begin(), der.end(), certificate.der);
    certificate.derLength = static_cast<std::uint32_t>(der.size());
    EXPECT_EQ(talvik_importCertificate(token.c_str(), pin, &certificate, nullptr), 0);
}

std::string containerOf(const TalvikKeyPair& key) {
    return hex(Bytes(std::begin(key.keyId), std::end(key.keyId)));
}

Key import(const Context& context, const Bytes& blob, const Key* with) {
    Key key;
    if (!CryptImportKey(context, blob.data(), static_cast<DWORD>(blob.size()), with ? HCRYPTKEY{*with} : 0, 0,
                        key.put())) {
        *key.put() = 0;
    }
    return key;
}

Bytes keyBlob(BYTE type, ALG_ID algorithm, const Bytes& payload) {
    Bytes blob = {type, CUR_BLOB_VERSION, 0, 0};
    append(blob, algorithm);
    append(blob, type == SIMPLEBLOB ? DWORD{CALG_RSA_KEYX} : static_cast<DWORD>(payload.size()));
    blob.insert(blob.end(), payload.begin(), payload.end());
    return blob;
}

Bytes exported(const Key& key) {
    DWORD size = 0;
    EXPECT_TRUE(CryptExportKey(key, 0, PUBLICKEYBLOB, 0, nullptr, &size));
    Bytes blob(size);
    EXPECT_TRUE(CryptExportKey(key, 0, PUBLICKEYBLOB, 0, blob.data(), &size));
    blob.resize(size);
    return blob;
}

void writePublicKey(const Bytes& blob) {
    talvik_test::writeRsaKey(scratch(), "public", Bytes(blob.rbegin(), blob.rend() - 20),
                             {blob[18], blob[17], blob[16]});
}

void writePublicKey(const TalvikKeyPair& pair) {
    talvik_test::writeRsaKey(scratch(), "public", Bytes(pair.modulus, pair.modulus + pair.modulusLength));
}

Bytes encrypt(const Key& key, const Bytes& plaintext, std::size_t room, DWORD flags) {
    constexpr std::size_t canary = 16;
    Bytes data(std::max(room, plaintext.size()) + canary, 0xCD);
    std::copy(plaintext.begin(), plaintext.end(), data.begin());
    auto size = static_cast<DWORD>(plaintext.size());
    const BOOL done = CryptEncrypt(key, 0, TRUE, flags, data.data(), &size, static_cast<DWORD>(room));
    EXPECT_EQ(Bytes(data.end() - canary, data.end()), Bytes(canary, 0xCD));
    data.resize(done ? size : 0);
    return data;
}

Bytes decrypt(const Key& key, Bytes ciphertext) {
    auto size = static_cast<DWORD>(ciphertext.size());
    ciphertext.resize(CryptDecrypt(key, 0, TRUE, 0, ciphertext.data(), &size) ? size : 0);
    return ciphertext;
}

}  // namespace e2e
