// The 24 operations of the device library, reduced to what the provider's own cost shows behind: every operation
// succeeds at once, and the key list is as long as the benchmark says.
#include "listing_library.h"

#include <cstdlib>
#include <cstring>

#include "token/device_library.h"

namespace {

std::vector<TalvikKeyPair> keys;

TalvikKeyPair makeKey(unsigned int number) {
    TalvikKeyPair key = {};
    std::memcpy(key.keyId, &number, sizeof number);
    std::memset(key.modulus, 0xC1, 256);
    key.modulusLength = 256;
    std::memcpy(key.keyAlias, &number, sizeof number);
    key.keyAliasLength = sizeof number;
    std::strcpy(key.label, "Bench key");
    key.usage = TALVIK_USAGE_BOTH;
    key.keyType = TALVIK_KEY_RSA_2048;
    return key;
}

int fill(unsigned char* output, int* length, int size) {
    std::memset(output, 0x5A, static_cast<std::size_t>(size));
    *length = size;
    return TALVIK_STATUS_OK;
}

int copyOut(unsigned char** output, int* outputLength, const unsigned char* input, int length) {
    *output = static_cast<unsigned char*>(std::malloc(static_cast<std::size_t>(length) + 1));
    std::memcpy(*output, input, static_cast<std::size_t>(length));
    *outputLength = length;
    return TALVIK_STATUS_OK;
}

}  // namespace

extern "C" __declspec(dllexport) void setListedKeys(unsigned int count) {
    keys.clear();
    for (unsigned int number = 0; number < count; ++number) {
        keys.push_back(makeKey(number));
    }
}

int talvik_init(int, void*, int) {
    return TALVIK_STATUS_OK;
}

int talvik_initDevice(const char*, bool, void*) {
    return TALVIK_STATUS_OK;
}

TokenInfo talvik_getTokenInfo(const char*, void*) {
    TokenInfo info;
    info.tokenId = "LISTING";
    info.firmwareVersion = "2.0.0";
    info.loginState = 1;
    info.ssoState = 1;
    return info;
}

std::vector<std::string> talvik_getConnectedDeviceList(bool, void*) {
    return {"LISTING"};
}

std::vector<TalvikKeyPair>& talvik_getKeyPairList(const char*, void*) {
    return keys;
}

std::vector<TalvikCertificate>& talvik_getCertificateList(const char*, void*) {
    static std::vector<TalvikCertificate> none;
    return none;
}

std::vector<TalvikSymmetricKey>& talvik_getAesKeyList(const char*, void*) {
    static std::vector<TalvikSymmetricKey> none;
    return none;
}

int talvik_getCertificateDetails(const unsigned char*, int, CertificateDetails&, void*) {
    return TALVIK_STATUS_OK;
}

int talvik_validatePassword(const char*, const char*, int, int* remainingAttempts, void*) {
    *remainingAttempts = 3;
    return TALVIK_STATUS_OK;
}

int talvik_generateKeyPair(const char*, const char*, TalvikKeyPair*, void*) {
    return TALVIK_STATUS_OK;
}

int talvik_deleteKeyPair(const char*, const unsigned char*, const char*, bool, void*) {
    return TALVIK_STATUS_OK;
}

int talvik_importCertificate(const char*, const char*, TalvikCertificate*, void*) {
    return TALVIK_STATUS_OK;
}

int talvik_importAesKey(const char*, const char*, TalvikSymmetricKey*, void*) {
    return TALVIK_STATUS_OK;
}

int talvik_signHash(const char*, const unsigned char*, const char*, const unsigned char*, int, unsigned char* signature,
                    int* signatureLength, bool, void*, bool) {
    return fill(signature, signatureLength, 256);
}

int talvik_verifySignatureHash(unsigned int, const char*, const unsigned char*, int, const unsigned char*, int,
                               const unsigned char*, int, void*, bool) {
    return TALVIK_STATUS_OK;
}

int talvik_encrypt(EncryptionType, PaddingMode, const unsigned char*, int, unsigned char* ciphertext,
                   int* ciphertextLength, const unsigned char*, int, void*) {
    return fill(ciphertext, ciphertextLength, 256);
}

int talvik_decrypt(const char*, const unsigned char*, const char*, const unsigned char* ciphertext,
                   int ciphertextLength, unsigned char** plaintext, int* plaintextLength, bool, void*) {
    return copyOut(plaintext, plaintextLength, ciphertext, ciphertextLength);
}

int talvik_encrypt_aes(const char*, EncryptionType, const unsigned char*, int, const unsigned char* input,
                       int inputLength, unsigned char** output, int* outputLength, bool, const unsigned char*, int,
                       const unsigned char*, int, void*) {
    return copyOut(output, outputLength, input, inputLength);
}

int talvik_decryptSymetric(const char*, const unsigned char* input, int inputLength, unsigned char* output,
                           int* outputLength, const unsigned char*, int, const unsigned char*, int, void*) {
    std::memcpy(output, input, static_cast<std::size_t>(inputLength));
    *outputLength = inputLength;
    return TALVIK_STATUS_OK;
}

int talvik_decrypt_aes(const char*, const unsigned char*, int, const unsigned char* input, int inputLength,
                       unsigned char** output, int* outputLength, bool, const unsigned char*, int, void*) {
    return copyOut(output, outputLength, input, inputLength);
}

int talvik_generateRamdomNumber(const char*, int length, unsigned char* buffer, bool, void*) {
    return fill(buffer, &length, length);
}

int talvik_initHash(const char*, int, void** hashHandle, void*) {
    *hashHandle = hashHandle;
    return TALVIK_STATUS_OK;
}

int talvik_updateHash(void*, const unsigned char*, int, void*) {
    return TALVIK_STATUS_OK;
}

int talvik_finalHash(void*, unsigned char* digest, int* digestLength, void*) {
    return fill(digest, digestLength, 32);
}
