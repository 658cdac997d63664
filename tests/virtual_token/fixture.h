// The device library's operations with their usual arguments, on one token that is new for each test.
#pragma once

#include "support/tokens.h"
#include "token/device_library.h"

namespace talvik_test {

inline constexpr char device[] = "T1";

// Statuses of the virtual token, as docs/virtual-token.md lists them.
inline constexpr int InvalidArgument = 1, NoSuchDevice = 2, DeviceDetached = 3, NoSuchObject = 4, WrongPin = 5,
                     PinLocked = 6, PinRequired = 7, UsageForbidden = 8, BufferTooSmall = 9, Unsupported = 10,
                     BadKey = 11, BadSignature = 12, BadData = 13, BadInitialVector = 14, BadCertificate = 15,
                     BadHashHandle = 16, StorageFailure = 18;

struct Result {
    int status;
    Bytes bytes;
};

struct Key {
    int status;
    TalvikKeyPair record;
    const unsigned char* id() const { return record.keyId; }
    Bytes publicKey() const { return {record.modulus, record.modulus + record.modulusLength}; }
};
Key generate(std::uint32_t type, std::uint32_t usage, const char* withPin = pin);
Result sign(const Key& key, const Bytes& digest, bool pss = false, const char* withPin = pin);
Result encrypt(const Bytes& publicKeyInfo, const Bytes& plaintext, PaddingMode padding);
Result decrypt(const Key& key, const Bytes& ciphertext, const char* withPin = pin);
Result encryptAes(EncryptionType type, const Bytes& key, const Bytes& plaintext, const Bytes& iv);
Result decryptAes(const Bytes& key, const Bytes& ciphertext, const Bytes& iv);
Result unwrap(const unsigned char* aesKeyId, const Bytes& wrapped);
Result hashOf(int algorithm, const Bytes& data);
int verify(const Bytes& publicKeyInfo, const Bytes& digest, const Bytes& signature, bool pss = false);
int login(const char* withPin, int* remaining = nullptr);

// A key value for talvik_importAesKey, and the record that it makes of it.
TalvikSymmetricKey aesRecord(const Bytes& value, std::uint32_t type);
TalvikSymmetricKey importAes(const Bytes& value, std::uint32_t type);

class VirtualTokenTest : public Tokens {
  protected:
    VirtualTokenTest() : Tokens(device) {}
};

}  // namespace talvik_test
