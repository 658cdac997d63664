// What a token file holds, and its JSON text. docs/virtual-token.md describes the format.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "bytes.h"

namespace virtual_token {

using ObjectId = std::array<unsigned char, 16>;

enum class SignOn { Off, On, Expired };

// One PIN's hold on the master key: the key is sealed under what scrypt makes of PIN and salt.
struct PinSlot {
    unsigned cost = 0;  // scrypt's N
    Bytes salt;
    Bytes sealedMasterKey;
    int attemptsAllowed = 0;
    int attemptsLeft = 0;
};

struct KeyPairObject {
    ObjectId id{};
    Bytes alias;
    std::string label;
    std::uint32_t type = 0;
    std::uint32_t usage = 0;
    std::uint8_t storageFlag = 0;
    Bytes publicKey;     // SubjectPublicKeyInfo
    Bytes sealedSecret;  // GeneratedKey::secret

    bool operator==(const KeyPairObject&) const = default;
};

struct CertificateObject {
    ObjectId keyId{};  // zeros when it belongs to no key of the token
    Bytes alias;
    std::string label;
    Bytes der;

    bool operator==(const CertificateObject&) const = default;
};

struct AesKeyObject {
    ObjectId id{};
    std::string label;
    std::string name;
    std::uint32_t type = 0;
    std::uint32_t usage = 0;
    std::uint8_t storageFlag = 0;
    Bytes sealedSecret;

    bool operator==(const AesKeyObject&) const = default;
};

struct TokenObjects {
    std::vector<KeyPairObject> keyPairs;
    std::vector<CertificateObject> certificates;
    std::vector<AesKeyObject> aesKeys;

    bool operator==(const TokenObjects&) const = default;
};

// Everything but the objects: small, and what most changes touch.
struct TokenState {
    std::string id;
    std::string label;
    std::string firmwareVersion;
    bool attached = true;
    bool clockSkewed = false;
    SignOn signOn = SignOn::Off;
    std::string masterKeyId;  // changes only when the token is made anew
    PinSlot userPin;
    PinSlot adminPin;
};

const char* nameOf(SignOn signOn);
const char* nameOfUsage(std::uint32_t usage);

std::string writeTokenText(const TokenState& state, const TokenObjects& objects);
// Throws TokenError(StorageFailure) on anything that is not a token file's text.
void readTokenText(std::string_view text, TokenState& state, TokenObjects& objects);

}  // namespace virtual_token
