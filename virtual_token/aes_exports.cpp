// AES with the caller's keys, which touches neither a token nor a lock, and with a key of the token.
#include <algorithm>
#include <climits>

#include "aes.h"
#include "boundary.h"
#include "key_types.h"

using namespace virtual_token;

namespace {

struct AesMode {
    EncryptionType type;
    bool chained;
    bool longKey;  // 24 or 32 bytes
};
constexpr AesMode modes[] = {
    {EncryptionType::Aes128Cbc, true, false},
    {EncryptionType::Aes256Cbc, true, true},
    {EncryptionType::Aes128Ecb, false, false},
    {EncryptionType::Aes256Ecb, false, true},
};

void requireMode(EncryptionType type, ByteView key, ByteView iv) {
    const auto* mode =
        std::find_if(std::begin(modes), std::end(modes), [type](const AesMode& row) { return row.type == type; });
    require(mode != std::end(modes), Status::Unsupported);
    require(aesKeyTypeOf(key.size()) != nullptr && (key.size() > 16) == mode->longKey, Status::BadKey);
    // Chaining without a vector would make what decryption, which takes a missing vector for ECB, cannot undo.
    require(mode->chained ? iv.size() == aesBlockLength : iv.empty(), Status::BadInitialVector);
}

}  // namespace

int talvik_encrypt_aes(const char* deviceId, EncryptionType type, const unsigned char* key, int keyLength,
                       const unsigned char* input, int inputLength, unsigned char** output, int* outputLength, bool,
                       const unsigned char* iv, int ivLength, const unsigned char*, int, void*) {
    return guarded([&] {
        requireOutput(output, outputLength);
        require(deviceId != nullptr, Status::InvalidArgument);
        const ByteView keyBytes = inputOf(key, keyLength), vector = inputOf(iv, ivLength);
        const ByteView plaintext = inputOf(input, inputLength);
        requireMode(type, keyBytes, vector);
        const std::size_t length = aesCiphertextLength(plaintext.size());
        require(length <= INT_MAX, Status::InvalidArgument);
        HandedOut ciphertext = allocateOutput(length);
        aesEncrypt(keyBytes, vector, plaintext, ciphertext.get());
        *output = ciphertext.release();
        *outputLength = static_cast<int>(length);
    });
}

int talvik_decryptSymetric(const char* deviceId, const unsigned char* input, int inputLength, unsigned char* output,
                           int* outputLength, const unsigned char* iv, int ivLength, const unsigned char* key,
                           int keyLength, void*) {
    return guarded([&] {
        require(deviceId != nullptr && output != nullptr && outputLength != nullptr && *outputLength >= 0,
                Status::InvalidArgument);
        const ByteView ciphertext = inputOf(input, inputLength), vector = inputOf(iv, ivLength);
        const ByteView keyBytes = inputOf(key, keyLength);
        require(aesKeyTypeOf(keyBytes.size()) != nullptr, Status::BadKey);
        const std::size_t room = *outputLength == 0 ? ciphertext.size() : static_cast<std::size_t>(*outputLength);
        if (room >= ciphertext.size()) {
            *outputLength = static_cast<int>(aesDecrypt(keyBytes, vector, ciphertext, output));
            return;
        }
        SecretBytes plaintext(ciphertext.size());
        plaintext.resize(aesDecrypt(keyBytes, vector, ciphertext, plaintext.data()));
        copyOut(plaintext, output, outputLength);
    });
}

// Unwraps a key: a plaintext that is no AES key was not wrapped with this one, although its padding may look right.
int talvik_decrypt_aes(const char* deviceId, const unsigned char* keyId, int keyIdLength, const unsigned char* input,
                       int inputLength, unsigned char** output, int* outputLength, bool, const unsigned char*, int,
                       void*) {
    return guarded([&] {
        requireOutput(output, outputLength);
        require(keyIdLength == static_cast<int>(sizeof(ObjectId)), Status::InvalidArgument);
        const ByteView wrapped = inputOf(input, inputLength);
        const SecretBytes key = deviceOf(deviceId)->aesKeyValue(objectIdOf(keyId));
        SecretBytes unwrapped(wrapped.size());
        unwrapped.resize(aesDecrypt(key, {}, wrapped, unwrapped.data()));
        require(aesKeyTypeOf(unwrapped.size()) != nullptr, Status::BadData);
        handOut(unwrapped, output, outputLength);
    });
}
