// The attached tokens, hardware and virtual ones alike, through the device library.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "bytes.h"
#include "pin_option.h"
#include "token/device_library.h"

namespace talvik_tool {

using virtual_token::Bytes;
using virtual_token::ByteView;

// --- what its records say ---

std::string containerName(const unsigned char (&keyId)[16]);  // upper-case hexadecimal
std::string keyTypeName(std::uint32_t type);                  // "RSA-2048", "P-256"
std::string usageName(std::uint32_t usage);
std::string textOf(const char (&field)[128]);    // also when the token's text fills its field
ByteView publicKeyOf(const TalvikKeyPair& key);  // an RSA modulus, or a SubjectPublicKeyInfo
Bytes publicKeyInfoOf(const TalvikKeyPair& key);
ByteView derOf(const TalvikCertificate& certificate);
bool belongTogether(const TalvikCertificate& certificate, const TalvikKeyPair& key);  // by identifier

// --- a token ---

// One attached token. Whatever it refuses is thrown as TokenError(Refused's statuses) with a text for the user.
class Device {
  public:
    explicit Device(std::string id);  // prepares the token

    const std::string& id() const { return id_; }
    std::vector<TalvikKeyPair> keys() const;
    std::vector<TalvikCertificate> certificates() const;
    bool signedOn() const;  // no PIN is needed

    // Tests `pin` on the token, once, and keeps it for what follows. Empty stands for the single sign-on.
    void login(const std::string& pin);

    // A digest of 32, 48 or 64 bytes; the signature is as the device library gives it.
    Bytes sign(const TalvikKeyPair& key, ByteView digest) const;
    TalvikKeyPair generate(std::uint32_t type, std::uint32_t usage, const std::string& label) const;
    void remove(const TalvikKeyPair& key) const;
    // For `key`, or for none of the token's keys.
    void store(ByteView certificate, const TalvikKeyPair* key, const std::string& label) const;

  private:
    std::string id_;
    std::string pin_;
};

// The identifiers of the attached tokens, the default one first. Throws when there is no usable device library.
std::vector<std::string> attachedTokens();

// Every attached token; throws NoSuchDevice when there is none.
std::vector<Device> attachedDevices();

// --- which token and which key a command means ---

struct KeyOnToken {
    Device device;
    TalvikKeyPair key;
};

// --token and the PIN of a command.
struct TokenOption {
    std::string token;
    PinOption pin;

    void addTo(CLI::App& command);
    Device device() const;                          // the one named, or the only one
    std::vector<Device> devices() const;            // the one named, or all
    KeyOnToken key(const std::string& name) const;  // by container, label or their certificate's subject
    void login(Device& device) const;               // asks for the PIN where one is needed
};

}  // namespace talvik_tool
