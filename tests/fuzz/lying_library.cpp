#include "fuzz/lying_library.h"

#include <climits>
#include <cstdlib>

#include "fake_library.h"

namespace {

thread_local Input script;
thread_local bool isFuzzed = false;

// Lists are handed out by reference; each call makes its list anew, so that a reference that is kept is one to freed
// memory.
std::vector<TalvikKeyPair> keyPairs;
std::vector<TalvikCertificate> certificates;
std::vector<TalvikSymmetricKey> aesKeys;

constexpr std::uint32_t lengths[] = {0,    1,    16,   20,   24,      32,         33,         48,        64,
                                     127,  128,  129,  255,  256,     257,        384,        512,       1023,
                                     1024, 1025, 3072, 3073, 0x10000, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};

std::uint32_t lieOf(std::uint32_t honest) {
    const std::uint8_t mood = script.take<std::uint8_t>();
    return mood < 0x80 ? honest : lengths[(mood & 0x7F) % std::size(lengths)];
}

int status() {
    constexpr int failures[] = {1, 48, 49, -1, INT_MAX, INT_MIN};
    const std::uint8_t mood = script.take<std::uint8_t>();
    return mood < 0xC0 ? 0 : failures[(mood & 0x3F) % std::size(failures)];
}

// Bytes that the library really writes: `honest` of them, whatever length it reports.
int write(unsigned char* buffer, std::uint32_t honest, int* length) {
    const int result = status();
    std::fill_n(buffer, honest, static_cast<unsigned char>(0xA5));
    *length = static_cast<int>(lieOf(honest));
    return result;
}

int allocate(unsigned char** buffer, std::uint32_t honest, int* length) {
    constexpr std::uint32_t believable = 0x20000;
    const int result = status();
    const std::uint32_t reported = lieOf(honest);
    const std::uint8_t mood = script.take<std::uint8_t>();
    if (mood < 0xE0) {
        const std::size_t size = reported <= believable ? std::max(reported, 1u) : 1;
        *buffer = static_cast<unsigned char*>(std::malloc(size));
        std::fill_n(*buffer, size, static_cast<unsigned char>(0x5A));
    } else if (mood < 0xF0) {
        *buffer = nullptr;
    }
    *length = static_cast<int>(reported);
    return result;
}

template <std::size_t Capacity>
void putText(char (&field)[Capacity]) {
    const std::uint8_t mood = script.take<std::uint8_t>();
    std::fill_n(field, mood < 0x80 ? mood % Capacity : Capacity, 'L');
}

template <class Record, class Fill>
std::vector<Record>& renew(std::vector<Record>& list, std::size_t usual, Fill fill) {
    const std::uint8_t mood = script.take<std::uint8_t>();
    std::vector<Record> fresh(mood < 0x80 ? usual : (mood & 3));
    for (Record& record : fresh) {
        fill(record);
    }
    list.swap(fresh);
    return list;
}

void makeKeyPair(TalvikKeyPair& key) {
    std::ranges::fill(key.keyId, static_cast<unsigned char>(script.below(3)));
    std::ranges::fill(key.modulus, script.take<std::uint8_t>());
    std::ranges::fill(key.keyAlias, static_cast<unsigned char>(script.below(2)));
    key.modulusLength = lieOf(256);
    key.keyAliasLength = lieOf(16);
    putText(key.label);
    key.usage = lieOf(TALVIK_USAGE_BOTH);
    key.keyType = script.below(4) == 0 ? TALVIK_KEY_RSA_2048 : static_cast<std::uint32_t>(script.below(12));
    key.storageFlag = script.take<std::uint8_t>();
}

void makeCertificate(TalvikCertificate& certificate) {
    std::ranges::fill(certificate.keyAlias, static_cast<unsigned char>(script.below(2)));
    certificate.derLength = lieOf(700);
    certificate.keyAliasLength = lieOf(16);
    putText(certificate.label);
}

void makeAesKey(TalvikSymmetricKey& key) {
    key.keyIdLength = static_cast<std::int32_t>(lieOf(16));
    key.keyType = script.below(3) == 0 ? TALVIK_KEY_AES_256 : static_cast<std::uint32_t>(script.below(16));
}

class LyingLibrary final : public FakeLibrary {
  public:
    int status(const Call&) override { return ::status(); }

    int fill(const Call&, unsigned char* buffer, int size, int* length) override {
        return write(buffer, static_cast<std::uint32_t>(size), length);
    }
    int allocate(const Call& call, unsigned char** buffer, int size, int* length) override {
        const bool padded = call.operation() == std::string("talvik_encrypt_aes");
        return ::allocate(buffer, static_cast<std::uint32_t>(padded ? size + 16 : size), length);
    }
    int fillWithRsaResult(const Call& call, unsigned char* buffer, int* length) override {
        return fill(call, buffer, script.below(3) == 2 ? 1024 : 256, length);
    }
    int fillWithDigest(const Call& call, unsigned char* buffer, int* length) override {
        return fill(call, buffer, std::clamp(*length, 0, 64), length);
    }
    int fillWithRandom(const Call&, unsigned char* buffer, int size) override {
        std::fill_n(buffer, size, static_cast<unsigned char>(0x42));
        return ::status();
    }

    TokenInfo tokenInfo(const Call&, const char*) override {
        TokenInfo info;
        const std::uint8_t mood = script.take<std::uint8_t>();
        info.tokenId = (mood & 1) != 0 ? "" : "token";
        info.firmwareVersion = (mood & 2) != 0 ? "1.9.10" : (mood & 4) != 0 ? "99999999999999999999..x" : "2.0";
        info.loginState = (mood & 8) == 0;
        info.ssoState = (mood & 16) == 0;
        return info;
    }
    std::vector<std::string> devices(const Call&) override {
        constexpr const char* names[] = {"T1", "T2", ""};
        std::vector<std::string> found = {"T1", "T2"};
        if (isFuzzed && script.take<std::uint8_t>() >= 0xC0) {
            found.assign(script.below(3), script.oneOf(names));
        }
        return found;
    }
    std::vector<TalvikKeyPair>& keyPairs(const Call&, const char*) override {
        return renew(::keyPairs, 1, makeKeyPair);
    }
    std::vector<TalvikCertificate>& certificates(const Call&, const char*) override {
        return renew(::certificates, 1, makeCertificate);
    }
    std::vector<TalvikSymmetricKey>& aesKeys(const Call&, const char*) override {
        return renew(::aesKeys, 1, makeAesKey);
    }

    int certificateDetails(const Call&, const unsigned char* der, int derLength, CertificateDetails& out) override {
        out.publicKey.assign(der, der + std::min(derLength, 256));
        return ::status();
    }
    int validatePassword(const Call&, int* remainingAttempts) override {
        const int result = ::status();
        *remainingAttempts = static_cast<int>(lieOf(3));
        return result;
    }
    int generateKeyPair(const Call&, TalvikKeyPair* key) override {
        std::vector<TalvikKeyPair> made;
        renew(made, 1, makeKeyPair).resize(1);
        *key = made.front();
        return ::status();
    }
    int importAesKey(const Call&, TalvikSymmetricKey* key) override {
        std::ranges::fill(key->identifier, static_cast<unsigned char>(7));
        putText(key->label);
        putText(key->name);
        key->keyIdLength = static_cast<std::int32_t>(lieOf(16));
        return ::status();
    }
} library;

}  // namespace

FakeLibrary& theLibrary() {
    return library;
}

void lying::follow(Input next) {
    script = next;
    isFuzzed = true;
    keyPairs = {};
    certificates = {};
    aesKeys = {};
}
