#include "e2e_ksp/cng.h"

namespace e2e {
namespace {

// Header and exponent of an exported RSAPUBLICBLOB.
constexpr std::ptrdiff_t modulusOffset = 24 + 3;
constexpr DWORD longestEcdsaSignature = 132;  // their size is told too small

// Words, least significant byte first, and what follows them.
Bytes blobOf(std::initializer_list<std::size_t> words, std::initializer_list<Bytes> parts) {
    Bytes blob;
    for (const std::size_t word : words) {
        for (int shift = 0; shift < 32; shift += 8) {
            blob.push_back(static_cast<unsigned char>(word >> shift));
        }
    }
    for (const Bytes& part : parts) {
        blob.insert(blob.end(), part.begin(), part.end());
    }
    return blob;
}

DWORD sizeOf(const Bytes& bytes) {
    return static_cast<DWORD>(bytes.size());
}

// `call` takes a buffer, its room and the place for the size.
template <class Call>
Bytes answered(Call call) {
    return delivered(
        [&](BYTE* buffer, DWORD* size) {
            status = call(buffer, *size, size);
            return status == ERROR_SUCCESS;
        },
        longestEcdsaSignature);
}

}  // namespace

thread_local SECURITY_STATUS status = ERROR_SUCCESS;

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
    EXPECT_EQ(NCryptFinalizeKey(key, 0), ERROR_SUCCESS);
    return key;
}

CngObject openKey(const CngObject& provider, const std::string& name) {
    CngObject key;
    status = NCryptOpenKey(provider, key.put(), std::wstring(name.begin(), name.end()).c_str(), 0, 0);
    return key;
}

CngObject importKey(const CngObject& provider, const wchar_t* type, Bytes blob, const CngObject& with) {
    CngObject key;
    EXPECT_EQ(NCryptImportKey(provider, with, type, nullptr, key.put(), blob.data(), sizeOf(blob), 0), ERROR_SUCCESS);
    return key;
}

SECURITY_STATUS givePin(const CngObject& object, std::string value) {
    return NCryptSetProperty(object, NCRYPT_PIN_PROPERTY, reinterpret_cast<BYTE*>(value.data()),
                             static_cast<DWORD>(value.size() + 1), 0);
}

Bytes property(const CngObject& object, const wchar_t* name) {
    return answered(
        [&](BYTE* buffer, DWORD room, DWORD* size) { return NCryptGetProperty(object, name, buffer, room, size, 0); });
}

std::string nameOf(const CngObject& object, const wchar_t* name) {
    const Bytes utf16 = property(object, name);
    std::string narrow;
    for (std::size_t i = 0; i + 2 < utf16.size(); i += 2) {
        narrow += static_cast<char>(utf16[i]);
    }
    return narrow;
}

Bytes exported(const CngObject& key, const wchar_t* type) {
    return answered([&](BYTE* buffer, DWORD room, DWORD* size) {
        return NCryptExportKey(key, 0, type, nullptr, buffer, room, size, 0);
    });
}

std::vector<std::string> enumerateKeys(const CngObject& provider) {
    std::vector<std::string> names;
    void* state = nullptr;
    NCryptKeyName* name = nullptr;
    while ((status = NCryptEnumKeys(provider, nullptr, &name, &state, 0)) == ERROR_SUCCESS) {
        const std::wstring found = std::wstring(name->pszName) + L' ' + name->pszAlgid + L' ';
        names.push_back(std::string(found.begin(), found.end()) + std::to_string(name->dwLegacyKeySpec));
        EXPECT_EQ(NCryptFreeBuffer(name), ERROR_SUCCESS);
    }
    EXPECT_EQ(NCryptFreeBuffer(state), ERROR_SUCCESS);
    return names;
}

Bytes publicKeyOf(const CngObject& key) {
    const Bytes blob = exported(key, BCRYPT_PUBLIC_KEY_BLOB);
    const Bytes held(blob.begin() + modulusOffset, blob.end());
    const bool isDer = held.front() == 0x30;  // a modulus has its top bit set
    isDer ? write("public.der", held) : writeRsaKey(scratch(), "public", held);
    return read("public.der");
}

Bytes blobOfNewKey() {
    run("genrsa -out other.pem 2048");
    run("rsa -in other.pem -RSAPublicKey_out -outform DER -out other.der");
    const Bytes der = read("other.der");  // ends with the modulus and the exponent's five bytes
    return blobOf({BCRYPT_RSAPUBLIC_MAGIC, 2048, 3, 256, 0, 0}, {{1, 0, 1}, Bytes(der.end() - 5 - 256, der.end() - 5)});
}

Bytes keyData(const Bytes& value) {
    return blobOf({BCRYPT_KEY_DATA_BLOB_MAGIC, BCRYPT_KEY_DATA_BLOB_VERSION1, value.size()}, {value});
}

Bytes digestOf(const Bytes& data, const std::string& algorithm) {
    write("data", data);
    run("dgst -" + algorithm + " -binary -out digest data");
    return read("digest");
}

Bytes sign(const CngObject& key, Bytes digest, DWORD flags) {
    return answered([&](BYTE* buffer, DWORD room, DWORD* size) {
        return NCryptSignHash(key, nullptr, digest.data(), sizeOf(digest), buffer, room, size, flags);
    });
}

bool verifies(const CngObject& key, Bytes digest, Bytes signature, DWORD flags) {
    status =
        NCryptVerifySignature(key, nullptr, digest.data(), sizeOf(digest), signature.data(), sizeOf(signature), flags);
    EXPECT_TRUE(status == ERROR_SUCCESS || status == NTE_BAD_SIGNATURE);
    return status == ERROR_SUCCESS;
}

Bytes encrypt(const CngObject& key, Bytes plaintext, DWORD flags) {
    return answered([&](BYTE* buffer, DWORD room, DWORD* size) {
        return NCryptEncrypt(key, plaintext.data(), sizeOf(plaintext), nullptr, buffer, room, size, flags);
    });
}

Bytes decrypt(const CngObject& key, Bytes ciphertext, DWORD flags) {
    return answered([&](BYTE* buffer, DWORD room, DWORD* size) {
        return NCryptDecrypt(key, ciphertext.data(), sizeOf(ciphertext), nullptr, buffer, room, size, flags);
    });
}

bool opensslVerifies(const Bytes& publicKey, const std::string& algorithm, const Bytes& digest, const Bytes& signature,
                     const std::string& options) {
    write("public.der", publicKey);
    write("digest", digest);
    const bool isRsa = signature.size() % 128 == 0;
    isRsa ? write("signature", signature) : writeEcdsaSignature(scratch(), "signature", signature);
    const std::string files = "-keyform DER -inkey public.der -in digest -sigfile signature";
    return opensslAgrees("pkeyutl -verify -pubin " + files + " -pkeyopt digest:" + algorithm + options);
}

}  // namespace e2e
