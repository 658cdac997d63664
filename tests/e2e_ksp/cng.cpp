#include "e2e_ksp/cng.h"

#include <algorithm>

#include "token/key_encoding.h"

namespace e2e {
namespace {

// Header and exponent of an exported RSAPUBLICBLOB.
constexpr std::ptrdiff_t modulusOffset = 24 + 3;

Bytes concatenated(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

void putWord(Bytes& blob, std::size_t value) {
    for (int i = 0; i < 4; ++i) {
        blob.push_back(static_cast<unsigned char>(value >> 8 * i));
    }
}

// Asks for the size, then for the value.
template <class Call>
Bytes twice(Call call) {
    DWORD size = 0;
    status = call(nullptr, 0, &size);
    if (status != ERROR_SUCCESS) {
        return {};
    }
    Bytes value(std::max<DWORD>(size, 132));  // the size of an ECDSA signature is told too small
    status = call(value.data(), static_cast<DWORD>(value.size()), &size);
    value.resize(status == ERROR_SUCCESS ? size : 0);
    return value;
}

}  // namespace

SECURITY_STATUS status = ERROR_SUCCESS;

CngObject openProvider() {
    CngObject provider;
    EXPECT_EQ(NCryptOpenStorageProvider(provider.put(), L"Talvik Cryptographic Provider CSP", 0), ERROR_SUCCESS);
    return provider;
}

CngObject createKey(const CngObject& provider, const wchar_t* algorithm, DWORD bits, DWORD keySpec) {
    CngObject key;
    EXPECT_EQ(NCryptCreatePersistedKey(provider, key.put(), algorithm, nullptr, keySpec, 0), ERROR_SUCCESS);
    if (bits != 0) {
        EXPECT_EQ(NCryptSetProperty(key, NCRYPT_LENGTH_PROPERTY, reinterpret_cast<BYTE*>(&bits), sizeof bits, 0),
                  ERROR_SUCCESS);
    }
    status = NCryptFinalizeKey(key, 0);
    EXPECT_EQ(status, ERROR_SUCCESS);
    return key;
}

CngObject openKey(const CngObject& provider, const std::wstring& name) {
    CngObject key;
    status = NCryptOpenKey(provider, key.put(), name.c_str(), 0, 0);
    return key;
}

CngObject importKey(const CngObject& provider, const wchar_t* type, Bytes blob, const CngObject& with) {
    CngObject key;
    status = NCryptImportKey(provider, with, type, nullptr, key.put(), blob.data(), static_cast<DWORD>(blob.size()), 0);
    EXPECT_EQ(status, ERROR_SUCCESS);
    return key;
}

void setPin(const CngObject& object) {
    std::string value = pin;
    EXPECT_EQ(NCryptSetProperty(object, NCRYPT_PIN_PROPERTY, reinterpret_cast<BYTE*>(value.data()), 5, 0),
              ERROR_SUCCESS);
}

Bytes property(const CngObject& object, const wchar_t* name) {
    return twice(
        [&](BYTE* buffer, DWORD room, DWORD* size) { return NCryptGetProperty(object, name, buffer, room, size, 0); });
}

std::wstring text(const Bytes& utf16) {
    return utf16.size() < 2 ? L"" : std::wstring(reinterpret_cast<const wchar_t*>(utf16.data()), utf16.size() / 2 - 1);
}

Bytes exported(const CngObject& key, const wchar_t* type) {
    return twice([&](BYTE* buffer, DWORD room, DWORD* size) {
        return NCryptExportKey(key, 0, type, nullptr, buffer, room, size, 0);
    });
}

Bytes publicKeyOf(const CngObject& key) {
    const Bytes blob = exported(key, BCRYPT_PUBLIC_KEY_BLOB);
    const Bytes held(blob.begin() + modulusOffset, blob.end());
    return talvik::isDerPublicKey(held) ? held : talvik::buildRsaPublicKeyDerFromBytes(held, Bytes{1, 0, 1});
}

Bytes blobOfPemKey(const std::string& file) {
    std::string hex = openssl("rsa -in " + file + " -noout -modulus").output;
    std::erase_if(hex, [](char digit) { return digit < ' '; });
    const Bytes modulus = talvik::hexStringToBytes(hex.substr(hex.find('=') + 1));
    Bytes blob;
    for (const std::size_t word : {std::size_t{BCRYPT_RSAPUBLIC_MAGIC}, modulus.size() * 8, std::size_t{3},
                                   modulus.size(), std::size_t{0}, std::size_t{0}}) {
        putWord(blob, word);
    }
    return concatenated(concatenated(blob, {1, 0, 1}), modulus);
}

Bytes keyData(const Bytes& value) {
    Bytes blob;
    putWord(blob, BCRYPT_KEY_DATA_BLOB_MAGIC);
    putWord(blob, BCRYPT_KEY_DATA_BLOB_VERSION1);
    putWord(blob, value.size());
    return concatenated(blob, value);
}

Bytes digestOf(const Bytes& data, const std::string& algorithm) {
    write("data", data);
    run("dgst -" + algorithm + " -binary -out digest data");
    return read("digest");
}

Bytes sign(const CngObject& key, Bytes digest, DWORD flags) {
    return twice([&](BYTE* buffer, DWORD room, DWORD* size) {
        return NCryptSignHash(key, nullptr, digest.data(), static_cast<DWORD>(digest.size()), buffer, room, size,
                              flags);
    });
}

Bytes encrypt(const CngObject& key, Bytes plaintext, DWORD flags) {
    return twice([&](BYTE* buffer, DWORD room, DWORD* size) {
        return NCryptEncrypt(key, plaintext.data(), static_cast<DWORD>(plaintext.size()), nullptr, buffer, room, size,
                             flags);
    });
}

Bytes decrypt(const CngObject& key, Bytes ciphertext, DWORD flags) {
    return twice([&](BYTE* buffer, DWORD room, DWORD* size) {
        return NCryptDecrypt(key, ciphertext.data(), static_cast<DWORD>(ciphertext.size()), nullptr, buffer, room, size,
                             flags);
    });
}

bool opensslVerifies(const Bytes& publicKey, const std::string& algorithm, const Bytes& digest, const Bytes& signature,
                     const std::string& options) {
    write("public.der", publicKey);
    write("digest", digest);
    const bool isRsa = signature.size() % 128 == 0;
    isRsa ? write("signature", signature) : talvik_test::writeEcdsaSignature(scratch(), "signature", signature);
    const std::string files = "-keyform DER -inkey public.der -in digest -sigfile signature";
    return openssl("pkeyutl -verify -pubin " + files + " -pkeyopt digest:" + algorithm + options).exitCode == 0;
}

}  // namespace e2e
