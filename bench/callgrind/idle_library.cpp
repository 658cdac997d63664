// A device library that does nothing, at once: one token, whose user is logged in, with one RSA-2048 key pair. What is
// counted over it is the provider's own work.
#include "callgrind/idle_library.h"

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "token/device_library.h"

namespace {

const std::thread::id mainThread = std::this_thread::get_id();
std::mutex lock;
std::condition_variable resting;
bool isOver = false;

TalvikKeyPair theKey() {
    TalvikKeyPair key = {};
    std::ranges::fill(key.keyId, static_cast<unsigned char>(0x11));
    std::ranges::fill(key.modulus, static_cast<unsigned char>(0xC1));
    key.modulusLength = 256;
    key.keyAliasLength = 16;
    key.usage = TALVIK_USAGE_BOTH;
    key.keyType = TALVIK_KEY_RSA_2048;
    return key;
}

std::vector<TalvikKeyPair> keyPairs = {theKey()};
std::vector<TalvikCertificate> certificates;
std::vector<TalvikSymmetricKey> aesKeys;

int allocated(unsigned char** buffer, int size, int* length) {
    *buffer = static_cast<unsigned char*>(std::calloc(1, static_cast<std::size_t>(size)));
    *length = size;
    return 0;
}

}  // namespace

void idle_library::letMonitorGo() {
    const std::lock_guard guard(lock);
    isOver = true;
    resting.notify_all();
}

int talvik_init(int, void*, int) {
    return 0;
}
int talvik_initDevice(const char*, bool, void*) {
    return 0;
}
TokenInfo talvik_getTokenInfo(const char*, void*) {
    TokenInfo info;
    info.tokenId = "token";
    info.firmwareVersion = "2.0.0";
    info.loginState = 1;
    info.ssoState = 1;
    return info;
}

// The device monitor's thread rests here, so that nothing of it is counted.
std::vector<std::string> talvik_getConnectedDeviceList(bool, void*) {
    if (std::this_thread::get_id() != mainThread) {
        std::unique_lock guard(lock);
        resting.wait(guard, [] { return isOver; });
    }
    return {"T1"};
}

std::vector<TalvikKeyPair>& talvik_getKeyPairList(const char*, void*) {
    return keyPairs;
}
std::vector<TalvikCertificate>& talvik_getCertificateList(const char*, void*) {
    return certificates;
}
std::vector<TalvikSymmetricKey>& talvik_getAesKeyList(const char*, void*) {
    return aesKeys;
}
int talvik_getCertificateDetails(const unsigned char*, int, CertificateDetails&, void*) {
    return 0;
}
int talvik_validatePassword(const char*, const char*, int, int*, void*) {
    return 0;
}
int talvik_generateKeyPair(const char*, const char*, TalvikKeyPair* out, void*) {
    *out = keyPairs.front();
    return 0;
}
int talvik_deleteKeyPair(const char*, const unsigned char*, const char*, bool, void*) {
    return 0;
}
int talvik_importCertificate(const char*, const char*, TalvikCertificate*, void*) {
    return 0;
}
int talvik_importAesKey(const char*, const char*, TalvikSymmetricKey*, void*) {
    return 0;
}
int talvik_signHash(const char*, const unsigned char*, const char*, const unsigned char*, int, unsigned char*,
                    int* signatureLength, bool, void*, bool) {
    *signatureLength = 256;
    return 0;
}
int talvik_verifySignatureHash(unsigned int, const char*, const unsigned char*, int, const unsigned char*, int,
                               const unsigned char*, int, void*, bool) {
    return 0;
}
int talvik_encrypt(EncryptionType, PaddingMode, const unsigned char*, int, unsigned char*, int* ciphertextLength,
                   const unsigned char*, int, void*) {
    *ciphertextLength = 256;
    return 0;
}
int talvik_decrypt(const char*, const unsigned char*, const char*, const unsigned char*, int, unsigned char** plaintext,
                   int* plaintextLength, bool, void*) {
    return allocated(plaintext, 32, plaintextLength);
}
int talvik_encrypt_aes(const char*, EncryptionType, const unsigned char*, int, const unsigned char*, int inputLength,
                       unsigned char** output, int* outputLength, bool, const unsigned char*, int, const unsigned char*,
                       int, void*) {
    return allocated(output, inputLength, outputLength);
}
int talvik_decryptSymetric(const char*, const unsigned char*, int inputLength, unsigned char*, int* outputLength,
                           const unsigned char*, int, const unsigned char*, int, void*) {
    *outputLength = inputLength;
    return 0;
}
int talvik_decrypt_aes(const char*, const unsigned char*, int, const unsigned char*, int inputLength,
                       unsigned char** output, int* outputLength, bool, const unsigned char*, int, void*) {
    return allocated(output, inputLength, outputLength);
}
int talvik_generateRamdomNumber(const char*, int, unsigned char*, bool, void*) {
    return 0;
}
int talvik_initHash(const char*, int, void**, void*) {
    return 0;
}
int talvik_updateHash(void*, const unsigned char*, int, void*) {
    return 0;
}
int talvik_finalHash(void*, unsigned char*, int* digestLength, void*) {
    *digestLength = 32;
    return 0;
}
