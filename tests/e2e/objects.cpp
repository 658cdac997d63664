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

void appendTlv(Bytes& der, unsigned char tag, const Bytes& content) {
    const std::size_t size = content.size();
    der.push_back(tag);
    if (size > 255) {
        der.insert(der.end(), {0x82, static_cast<unsigned char>(size >> 8), static_cast<unsigned char>(size)});
    } else if (size > 127) {
        der.insert(der.end(), {0x81, static_cast<unsigned char>(size)});
    } else {
        der.push_back(static_cast<unsigned char>(size));
    }
    der.insert(der.end(), content.begin(), content.end());
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

Bytes publicKeyBlob(const Bytes& modulus) {
    Bytes blob = {PUBLICKEYBLOB, CUR_BLOB_VERSION, 0, 0};
    for (const DWORD word :
         {DWORD{CALG_RSA_KEYX}, DWORD{0x31415352}, static_cast<DWORD>(modulus.size() * 8), DWORD{65537}}) {
        append(blob, word);
    }
    blob.insert(blob.end(), modulus.rbegin(), modulus.rend());
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

void writePem(const Bytes& blob, const std::string& name) {
    constexpr std::size_t header = 20;
    Bytes modulus(blob.rbegin(), blob.rend() - header);
    modulus.insert(modulus.begin(), 0);  // its top bit is set
    const Bytes exponent = {blob[18], blob[17], blob[16]};
    Bytes numbers, bits = {0};
    Bytes content = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};
    appendTlv(numbers, 0x02, modulus);
    appendTlv(numbers, 0x02, exponent);
    appendTlv(bits, 0x30, numbers);
    appendTlv(content, 0x03, bits);
    Bytes der;
    appendTlv(der, 0x30, content);
    Bytes base64(2 * der.size());
    auto size = static_cast<DWORD>(base64.size());
    EXPECT_TRUE(CryptBinaryToStringA(der.data(), static_cast<DWORD>(der.size()), CRYPT_STRING_BASE64,
                                     reinterpret_cast<char*>(base64.data()), &size));
    const std::string lines(base64.begin(), base64.begin() + size);
    write(name, bytesOf("-----BEGIN PUBLIC KEY-----\n" + lines + "-----END PUBLIC KEY-----\n"));
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

void run(const std::string& arguments) {
    const OpensslResult ended = openssl(arguments);
    EXPECT_EQ(ended.exitCode, 0) << "openssl " << arguments << '\n' << ended.output;
}

Bytes reversed(const Bytes& value) {
    return {value.rbegin(), value.rend()};
}

std::string hex(const Bytes& value) {
    std::string text;
    for (const unsigned char byte : value) {
        text += "0123456789ABCDEF"[byte >> 4];
        text += "0123456789ABCDEF"[byte & 15];
    }
    return text;
}

}  // namespace e2e
