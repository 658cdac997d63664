// Signing, verifying, RSA encryption and decryption.
#include <algorithm>
#include <array>

#include "asymmetric_key.h"
#include "boundary.h"

using namespace virtual_token;

namespace {

constexpr std::array rsaTypes = {EncryptionType::Rsa1024, EncryptionType::Rsa2048, EncryptionType::Rsa3072,
                                 EncryptionType::Rsa4096};

// A signature or an RSA ciphertext: what the length holds on entry is a hint and no bound, the caller's buffer has room
// for the largest result.
void copyResult(ByteView result, unsigned char* buffer, int* length) {
    std::ranges::copy(result, buffer);
    *length = static_cast<int>(result.size());
}

}  // namespace

int talvik_signHash(const char* deviceId, const unsigned char* keyId, const char* password, const unsigned char* hash,
                    int hashLength, unsigned char* signature, int* signatureLength, bool, void*, bool usePss) {
    return guarded([&] {
        require(signature != nullptr && signatureLength != nullptr, Status::InvalidArgument);
        const ByteView digest = inputOf(hash, hashLength);
        copyResult(deviceOf(deviceId)->sign(textOf(password), objectIdOf(keyId), digest, usePss), signature,
                   signatureLength);
    });
}

// The key tells its own kind and size; the code is not looked at, since callers pass the one of RSA-2048 for all.
int talvik_verifySignatureHash(unsigned int, const char* deviceId, const unsigned char* hash, int hashLength,
                               const unsigned char* publicKey, int publicKeyLength, const unsigned char* signature,
                               int signatureLength, void*, bool usePss) {
    return guarded([&] {
        require(deviceId != nullptr, Status::InvalidArgument);
        const PublicKey key(inputOf(publicKey, publicKeyLength));
        key.verify(inputOf(hash, hashLength), inputOf(signature, signatureLength), usePss && key.isRsa());
    });
}

int talvik_encrypt(EncryptionType type, PaddingMode padding, const unsigned char* plaintext, int plaintextLength,
                   unsigned char* ciphertext, int* ciphertextLength, const unsigned char* publicKey,
                   int publicKeyLength, void*) {
    return guarded([&] {
        require(std::ranges::find(rsaTypes, type) != rsaTypes.end(), Status::Unsupported);
        require(padding == PaddingMode::Pkcs1 || padding == PaddingMode::Oaep, Status::Unsupported);
        require(ciphertext != nullptr && ciphertextLength != nullptr, Status::InvalidArgument);
        const ByteView input = inputOf(plaintext, plaintextLength);
        const PublicKey key(inputOf(publicKey, publicKeyLength));
        require(key.isRsa(), Status::BadKey);
        copyResult(key.encrypt(input, padding == PaddingMode::Oaep), ciphertext, ciphertextLength);
    });
}

int talvik_decrypt(const char* deviceId, const unsigned char* keyId, const char* password,
                   const unsigned char* ciphertext, int ciphertextLength, unsigned char** plaintext,
                   int* plaintextLength, bool, void*) {
    return guarded([&] {
        requireOutput(plaintext, plaintextLength);
        const ByteView input = inputOf(ciphertext, ciphertextLength);
        handOut(deviceOf(deviceId)->decrypt(textOf(password), objectIdOf(keyId), input), plaintext, plaintextLength);
    });
}
