// A token folder of its own for each test, and the device library's operations with their usual arguments.
#pragma once

#include <gtest/gtest.h>
#include <string>

#include "support/bytes.h"
#include "token/device_library.h"

namespace talvik_test {

inline constexpr char device[] = "T1";
inline constexpr char pin[] = "1234";
inline constexpr char adminPin[] = "12345678";

// Statuses of the virtual token, as docs/virtual-token.md lists them.
inline constexpr int InvalidArgument = 1, NoSuchDevice = 2, DeviceDetached = 3, NoSuchObject = 4, WrongPin = 5,
                     PinLocked = 6, PinRequired = 7, UsageForbidden = 8, BufferTooSmall = 9, Unsupported = 10,
                     BadKey = 11, BadSignature = 12, BadData = 13, BadInitialVector = 14, BadCertificate = 15,
                     BadHashHandle = 16;

struct Result {
    int status;
    Bytes bytes;
};

// Runs talvik.exe, with its output into `output` if that is given; gives its exit code.
int talvik(const std::string& arguments, const std::filesystem::path& output = {});

struct Key {
    int status;
    TalvikKeyPair record;
    const unsigned char* id() const { return record.keyId; }
};
Key generate(std::uint32_t type, std::uint32_t usage, const char* withPin = pin);
Result sign(const Key& key, const Bytes& digest, bool pss = false, const char* withPin = pin);
Result decrypt(const Key& key, const Bytes& ciphertext, const char* withPin = pin);
Result encryptAes(EncryptionType type, const Bytes& key, const Bytes& plaintext, const Bytes& iv);
Result decryptAes(const Bytes& key, const Bytes& ciphertext, const Bytes& iv);
Result hashOf(int algorithm, const Bytes& data);
int verify(const Bytes& publicKeyInfo, const Bytes& digest, const Bytes& signature, bool pss = false);
int login(const char* withPin, int* remaining = nullptr);

// What this program does when a test has started it again as another process; gives its exit code.
int runAsChild(const std::string& role);

// Makes token T1 in a fresh folder and points TALVIK_TOKEN_HOME at it.
class VirtualTokenTest : public testing::Test {
  protected:
    VirtualTokenTest();

    // The key's public half for openssl: key.pem in the scratch folder. Gives the SubjectPublicKeyInfo.
    Bytes publicKeyFile(const Key& key) const;

    ScratchFolder scratch;
};

}  // namespace talvik_test
