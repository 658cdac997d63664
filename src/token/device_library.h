// The contract with the token maker's device library, TalvikDSCLibrary.dll.
//
// The library is object-level: standard strings and vectors cross its boundary by value and by reference. Both sides
// must therefore be built with the same standard library, the same C runtime heap and the default 64-bit Windows
// alignment. The record layouts below are that contract; the static_asserts fail the build when a compiler disagrees.
//
// Conventions that hold for every operation:
//   - A device is named by the text that talvik_getConnectedDeviceList returned for it; "" where no device is known.
//   - `reserved` is always a null pointer in practice.
//   - A PIN is a NUL-terminated text. A key identifier is the 16 bytes of TalvikKeyPair::keyId.
//   - An `int` result is 0 on success and a status of the library otherwise; see the status constants.
//   - `unsigned char*` outputs are the caller's buffers. Their `int*` length receives the length written; what it holds
//     on entry is a hint and no bound (the provider presets 0 for an encryption), so a caller passes a buffer with room
//     for the largest result. `unsigned char**` outputs are allocated by the library with malloc and released by the
//     caller with free.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#ifdef TALVIK_DEVICE_LIBRARY_EXPORTS
#define TALVIK_DEVICE_API __declspec(dllexport)
#else
#define TALVIK_DEVICE_API
#endif

// One key pair on the token.
struct TalvikKeyPair {
    std::uint32_t unread0;
    unsigned char keyId[16];
    unsigned char modulus[1024];   // RSA modulus, most significant byte first
    std::uint32_t modulusLength;   // bytes
    unsigned char keyAlias[128];   // stored with the key pair and with its certificate: equal aliases pair the two
    std::uint32_t keyAliasLength;  // bytes
    char label[128];               // NUL-terminated
    std::uint32_t unread1308;
    std::uint32_t usage;       // TalvikUsage
    std::uint32_t keyType;     // TalvikKeyType, 1 to 7
    std::uint8_t storageFlag;  // opaque; handed back to talvik_decrypt and talvik_deleteKeyPair
    std::uint8_t padding1321[3];
};
static_assert(sizeof(TalvikKeyPair) == 1324);
static_assert(offsetof(TalvikKeyPair, keyId) == 4);
static_assert(offsetof(TalvikKeyPair, modulus) == 20);
static_assert(offsetof(TalvikKeyPair, modulusLength) == 1044);
static_assert(offsetof(TalvikKeyPair, keyAlias) == 1048);
static_assert(offsetof(TalvikKeyPair, keyAliasLength) == 1176);
static_assert(offsetof(TalvikKeyPair, label) == 1180);
static_assert(offsetof(TalvikKeyPair, usage) == 1312);
static_assert(offsetof(TalvikKeyPair, keyType) == 1316);
static_assert(offsetof(TalvikKeyPair, storageFlag) == 1320);

// One certificate on the token.
struct TalvikCertificate {
    std::uint32_t unread0;
    unsigned char keyId[16];  // of the key pair that it belongs to
    unsigned char der[3072];
    std::uint32_t derLength;  // bytes
    unsigned char keyAlias[128];
    std::uint32_t keyAliasLength;  // bytes
    char label[128];               // NUL-terminated
    std::uint8_t unread3356[24];
};
static_assert(sizeof(TalvikCertificate) == 3380);
static_assert(offsetof(TalvikCertificate, keyId) == 4);
static_assert(offsetof(TalvikCertificate, der) == 20);
static_assert(offsetof(TalvikCertificate, derLength) == 3092);
static_assert(offsetof(TalvikCertificate, keyAlias) == 3096);
static_assert(offsetof(TalvikCertificate, keyAliasLength) == 3224);
static_assert(offsetof(TalvikCertificate, label) == 3228);

// One AES key on the token, and the request of talvik_importAesKey. In a listed record keyId names the key for
// talvik_decrypt_aes; in a request it is the key value, and the library writes the new key's identifier to
// `identifier`.
struct TalvikSymmetricKey {
    std::uint8_t unread0[8];
    unsigned char identifier[16];
    unsigned char keyId[128];
    std::int32_t keyIdLength;  // bytes
    char label[128];           // NUL-terminated
    char name[128];            // NUL-terminated
    std::uint32_t usage;
    std::uint8_t unread416[8];
    std::uint32_t keyType;  // TalvikKeyType, 8, 10 or 11
    std::uint8_t storageFlag;
    std::uint8_t padding429[3];
};
static_assert(sizeof(TalvikSymmetricKey) == 432);
static_assert(offsetof(TalvikSymmetricKey, identifier) == 8);
static_assert(offsetof(TalvikSymmetricKey, keyId) == 24);
static_assert(offsetof(TalvikSymmetricKey, keyIdLength) == 152);
static_assert(offsetof(TalvikSymmetricKey, label) == 156);
static_assert(offsetof(TalvikSymmetricKey, name) == 284);
static_assert(offsetof(TalvikSymmetricKey, usage) == 412);
static_assert(offsetof(TalvikSymmetricKey, keyType) == 424);
static_assert(offsetof(TalvikSymmetricKey, storageFlag) == 428);

// What a token says of itself. The user counts as logged in through single sign-on when tokenId is not empty and
// loginState and ssoState are both 1.
struct TokenInfo {
    std::string tokenId;
    std::uint8_t unread32[128] = {};
    std::string firmwareVersion;
    std::uint8_t unread192[44] = {};
    std::int32_t loginState = 0;
    std::int32_t ssoState = 0;
    std::uint8_t unread244[108] = {};
};
static_assert(sizeof(std::string) == 32);
static_assert(sizeof(TokenInfo) == 352);

// What talvik_getCertificateDetails reads out of a certificate. The provider uses publicKey alone.
struct CertificateDetails {
    std::string subject;
    std::string issuer;
    std::string serialNumber;
    std::string validFrom;
    std::string validTo;
    std::vector<unsigned char> publicKey;  // the RSA modulus, most significant byte first
};

// TalvikKeyPair::usage. A key signs with 1 or 3 and decrypts with 2 or 3.
inline constexpr std::uint32_t TALVIK_USAGE_SIGN = 1;
inline constexpr std::uint32_t TALVIK_USAGE_EXCHANGE = 2;
inline constexpr std::uint32_t TALVIK_USAGE_BOTH = 3;

// TalvikKeyPair::keyType and TalvikSymmetricKey::keyType.
inline constexpr std::uint32_t TALVIK_KEY_RSA_1024 = 1;
inline constexpr std::uint32_t TALVIK_KEY_RSA_2048 = 2;
inline constexpr std::uint32_t TALVIK_KEY_RSA_3072 = 3;
inline constexpr std::uint32_t TALVIK_KEY_RSA_4096 = 4;
inline constexpr std::uint32_t TALVIK_KEY_EC_P256 = 5;
inline constexpr std::uint32_t TALVIK_KEY_EC_P384 = 6;
inline constexpr std::uint32_t TALVIK_KEY_EC_P521 = 7;
inline constexpr std::uint32_t TALVIK_KEY_AES_128 = 8;
inline constexpr std::uint32_t TALVIK_KEY_AES_256 = 10;
inline constexpr std::uint32_t TALVIK_KEY_AES_192 = 11;

enum class EncryptionType : int {
    Aes128Cbc = 1,
    Aes256Cbc = 2,  // also 24-byte keys
    Aes128Ecb = 5,
    Aes256Ecb = 6,  // also 24-byte keys
    Rsa1024 = 7,
    Rsa2048 = 8,  // also every size not listed
    Rsa3072 = 9,
    Rsa4096 = 10,
};

enum class PaddingMode : int { Pkcs1 = 1, Oaep = 4 };

// Statuses that the provider tells apart; every other non-zero status is just a failure.
inline constexpr int TALVIK_STATUS_OK = 0;
inline constexpr int TALVIK_STATUS_TIME_MISMATCH = 48;    // talvik_validatePassword: the computer's clock disagrees
inline constexpr int TALVIK_STATUS_SIGN_ON_EXPIRED = 49;  // talvik_signHash, talvik_decrypt

// Digest algorithm codes of talvik_initHash.
inline constexpr int TALVIK_HASH_SHA1 = 2;
inline constexpr int TALVIK_HASH_SHA256 = 3;
inline constexpr int TALVIK_HASH_SHA384 = 4;
inline constexpr int TALVIK_HASH_SHA512 = 5;

// Constants of the maker's interface. The provider reads none of them at run time.
inline constexpr char TALVIK_LIBRARY_VERSION[] = "4.0.3.2";
inline constexpr char TALVIK_CLIENT_PROTOCOL_TAG[] = "talvikdsc-v1";
inline constexpr char TALVIK_CREDENTIAL_FOLDER[] = "/client-security/";
inline constexpr char TALVIK_CLIENT_CREDENTIAL_FILE[] = "talvik-dsc.pfx";
inline constexpr char TALVIK_CLIENT_CREDENTIAL_PASSWORD[] = "Vol@rk#57";
inline constexpr char TALVIK_BASE64_ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
inline constexpr char TALVIK_BASE64_URL_ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
inline constexpr char TALVIK_KEY_INTERFACE_NAME[] = "TalvikKey Interface";
inline constexpr char TALVIK_LOGIN_PROTOCOL_TAG[] = "winlogin-v1";
inline constexpr char TALVIK_LOGIN_CREDENTIAL_FILE[] = "client.pfx";

// --- library and devices ---------------------------------------------------------------------------------------------

// Starts the library. The provider passes 0, null, 2 before each enumeration of its own and each talvik_initDevice.
TALVIK_DEVICE_API int talvik_init(int mode, void* reserved, int option);

// Prepares a device. `refresh` true makes the library read the token's certificates anew.
TALVIK_DEVICE_API int talvik_initDevice(const char* deviceId, bool refresh, void* reserved);

// Never fails: a token that does not answer gives an empty tokenId.
TALVIK_DEVICE_API TokenInfo talvik_getTokenInfo(const char* deviceId, void* reserved);

// Identifiers of the attached tokens, the default device first; empty when none is attached. The bool is always false.
TALVIK_DEVICE_API std::vector<std::string> talvik_getConnectedDeviceList(bool all, void* reserved);

// --- objects on the token --------------------------------------------------------------------------------------------

// The lists belong to the library and may be rebuilt by its next call: copy at once, never keep the reference.
TALVIK_DEVICE_API std::vector<TalvikKeyPair>& talvik_getKeyPairList(const char* deviceId, void* reserved);
TALVIK_DEVICE_API std::vector<TalvikCertificate>& talvik_getCertificateList(const char* deviceId, void* reserved);
TALVIK_DEVICE_API std::vector<TalvikSymmetricKey>& talvik_getAesKeyList(const char* deviceId, void* reserved);

TALVIK_DEVICE_API int talvik_getCertificateDetails(const unsigned char* der, int derLength, CertificateDetails& out,
                                                   void* reserved);

// `remainingAttempts` counts what is left after a refusal; 0 means locked. `mode` is always 1.
TALVIK_DEVICE_API int talvik_validatePassword(const char* deviceId, const char* password, int mode,
                                              int* remainingAttempts, void* reserved);

// `out` carries the wanted usage and keyType (0: the token's default, RSA-2048) and returns the new key.
TALVIK_DEVICE_API int talvik_generateKeyPair(const char* deviceId, const char* password, TalvikKeyPair* out,
                                             void* reserved);

TALVIK_DEVICE_API int talvik_deleteKeyPair(const char* deviceId, const unsigned char* keyId, const char* password,
                                           bool storageFlag, void* reserved);

TALVIK_DEVICE_API int talvik_importCertificate(const char* deviceId, const char* password, TalvikCertificate* cert,
                                               void* reserved);

TALVIK_DEVICE_API int talvik_importAesKey(const char* deviceId, const char* password, TalvikSymmetricKey* key,
                                          void* reserved);

// --- private-key and public-key operations ---------------------------------------------------------------------------

// The signature comes most significant byte first; ECDSA gives r and s side by side. The first bool is always false.
TALVIK_DEVICE_API int talvik_signHash(const char* deviceId, const unsigned char* keyId, const char* password,
                                      const unsigned char* hash, int hashLength, unsigned char* signature,
                                      int* signatureLength, bool, void* reserved, bool usePss);

// `publicKey` is a DER SubjectPublicKeyInfo. 0 means that the signature is valid.
TALVIK_DEVICE_API int talvik_verifySignatureHash(unsigned int keySizeCode, const char* deviceId,
                                                 const unsigned char* hash, int hashLength,
                                                 const unsigned char* publicKey, int publicKeyLength,
                                                 const unsigned char* signature, int signatureLength, void* reserved,
                                                 bool usePss);

// Public-key encryption needs no token. `publicKey` is a DER SubjectPublicKeyInfo.
TALVIK_DEVICE_API int talvik_encrypt(EncryptionType type, PaddingMode padding, const unsigned char* plaintext,
                                     int plaintextLength, unsigned char* ciphertext, int* ciphertextLength,
                                     const unsigned char* publicKey, int publicKeyLength, void* reserved);

TALVIK_DEVICE_API int talvik_decrypt(const char* deviceId, const unsigned char* keyId, const char* password,
                                     const unsigned char* ciphertext, int ciphertextLength, unsigned char** plaintext,
                                     int* plaintextLength, bool storageFlag, void* reserved);

// --- AES -------------------------------------------------------------------------------------------------------------

// `iv` is null and `ivLength` 0 for ECB. The unnamed bool is always false, the unnamed pointer null with length 0.
TALVIK_DEVICE_API int talvik_encrypt_aes(const char* deviceId, EncryptionType type, const unsigned char* key,
                                         int keyLength, const unsigned char* input, int inputLength,
                                         unsigned char** output, int* outputLength, bool, const unsigned char* iv,
                                         int ivLength, const unsigned char*, int, void* reserved);

// The library infers the chaining from the initialisation vector: none means ECB.
TALVIK_DEVICE_API int talvik_decryptSymetric(const char* deviceId, const unsigned char* input, int inputLength,
                                             unsigned char* output, int* outputLength, const unsigned char* iv,
                                             int ivLength, const unsigned char* key, int keyLength, void* reserved);

// Decrypts with an AES key that stays on the token. The unnamed pointer is always null with length 0.
TALVIK_DEVICE_API int talvik_decrypt_aes(const char* deviceId, const unsigned char* keyId, int keyIdLength,
                                         const unsigned char* input, int inputLength, unsigned char** output,
                                         int* outputLength, bool storageFlag, const unsigned char*, int,
                                         void* reserved);

// --- random and hash -------------------------------------------------------------------------------------------------

TALVIK_DEVICE_API int talvik_generateRamdomNumber(const char* deviceId, int length, unsigned char* buffer,
                                                  bool useSoftware, void* reserved);

// `algorithm` is a digest algorithm code. The handle stays valid until talvik_finalHash has been called on it.
TALVIK_DEVICE_API int talvik_initHash(const char* deviceId, int algorithm, void** hashHandle, void* reserved);
TALVIK_DEVICE_API int talvik_updateHash(void* hashHandle, const unsigned char* data, int dataLength, void* reserved);
TALVIK_DEVICE_API int talvik_finalHash(void* hashHandle, unsigned char* digest, int* digestLength, void* reserved);
