#include <algorithm>
#include <cstdlib>

#include "virtual_token/fixture.h"

namespace talvik_test {
namespace {

int sizeOf(const Bytes& bytes) {
    return static_cast<int>(bytes.size());
}

const unsigned char* orNull(const Bytes& bytes) {
    return bytes.empty() ? nullptr : bytes.data();
}

// Into a buffer of the test's.
template <class Operation>
Result filled(std::size_t room, Operation operation) {
    Result result{0, Bytes(room)};
    int length = sizeOf(result.bytes);
    result.status = operation(result.bytes.data(), &length);
    result.bytes.resize(result.status == 0 ? static_cast<std::size_t>(length) : 0);
    return result;
}

// Into a buffer of the library's.
template <class Operation>
Result handedOut(Operation operation) {
    unsigned char* output = nullptr;
    int length = 0;
    Result result{operation(&output, &length), {}};
    EXPECT_EQ(output != nullptr, result.status == 0);
    if (output != nullptr) {
        result.bytes.assign(output, output + length);
        std::free(output);
    }
    return result;
}

}  // namespace

Key generate(std::uint32_t type, std::uint32_t usage, const char* withPin) {
    Key key{};
    key.record.keyType = type;
    key.record.usage = usage;
    key.status = talvik_generateKeyPair(device, withPin, &key.record, nullptr);
    return key;
}

Result sign(const Key& key, const Bytes& digest, bool pss, const char* withPin) {
    return filled(1024, [&](unsigned char* output, int* length) {
        return talvik_signHash(device, key.id(), withPin, digest.data(), sizeOf(digest), output, length, false, nullptr,
                               pss);
    });
}

Result encrypt(const Bytes& publicKeyInfo, const Bytes& plaintext, PaddingMode padding) {
    return filled(1024, [&](unsigned char* output, int* length) {
        return talvik_encrypt(EncryptionType::Rsa2048, padding, plaintext.data(), sizeOf(plaintext), output, length,
                              publicKeyInfo.data(), sizeOf(publicKeyInfo), nullptr);
    });
}

Result decrypt(const Key& key, const Bytes& ciphertext, const char* withPin) {
    return handedOut([&](unsigned char** output, int* length) {
        return talvik_decrypt(device, key.id(), withPin, ciphertext.data(), sizeOf(ciphertext), output, length, true,
                              nullptr);
    });
}

Result encryptAes(EncryptionType type, const Bytes& key, const Bytes& plaintext, const Bytes& iv) {
    return handedOut([&](unsigned char** output, int* length) {
        return talvik_encrypt_aes("", type, key.data(), sizeOf(key), plaintext.data(), sizeOf(plaintext), output,
                                  length, false, orNull(iv), sizeOf(iv), nullptr, 0, nullptr);
    });
}

Result decryptAes(const Bytes& key, const Bytes& ciphertext, const Bytes& iv) {
    return filled(ciphertext.size(), [&](unsigned char* output, int* length) {
        return talvik_decryptSymetric("", ciphertext.data(), sizeOf(ciphertext), output, length, orNull(iv), sizeOf(iv),
                                      key.data(), sizeOf(key), nullptr);
    });
}

Result unwrap(const unsigned char* aesKeyId, const Bytes& wrapped) {
    return handedOut([&](unsigned char** output, int* length) {
        return talvik_decrypt_aes(device, aesKeyId, 16, wrapped.data(), sizeOf(wrapped), output, length, true, nullptr,
                                  0, nullptr);
    });
}

Result hashOf(int algorithm, const Bytes& data) {
    void* hash = nullptr;
    int status = talvik_initHash("", algorithm, &hash, nullptr);
    if (status == 0) {
        status = talvik_updateHash(hash, data.data(), sizeOf(data), nullptr);
    }
    return status != 0 ? Result{status, {}} : filled(128, [&](unsigned char* output, int* length) {
        return talvik_finalHash(hash, output, length, nullptr);
    });
}

int verify(const Bytes& publicKeyInfo, const Bytes& digest, const Bytes& signature, bool pss) {
    return talvik_verifySignatureHash(2, "", digest.data(), sizeOf(digest), publicKeyInfo.data(), sizeOf(publicKeyInfo),
                                      signature.data(), sizeOf(signature), nullptr, pss);
}

int login(const char* withPin, int* remaining) {
    int ignored = 0;
    return talvik_validatePassword(device, withPin, 1, remaining != nullptr ? remaining : &ignored, nullptr);
}

TalvikSymmetricKey aesRecord(const Bytes& value, std::uint32_t type) {
    TalvikSymmetricKey record{};
    std::ranges::copy(value, record.keyId);
    record.keyIdLength = sizeOf(value);
    record.keyType = type;
    return record;
}

TalvikSymmetricKey importAes(const Bytes& value, std::uint32_t type) {
    TalvikSymmetricKey record = aesRecord(value, type);
    EXPECT_EQ(talvik_importAesKey(device, pin, &record, nullptr), 0);
    return record;
}

}  // namespace talvik_test
