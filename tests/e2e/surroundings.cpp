#include "e2e/surroundings.h"

namespace e2e {

Context acquire(const std::string& container, DWORD flags) {
    Context context;
    const char* const name = container.empty() ? nullptr : container.c_str();
    if (!CryptAcquireContextA(context.put(), name, providerName, PROV_RSA_FULL, flags)) {
        *context.put() = 0;
    }
    return context;
}

Key generate(const Context& context, ALG_ID algorithm, DWORD bits) {
    Key key;
    CryptGenKey(context, algorithm, bits << 16, key.put());
    return key;
}

Key userKey(const Context& context, DWORD keySpec) {
    Key key;
    CryptGetUserKey(context, keySpec, key.put());
    return key;
}

Key import(const Context& context, const Bytes& blob, HCRYPTKEY with) {
    Key key;
    if (!CryptImportKey(context, blob.data(), static_cast<DWORD>(blob.size()), with, 0, key.put())) {
        *key.put() = 0;
    }
    return key;
}

Hash digest(const Context& context, ALG_ID algorithm, const Bytes& data) {
    Hash hash;
    EXPECT_TRUE(CryptCreateHash(context, algorithm, 0, 0, hash.put()));
    EXPECT_TRUE(CryptHashData(hash, data.data(), static_cast<DWORD>(data.size()), 0));
    return hash;
}

Bytes keyBlob(BYTE type, ALG_ID algorithm, const Bytes& payload) {
    Bytes blob = {type, CUR_BLOB_VERSION, 0, 0};
    for (const DWORD word :
         {DWORD{algorithm}, type == SIMPLEBLOB ? CALG_RSA_KEYX : static_cast<DWORD>(payload.size())}) {
        for (int shift = 0; shift < 32; shift += 8) {
            blob.push_back(static_cast<unsigned char>(word >> shift));
        }
    }
    blob.insert(blob.end(), payload.begin(), payload.end());
    return blob;
}

BOOL givePin(const Context& context, const char* text, DWORD parameter) {
    return CryptSetProvParam(context, parameter, reinterpret_cast<const BYTE*>(text), 0);
}

Bytes sign(const Hash& hash, DWORD keySpec) {
    return delivered([&](BYTE* data, DWORD* size) { return CryptSignHashA(hash, keySpec, nullptr, 0, data, size); });
}

Bytes valueOf(const Hash& hash) {
    return delivered([&](BYTE* data, DWORD* size) { return CryptGetHashParam(hash, HP_HASHVAL, data, size, 0); });
}

bool verifies(const Hash& hash, const Bytes& signature, const Key& key) {
    return CryptVerifySignatureA(hash, signature.data(), static_cast<DWORD>(signature.size()), key, nullptr, 0);
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

Bytes publicKey(const Context& context, DWORD keySpec) {
    Bytes info = delivered([&](BYTE* data, DWORD* size) {
        return CryptExportPublicKeyInfo(context, keySpec, X509_ASN_ENCODING,
                                        reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(data), size);
    });
    EXPECT_FALSE(info.empty()) << std::hex << GetLastError();
    return delivered([&](BYTE* data, DWORD* size) {
        return CryptEncodeObject(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, info.data(), data, size);
    });
}

std::string containerOf(const Context& context) {
    const Bytes name =
        delivered([&](BYTE* data, DWORD* size) { return CryptGetProvParam(context, PP_CONTAINER, data, size, 0); });
    return std::string(name.begin(), name.end()).c_str();
}

DWORD keyParameter(const Key& key, DWORD parameter) {
    DWORD value = 0;
    DWORD size = sizeof value;
    EXPECT_TRUE(CryptGetKeyParam(key, parameter, reinterpret_cast<BYTE*>(&value), &size, 0));
    return value;
}

bool opensslAccepts(const Bytes& publicKey, const std::string& option, const Bytes& data, const Bytes& signature) {
    write("signed", data);
    write("signature", reversed(signature));
    write("public.der", publicKey);
    return opensslAgrees("dgst " + option + " -keyform DER -verify public.der -signature signature signed");
}

}  // namespace e2e
