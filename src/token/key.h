// What both faces know of a key.
#pragma once

#include <cstdint>
#include <string>

#include "token/algorithms.h"
#include "token/device_library.h"
#include "token/key_encoding.h"

namespace talvik {

// The fields that the key records of both faces have in common. How many bytes of a field count is said by fields of
// the faces' own, since their names differ.
struct TokenKey {
    unsigned char keyId[16] = {};
    std::uint32_t keyUsage = 0;  // as in TalvikKeyPair
    unsigned char keyAlias[128] = {};
    char label[sizeof TalvikKeyPair::label + 1] = {};
    std::uint8_t storageFlag = 0;
    unsigned char publicKey[1024] = {};  // the bare modulus, or the DER form
};
static_assert(sizeof TokenKey::publicKey >= largestRsaSize.bytes() + 38, "the DER form of the longest key");

// Where a record says how many bytes count.
struct KeyLengths {
    std::uint32_t& keyId;
    std::uint32_t& keyAlias;
    std::uint32_t& publicKey;
};

// 32 upper-case hex digits.
inline std::string hexNameOf(const TokenKey& key) {
    return bytesToHexString(key.keyId, sizeof key.keyId);
}

// False, with the key unchanged, when the public key is longer than its field.
bool setPublicKey(TokenKey& key, std::uint32_t& length, ByteView publicKey);

// Identifier, alias, label and public key of a key pair on the token; what else the key says stays.
void describeKeyPair(TokenKey& key, KeyLengths lengths, const TalvikKeyPair& record);

// Identifier, label, usage and flag of an AES key that the token has just stored.
void describeStoredKey(TokenKey& key, const TalvikSymmetricKey& record);

// Stores a certificate, of at most the room that its record has, with the key's identifier, `alias` and label. The
// library's status.
int storeCertificate(const std::string& deviceId, const char* pin, const TokenKey& key, ByteView alias, ByteView der,
                     void* reserved);

}  // namespace talvik
