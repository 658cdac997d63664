#include "fake_library.h"

#include <algorithm>
#include <concepts>
#include <cstdlib>
#include <cstring>
#include <tuple>
#include <type_traits>

// --- calls as text ---------------------------------------------------------------------------------------------------

namespace {

struct In {
    const void* bytes;
    std::int64_t length;
};
struct Out {
    const void* address;
};
// Handles that number the hashes one after the other are told apart: #n.
struct HashHandle {
    void* address;
};

std::string text(const char* value) {
    return value ? '"' + std::string(value) + '"' : "null";
}
std::string text(bool value) {
    return value ? "true" : "false";
}
template <class Number>
requires std::integral<Number> || std::is_enum_v<Number> std::string text(Number value) {
    return std::to_string(static_cast<std::int64_t>(value));
}
std::string text(const int* value) {
    return value ? std::to_string(*value) : "null";
}
std::string text(void* value) {
    return value ? "pointer" : "null";
}
std::string text(HashHandle value) {
    return "#" + std::to_string(reinterpret_cast<std::uintptr_t>(value.address));
}
std::string text(Out value) {
    return value.address ? "out" : "null";
}
std::string text(In value) {
    if (!value.bytes) {
        return "null";
    }
    std::string hex;
    for (std::int64_t i = 0; i < value.length; ++i) {
        const unsigned char byte = static_cast<const unsigned char*>(value.bytes)[i];
        hex += "0123456789abcdef"[byte >> 4];
        hex += "0123456789abcdef"[byte & 15];
    }
    return hex;
}

std::string fieldText(const char (&field)[128]) {
    return '"' + std::string(field, strnlen(field, sizeof field)) + '"';
}
std::string fieldText(const unsigned char* field, std::uint32_t length, std::uint32_t room) {
    return text(In{field, std::min(length, room)}) + "/" + std::to_string(length);
}

std::string text(TalvikKeyPair* key) {
    return "{keyId=" + text(In{key->keyId, 16}) + " usage=" + text(key->usage) + " keyType=" + text(key->keyType) + "}";
}
std::string text(TalvikCertificate* cert) {
    return "{keyId=" + text(In{cert->keyId, 16}) + " der=" + fieldText(cert->der, cert->derLength, sizeof cert->der) +
           " keyAlias=" + fieldText(cert->keyAlias, cert->keyAliasLength, sizeof cert->keyAlias) +
           " label=" + fieldText(cert->label) + "}";
}
std::string text(TalvikSymmetricKey* key) {
    return "{key=" + fieldText(key->keyId, static_cast<std::uint32_t>(key->keyIdLength), sizeof key->keyId) +
           " label=" + fieldText(key->label) + " name=" + fieldText(key->name) + " usage=" + text(key->usage) +
           " keyType=" + text(key->keyType) + "}";
}

template <class... Arguments>
class CallOf final : public Call {
  public:
    explicit CallOf(const char* operation, Arguments... arguments) : Call(operation), arguments_(arguments...) {}

    std::string text() const override {
        std::string list;
        std::apply(
            [&list](const Arguments&... arguments) { ((list += (list.empty() ? "" : ", ") + ::text(arguments)), ...); },
            arguments_);
        return std::string(operation()) + "(" + list + ")";
    }

  private:
    std::tuple<Arguments...> arguments_;
};

}  // namespace

// --- what is done unless told otherwise ------------------------------------------------------------------------------

int FakeLibrary::status(const Call&) {
    return TALVIK_STATUS_OK;
}

int FakeLibrary::fill(const Call& call, unsigned char* buffer, int size, int* length) {
    std::memset(buffer, 0, static_cast<std::size_t>(size));
    *length = size;
    return status(call);
}

int FakeLibrary::allocate(const Call& call, unsigned char** buffer, int size, int* length) {
    *buffer = static_cast<unsigned char*>(std::calloc(1, static_cast<std::size_t>(size) + 1));
    *length = size;
    return status(call);
}

int FakeLibrary::fillWithRsaResult(const Call& call, unsigned char* buffer, int* length) {
    return fill(call, buffer, 256, length);
}

int FakeLibrary::fillWithDigest(const Call& call, unsigned char* buffer, int* length) {
    return fill(call, buffer, 32, length);
}

int FakeLibrary::fillWithRandom(const Call& call, unsigned char* buffer, int size) {
    return fill(call, buffer, size, &size);
}

std::vector<std::string> FakeLibrary::devices(const Call&) {
    return {"T1"};
}

TokenInfo FakeLibrary::tokenInfo(const Call&, const char*) {
    TokenInfo info;
    info.tokenId = "token";
    info.firmwareVersion = "2.0.0";
    info.loginState = info.ssoState = 1;
    return info;
}

std::vector<TalvikKeyPair>& FakeLibrary::keyPairs(const Call&, const char*) {
    static std::vector<TalvikKeyPair> none;
    return none;
}

std::vector<TalvikCertificate>& FakeLibrary::certificates(const Call&, const char*) {
    static std::vector<TalvikCertificate> none;
    return none;
}

std::vector<TalvikSymmetricKey>& FakeLibrary::aesKeys(const Call&, const char*) {
    static std::vector<TalvikSymmetricKey> none;
    return none;
}

int FakeLibrary::certificateDetails(const Call& call, const unsigned char*, int, CertificateDetails&) {
    return status(call);
}

int FakeLibrary::validatePassword(const Call& call, int*) {
    return status(call);
}

int FakeLibrary::generateKeyPair(const Call& call, TalvikKeyPair*) {
    return status(call);
}

int FakeLibrary::importAesKey(const Call& call, TalvikSymmetricKey*) {
    return status(call);
}

int FakeLibrary::initHash(const Call& call, void** hashHandle) {
    *hashHandle = hashHandle;
    return status(call);
}

// --- the 24 operations -----------------------------------------------------------------------------------------------

int talvik_init(int mode, void* reserved, int option) {
    return theLibrary().status(CallOf(__func__, mode, reserved, option));
}

int talvik_initDevice(const char* deviceId, bool refresh, void* reserved) {
    return theLibrary().status(CallOf(__func__, deviceId, refresh, reserved));
}

TokenInfo talvik_getTokenInfo(const char* deviceId, void* reserved) {
    return theLibrary().tokenInfo(CallOf(__func__, deviceId, reserved), deviceId);
}

std::vector<std::string> talvik_getConnectedDeviceList(bool all, void* reserved) {
    return theLibrary().devices(CallOf(__func__, all, reserved));
}

std::vector<TalvikKeyPair>& talvik_getKeyPairList(const char* deviceId, void* reserved) {
    return theLibrary().keyPairs(CallOf(__func__, deviceId, reserved), deviceId);
}

std::vector<TalvikCertificate>& talvik_getCertificateList(const char* deviceId, void* reserved) {
    return theLibrary().certificates(CallOf(__func__, deviceId, reserved), deviceId);
}

std::vector<TalvikSymmetricKey>& talvik_getAesKeyList(const char* deviceId, void* reserved) {
    return theLibrary().aesKeys(CallOf(__func__, deviceId, reserved), deviceId);
}

int talvik_getCertificateDetails(const unsigned char* der, int derLength, CertificateDetails& out, void* reserved) {
    return theLibrary().certificateDetails(CallOf(__func__, In{der, derLength}, derLength, Out{&out}, reserved), der,
                                           derLength, out);
}

int talvik_validatePassword(const char* deviceId, const char* password, int mode, int* remainingAttempts,
                            void* reserved) {
    return theLibrary().validatePassword(CallOf(__func__, deviceId, password, mode, remainingAttempts, reserved),
                                         remainingAttempts);
}

int talvik_generateKeyPair(const char* deviceId, const char* password, TalvikKeyPair* out, void* reserved) {
    return theLibrary().generateKeyPair(CallOf(__func__, deviceId, password, out, reserved), out);
}

int talvik_deleteKeyPair(const char* deviceId, const unsigned char* keyId, const char* password, bool storageFlag,
                         void* reserved) {
    return theLibrary().status(CallOf(__func__, deviceId, In{keyId, 16}, password, storageFlag, reserved));
}

int talvik_importCertificate(const char* deviceId, const char* password, TalvikCertificate* cert, void* reserved) {
    return theLibrary().status(CallOf(__func__, deviceId, password, cert, reserved));
}

int talvik_importAesKey(const char* deviceId, const char* password, TalvikSymmetricKey* key, void* reserved) {
    return theLibrary().importAesKey(CallOf(__func__, deviceId, password, key, reserved), key);
}

int talvik_signHash(const char* deviceId, const unsigned char* keyId, const char* password, const unsigned char* hash,
                    int hashLength, unsigned char* signature, int* signatureLength, bool flag, void* reserved,
                    bool usePss) {
    return theLibrary().fillWithRsaResult(CallOf(__func__, deviceId, In{keyId, 16}, password, In{hash, hashLength},
                                                 hashLength, Out{signature}, signatureLength, flag, reserved, usePss),
                                          signature, signatureLength);
}

int talvik_verifySignatureHash(unsigned int keySizeCode, const char* deviceId, const unsigned char* hash,
                               int hashLength, const unsigned char* publicKey, int publicKeyLength,
                               const unsigned char* signature, int signatureLength, void* reserved, bool usePss) {
    return theLibrary().status(CallOf(__func__, keySizeCode, deviceId, In{hash, hashLength}, hashLength,
                                      In{publicKey, publicKeyLength}, publicKeyLength, In{signature, signatureLength},
                                      signatureLength, reserved, usePss));
}

int talvik_encrypt(EncryptionType type, PaddingMode padding, const unsigned char* plaintext, int plaintextLength,
                   unsigned char* ciphertext, int* ciphertextLength, const unsigned char* publicKey,
                   int publicKeyLength, void* reserved) {
    return theLibrary().fillWithRsaResult(
        CallOf(__func__, type, padding, In{plaintext, plaintextLength}, plaintextLength, Out{ciphertext},
               ciphertextLength, In{publicKey, publicKeyLength}, publicKeyLength, reserved),
        ciphertext, ciphertextLength);
}

int talvik_decrypt(const char* deviceId, const unsigned char* keyId, const char* password,
                   const unsigned char* ciphertext, int ciphertextLength, unsigned char** plaintext,
                   int* plaintextLength, bool storageFlag, void* reserved) {
    return theLibrary().allocate(CallOf(__func__, deviceId, In{keyId, 16}, password, In{ciphertext, ciphertextLength},
                                        ciphertextLength, Out{plaintext}, Out{plaintextLength}, storageFlag, reserved),
                                 plaintext, std::min(ciphertextLength, 32), plaintextLength);
}

int talvik_encrypt_aes(const char* deviceId, EncryptionType type, const unsigned char* key, int keyLength,
                       const unsigned char* input, int inputLength, unsigned char** output, int* outputLength,
                       bool flag, const unsigned char* iv, int ivLength, const unsigned char* extra, int extraLength,
                       void* reserved) {
    return theLibrary().allocate(CallOf(__func__, deviceId, type, In{key, keyLength}, keyLength, In{input, inputLength},
                                        inputLength, Out{output}, Out{outputLength}, flag, In{iv, ivLength}, ivLength,
                                        In{extra, extraLength}, extraLength, reserved),
                                 output, inputLength, outputLength);
}

int talvik_decryptSymetric(const char* deviceId, const unsigned char* input, int inputLength, unsigned char* output,
                           int* outputLength, const unsigned char* iv, int ivLength, const unsigned char* key,
                           int keyLength, void* reserved) {
    return theLibrary().fill(CallOf(__func__, deviceId, In{input, inputLength}, inputLength, Out{output}, outputLength,
                                    In{iv, ivLength}, ivLength, In{key, keyLength}, keyLength, reserved),
                             output, inputLength, outputLength);
}

int talvik_decrypt_aes(const char* deviceId, const unsigned char* keyId, int keyIdLength, const unsigned char* input,
                       int inputLength, unsigned char** output, int* outputLength, bool storageFlag,
                       const unsigned char* extra, int extraLength, void* reserved) {
    return theLibrary().allocate(
        CallOf(__func__, deviceId, In{keyId, keyIdLength}, keyIdLength, In{input, inputLength}, inputLength,
               Out{output}, Out{outputLength}, storageFlag, In{extra, extraLength}, extraLength, reserved),
        output, inputLength, outputLength);
}

int talvik_generateRamdomNumber(const char* deviceId, int length, unsigned char* buffer, bool useSoftware,
                                void* reserved) {
    return theLibrary().fillWithRandom(CallOf(__func__, deviceId, length, Out{buffer}, useSoftware, reserved), buffer,
                                       length);
}

int talvik_initHash(const char* deviceId, int algorithm, void** hashHandle, void* reserved) {
    return theLibrary().initHash(CallOf(__func__, deviceId, algorithm, Out{hashHandle}, reserved), hashHandle);
}

int talvik_updateHash(void* hashHandle, const unsigned char* data, int dataLength, void* reserved) {
    return theLibrary().status(CallOf(__func__, HashHandle{hashHandle}, In{data, dataLength}, dataLength, reserved));
}

int talvik_finalHash(void* hashHandle, unsigned char* digest, int* digestLength, void* reserved) {
    return theLibrary().fillWithDigest(CallOf(__func__, HashHandle{hashHandle}, Out{digest}, digestLength, reserved),
                                       digest, digestLength);
}
