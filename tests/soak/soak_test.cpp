// Eight threads, both faces, four tokens of which one stays, one comes and goes, one is signed on and off, and one
// fails.
//
// Signing with PKCS #1 is deterministic: every signature is compared with one that openssl has accepted. What does not
// succeed must end with one of the codes that its call has for that. No window may appear.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "e2e/surroundings.h"
#include "soak/cng_table.h"
#include "soak/watch.h"
#include "support/dialog_robot.h"
#include "token_home.h"

namespace soak {
namespace {

using namespace e2e;

constexpr std::size_t threads = 8;
constexpr unsigned messages = 8;
constexpr DWORD silentPkcs1 = NCRYPT_SILENT_FLAG | BCRYPT_PAD_PKCS1;

Bytes reversed(Bytes bytes) {
    std::ranges::reverse(bytes);
    return bytes;
}

struct SoakToken {
    std::string id;
    std::string signing, exchange;  // containers
    std::vector<Bytes> signatures;  // of the messages, most significant byte first
};

// The tokens with their keys, and what came of every call.
class Soak : public Tokens {
  protected:
    void SetUp() override;
    void work(std::size_t thread, int operations, unsigned seed);
    void run(int operations, unsigned seed);
    void report() const;
    std::map<std::string, int> unexpected() const { return unexpected_; }

  private:
    using Operation = void (Soak::*)(std::mt19937& random);
    struct Row {
        const char* name;
        Operation operation;
        unsigned weight;
    };
    static const Row rows_[];

    void makeKeys(SoakToken& token);
    std::string makeKey(DWORD keySpec);
    Bytes signThrough(const CngKey& key, unsigned message, SECURITY_STATUS& status) const;
    void expect(const char* call, std::int64_t code, std::initializer_list<std::int64_t> allowed);
    void expectTrue(const char* call, bool holds) { expect(call, holds ? 0 : -1, {0}); }

    void signWithCryptoApi(std::mt19937& random);
    void verifyWithCryptoApi(std::mt19937& random);
    void hashWithCryptoApi(std::mt19937& random);
    void givePins(std::mt19937& random);
    void useSessionKey(std::mt19937& random);
    void readParameters(std::mt19937& random);
    void signWithCng(std::mt19937& random);
    void verifyWithCng(std::mt19937& random);
    void decryptWithCng(std::mt19937& random);
    void givePinWithCng(std::mt19937& random);
    void enumerateWithCng(std::mt19937& random);
    void makeAndDeleteKey(std::mt19937& random);
    void disturb(std::mt19937& random);

    std::vector<SoakToken> tokens_;
    std::vector<Bytes> messages_, digests_;
    Bytes wrapped_, sessionKey_ = pattern(16);
    std::mutex pins_, disturbing_, outcomesLock_;
    std::map<std::string, int> outcomes_, unexpected_;
    std::atomic<int> done_ = 0;
    std::unique_ptr<Watchdog> watchdog_;
};

std::string text(std::int64_t code) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "%08lX", static_cast<unsigned long>(code & 0xFFFFFFFF));
    return hex;
}

void Soak::expect(const char* call, std::int64_t code, std::initializer_list<std::int64_t> allowed) {
    const std::string line = std::string(call) + " " + text(code);
    const bool known = std::ranges::any_of(
        allowed, [code](std::int64_t one) { return static_cast<DWORD>(one) == static_cast<DWORD>(code); });
    const std::lock_guard guard(outcomesLock_);
    const int times = ++(known ? outcomes_ : unexpected_)[line];
    if (!known && times == 1) {  // a long run is watched, and may be ended from outside
        std::fprintf(stderr, "unexpected: %s\n", line.c_str());
    }
}

// --- the tokens ------------------------------------------------------------------------------------------------------

std::string Soak::makeKey(DWORD keySpec) {
    CngKey key("");
    std::string value = pin;
    DWORD size = 0;
    wchar_t name[64] = {};
    EXPECT_EQ(
        cng().SetProviderProperty(key.provider(), NCRYPT_PIN_PROPERTY, reinterpret_cast<PBYTE>(value.data()), 5, 0),
        ERROR_SUCCESS);
    EXPECT_EQ(cng().CreatePersistedKey(key.provider(), key.put(), L"RSA", nullptr, keySpec, 0), ERROR_SUCCESS);
    EXPECT_EQ(cng().FinalizeKey(key.provider(), key.key(), 0), ERROR_SUCCESS);
    EXPECT_EQ(cng().GetKeyProperty(key.provider(), key.key(), NCRYPT_NAME_PROPERTY, reinterpret_cast<PBYTE>(name),
                                   sizeof name, &size, 0),
              ERROR_SUCCESS);
    return {name, name + 32};
}

// While no other token is attached: new keys go to the first one.
void Soak::makeKeys(SoakToken& token) {
    token.signing = makeKey(AT_SIGNATURE);
    token.exchange = makeKey(AT_KEYEXCHANGE);
    const Context context = acquire(token.signing.c_str());
    for (const Bytes& message : messages_) {
        const Bytes signature = sign(digest(context, CALG_SHA_256, message));
        ASSERT_TRUE(opensslAccepts(publicKey(context), "-sha256", message, signature));
        token.signatures.push_back(reversed(signature));
    }
}

void Soak::SetUp() {
    Tokens::SetUp();
    for (unsigned i = 0; i < messages; ++i) {
        messages_.push_back(pattern(100 + 1000 * i));
        write("message", messages_.back());
        ASSERT_EQ(openssl("dgst -sha256 -binary -out digest message").exitCode, 0);
        digests_.push_back(read("digest"));
    }
    tokens_.resize(4);
    for (std::size_t i = 0; i < tokens_.size(); ++i) {
        tokens_[i].id = i == 0 ? token() : std::string(1, static_cast<char>('U' + i)) + "-" + token();
        if (i != 0) {
            change("detach", tokens_[i - 1].id);
            addToken(tokens_[i].id);
        }
        makeKeys(tokens_[i]);
    }
    for (std::size_t i = 0; i + 1 < tokens_.size(); ++i) {
        change("attach", tokens_[i].id);
    }
    const Context context = acquire(tokens_[0].exchange.c_str());
    const Key exchange = userKey(context, AT_KEYEXCHANGE);
    wrapped_ = sessionKey_;
    wrapped_.resize(256);
    DWORD size = 16;
    ASSERT_TRUE(CryptEncrypt(exchange, 0, TRUE, 0, wrapped_.data(), &size, 256));
    wrapped_.resize(size);
    ASSERT_TRUE(CryptSetProvParam(context, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(pin), 0));
}

// --- the operations --------------------------------------------------------------------------------------------------

void Soak::signWithCryptoApi(std::mt19937& random) {
    const unsigned message = random() % messages;
    const Context context = acquire(tokens_[0].signing.c_str());
    const Bytes signature = sign(digest(context, CALG_SHA_256, messages_[message]));
    expectTrue("CryptSignHash", signature == reversed(tokens_[0].signatures[message]));
}

void Soak::verifyWithCryptoApi(std::mt19937& random) {
    const unsigned message = random() % messages;
    const Context context = acquire(tokens_[0].signing.c_str());
    const Key key = userKey(context);
    const Hash hash = digest(context, CALG_SHA_256, messages_[message]);
    Bytes signature = reversed(tokens_[0].signatures[message]);
    const auto verify = [&] {
        return CryptVerifySignatureA(hash, signature.data(), static_cast<DWORD>(signature.size()), key, nullptr, 0);
    };
    expectTrue("CryptVerifySignature", verify());
    ++signature[random() % signature.size()];
    expect("CryptVerifySignature of a wrong one", verify() ? 0 : GetLastError(), {NTE_BAD_SIGNATURE});
}

// On whatever token the name leads to at the moment.
void Soak::hashWithCryptoApi(std::mt19937& random) {
    const unsigned message = random() % messages;
    const Context context = acquire(tokens_[random() % tokens_.size()].signing.c_str());
    const Hash hash = digest(context, CALG_SHA_256, messages_[message]);
    Bytes value(32);
    DWORD size = 32;
    expectTrue("CryptGetHashParam",
               CryptGetHashParam(hash, HP_HASHVAL, value.data(), &size, 0) && value == digests_[message]);
}

// One at a time: three wrong ones in a row would lock the token.
void Soak::givePins(std::mt19937&) {
    const std::lock_guard guard(pins_);
    const Context context = acquire(tokens_[0].signing.c_str());
    const auto give = [&](const char* text) -> DWORD {
        return CryptSetProvParam(context, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(text), 0) ? 0
                                                                                                    : GetLastError();
    };
    expect("CryptSetProvParam, wrong PIN", give("9999"), {NTE_KEYSET_ENTRY_BAD});
    expect("CryptSetProvParam, right PIN", give(pin), {0});
}

void Soak::useSessionKey(std::mt19937& random) {
    const Context context = acquire(tokens_[0].exchange.c_str());
    const Key exchange = userKey(context, AT_KEYEXCHANGE);
    Bytes blob = {SIMPLEBLOB, CUR_BLOB_VERSION, 0, 0, 0x0E, 0x66, 0, 0, 0, 0xA4, 0, 0};
    blob.insert(blob.end(), wrapped_.begin(), wrapped_.end());
    Key key;
    const BOOL imported = CryptImportKey(context, blob.data(), static_cast<DWORD>(blob.size()), exchange, 0, key.put());
    expect("CryptImportKey", imported ? 0 : GetLastError(), {0});
    if (!imported) {
        return;
    }
    const Bytes plaintext = pattern(1 + random() % 500);
    Bytes data = plaintext;
    auto size = static_cast<DWORD>(data.size());
    data.resize(data.size() + 16);
    expectTrue("CryptEncrypt", CryptEncrypt(key, 0, TRUE, 0, data.data(), &size, static_cast<DWORD>(data.size())));
    expectTrue("CryptDecrypt", CryptDecrypt(key, 0, TRUE, 0, data.data(), &size));
    data.resize(size);
    expectTrue("CryptDecrypt's result", data == plaintext);
}

void Soak::readParameters(std::mt19937& random) {
    const Context context = acquire(tokens_[random() % tokens_.size()].signing.c_str());
    char name[256] = {};
    DWORD size = sizeof name;
    int containers = 0;
    for (DWORD flag = CRYPT_FIRST;
         CryptGetProvParam(context, PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &size, flag);
         flag = CRYPT_NEXT, size = sizeof name) {
        ++containers;
    }
    expect("CryptGetProvParam", GetLastError(), {ERROR_NO_MORE_ITEMS});
    Bytes random64(64);
    const DWORD code = CryptGenRandom(context, 64, random64.data()) ? 0 : GetLastError();
    expect("CryptGenRandom", code, {0, NTE_PROVIDER_DLL_FAIL});  // the token may have gone since
    expectTrue("CryptGenRandom's result", code != 0 || random64 != Bytes(64));
}

Bytes Soak::signThrough(const CngKey& key, unsigned message, SECURITY_STATUS& status) const {
    Bytes digest = digests_[message], signature(512);
    DWORD size = 0;
    status = cng().SignHash(key.provider(), key.key(), nullptr, digest.data(), 32, signature.data(), 512, &size,
                            silentPkcs1);
    signature.resize(size);
    return signature;
}

void Soak::signWithCng(std::mt19937& random) {
    const std::size_t which = random() % tokens_.size();
    const SoakToken& token = tokens_[which];
    const unsigned message = random() % messages;
    const CngKey key(token.signing);
    if (which == 0) {
        expect("KSPOpenKey", key.status(), {ERROR_SUCCESS});
    } else {
        expect("KSPOpenKey, unsteady token", key.status(), {ERROR_SUCCESS, NTE_NO_KEY});
    }
    if (key.status() != ERROR_SUCCESS) {
        return;
    }
    SECURITY_STATUS status = ERROR_SUCCESS;
    const Bytes signature = signThrough(key, message, status);
    if (which == 0) {
        expect("KSPSignHash", status, {ERROR_SUCCESS});
    } else {
        expect("KSPSignHash, unsteady token", status, {ERROR_SUCCESS, NTE_SILENT_CONTEXT, NTE_INTERNAL_ERROR});
    }
    expectTrue("KSPSignHash's result", status != ERROR_SUCCESS || signature == token.signatures[message]);
}

void Soak::verifyWithCng(std::mt19937& random) {
    const unsigned message = random() % messages;
    const CngKey key(tokens_[0].signing);
    Bytes digest = digests_[message], signature = tokens_[0].signatures[message];
    const auto verify = [&] {
        return cng().VerifySignature(key.provider(), key.key(), nullptr, digest.data(), 32, signature.data(),
                                     static_cast<DWORD>(signature.size()), BCRYPT_PAD_PKCS1);
    };
    expect("KSPVerifySignature", verify(), {ERROR_SUCCESS});
    ++digest[random() % 32];
    expect("KSPVerifySignature of a wrong one", verify(), {NTE_BAD_SIGNATURE});
}

void Soak::decryptWithCng(std::mt19937&) {
    const CngKey key(tokens_[0].exchange);
    Bytes ciphertext = reversed(wrapped_), plaintext(256);
    DWORD size = 0;
    expect("KSPDecrypt",
           cng().Decrypt(key.provider(), key.key(), ciphertext.data(), static_cast<DWORD>(ciphertext.size()), nullptr,
                         plaintext.data(), 256, &size, silentPkcs1),
           {ERROR_SUCCESS});
    plaintext.resize(size);
    expectTrue("KSPDecrypt's result", plaintext == sessionKey_);
}

void Soak::givePinWithCng(std::mt19937& random) {
    const CngKey key(tokens_[1 + random() % 3].signing);
    if (key.status() == ERROR_SUCCESS) {
        std::string value = pin;
        expect("KSPSetKeyProperty, PIN",
               cng().SetKeyProperty(key.provider(), key.key(), NCRYPT_PIN_PROPERTY,
                                    reinterpret_cast<PBYTE>(value.data()), 5, 0),
               {ERROR_SUCCESS, NTE_VALIDATION_FAILED});
    }
}

void Soak::enumerateWithCng(std::mt19937&) {
    const CngKey any("");
    NCryptAlgorithmName* algorithms = nullptr;
    DWORD count = 0;
    expect("KSPEnumAlgorithms", cng().EnumAlgorithms(any.provider(), 0, &count, &algorithms, 0), {ERROR_SUCCESS});
    cng().FreeBuffer(algorithms);
    void* state = nullptr;
    SECURITY_STATUS status = ERROR_SUCCESS;
    while (status == ERROR_SUCCESS) {
        NCryptKeyName* name = nullptr;
        status = cng().EnumKeys(any.provider(), nullptr, &name, &state, 0);
        if (status == ERROR_SUCCESS) {
            cng().FreeBuffer(name);
        }
    }
    expect("KSPEnumKeys", status, {NTE_NO_MORE_ITEMS});
    cng().FreeBuffer(state);
}

void Soak::makeAndDeleteKey(std::mt19937&) {
    CngKey key("");
    expect("KSPCreatePersistedKey", cng().CreatePersistedKey(key.provider(), key.put(), L"ECDSA_P256", nullptr, 0, 0),
           {ERROR_SUCCESS});
    expect("KSPFinalizeKey", cng().FinalizeKey(key.provider(), key.key(), 0), {ERROR_SUCCESS});
    expect("KSPDeleteKey", cng().DeleteKey(key.provider(), key.key(), 0), {ERROR_SUCCESS});
}

// What happens to the tokens meanwhile; the disturbing threads take turns.
void Soak::disturb(std::mt19937& random) {
    const std::lock_guard guard(disturbing_);
    const std::filesystem::path broken = std::filesystem::path(virtual_token::tokenHome()) / (tokens_[3].id + ".json");
    const std::filesystem::path whole = broken.string() + ".kept";
    const auto attach = [&](bool attached) {
        virtual_token::findToken(tokens_[1].id)->changeState([=](auto& state) { state.attached = attached; });
    };
    try {
        switch (random() % 6) {
            case 0:
                return attach(false);
            case 1:
                return attach(true);
            case 2:
                return virtual_token::findToken(tokens_[2].id)->signOn(pin);
            case 3:
                return virtual_token::findToken(tokens_[2].id)->endSignOn(virtual_token::SignOn::Expired);
            case 4: {
                std::error_code absent;
                std::filesystem::rename(broken, whole, absent);
                std::ofstream(broken, std::ios::binary) << "{\"format\": 1,";
                return;
            }
            default:
                std::error_code busy;
                if (std::filesystem::exists(whole)) {
                    std::filesystem::rename(whole, broken, busy);
                }
                return;
        }
    } catch (const std::exception& failed) {
        expect(failed.what(), -1, {0});
    }
}

const Soak::Row Soak::rows_[] = {
    {"signWithCryptoApi", &Soak::signWithCryptoApi, 60},
    {"verifyWithCryptoApi", &Soak::verifyWithCryptoApi, 60},
    {"hashWithCryptoApi", &Soak::hashWithCryptoApi, 80},
    {"givePins", &Soak::givePins, 2},
    {"useSessionKey", &Soak::useSessionKey, 60},
    {"readParameters", &Soak::readParameters, 60},
    {"signWithCng", &Soak::signWithCng, 120},
    {"verifyWithCng", &Soak::verifyWithCng, 60},
    {"decryptWithCng", &Soak::decryptWithCng, 60},
    {"givePinWithCng", &Soak::givePinWithCng, 10},
    {"enumerateWithCng", &Soak::enumerateWithCng, 60},
    {"makeAndDeleteKey", &Soak::makeAndDeleteKey, 2},
    {"disturb", &Soak::disturb, 6},
};

// --- the run ---------------------------------------------------------------------------------------------------------

void Soak::work(std::size_t thread, int operations, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<double> weights;
    for (const Row& row : rows_) {
        weights.push_back(row.weight);
    }
    std::discrete_distribution<std::size_t> choose(weights.begin(), weights.end());
    for (int i = 0; i < operations; ++i) {
        const Row& row = rows_[choose(random)];
        watchdog_->enters(thread, row.name);
        (this->*row.operation)(random);
        if (const int done = ++done_; done % 10'000 == 0) {
            std::fprintf(stderr, "%d operations\n", done);
        }
    }
    watchdog_->rests(thread);
}

void Soak::run(int operations, unsigned seed) {
    watchdog_ = std::make_unique<Watchdog>(threads);
    std::vector<std::thread> workers;
    for (std::size_t i = 0; i < threads; ++i) {
        workers.emplace_back(
            [=, this] { work(i, operations / static_cast<int>(threads), seed + static_cast<unsigned>(i)); });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    watchdog_.reset();
}

void Soak::report() const {
    for (const auto& [line, count] : outcomes_) {
        std::printf("%8d %s\n", count, line.c_str());
    }
}

TEST_F(Soak, EveryCallEndsAsItShould) {
    const char* const given = std::getenv("TALVIK_SOAK_OPERATIONS");
    const int operations = given != nullptr ? std::atoi(given) : 2000;
    DialogRobot robot;
    run(std::max(1000, operations / 10), 1);
    const Footprint before = footprint();
    run(operations, 100);
    const Footprint after = footprint();
    report();
    std::printf("%d operations; %s\n", operations, difference(before, after).c_str());
    EXPECT_EQ(unexpected(), (std::map<std::string, int>{}));
    EXPECT_EQ(robot.finish(), std::vector<std::string>{});
    EXPECT_TRUE(isFlat(before, after));
}

}  // namespace
}  // namespace soak
