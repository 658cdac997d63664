// Eight threads, both faces, four tokens of which one stays, one comes and goes, one is signed on and off, and one
// fails.
//
// Signing with PKCS #1 is deterministic: every signature is compared with one that openssl has accepted. What does not
// succeed must end with one of the codes that its call has for that. No window may appear.
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "e2e_ksp/cng.h"
#include "soak/watch.h"
#include "token_home.h"

namespace soak {
namespace {

using namespace e2e;

constexpr std::size_t threads = 8;
constexpr unsigned messages = 8;
constexpr DWORD silentPkcs1 = NCRYPT_SILENT_FLAG | BCRYPT_PAD_PKCS1;

struct SoakToken {
    std::string id;
    std::string signing, exchange;  // containers
    std::vector<Bytes> signatures;  // of the messages, most significant byte first
};

std::string text(std::int64_t code) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "%08lX", static_cast<unsigned long>(code & 0xFFFFFFFF));
    return hex;
}

// The tokens with their keys, and what came of every call.
class Soak : public Tokens {
  protected:
    Soak() {
        for (unsigned i = 0; i < messages; ++i) {
            messages_.push_back(pattern(100 + 1000 * i));
            digests_.push_back(digestOf(messages_.back(), "sha256"));
        }
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
        const Context context = acquire(tokens_[0].exchange);
        wrapped_ = encrypt(userKey(context, AT_KEYEXCHANGE), sessionKey_, 256);
        EXPECT_TRUE(givePin(context));
    }

    void run(int operations, unsigned seed) {
        watchdog_ = std::make_unique<Watchdog>(threads);
        std::vector<std::jthread> workers;
        for (std::size_t i = 0; i < threads; ++i) {
            workers.emplace_back(
                [=, this] { work(i, operations / static_cast<int>(threads), seed + static_cast<unsigned>(i)); });
        }
        workers.clear();  // joins them
        watchdog_.reset();
    }

    const std::map<std::string, int>& outcomes() const { return outcomes_; }
    const std::map<std::string, int>& unexpected() const { return unexpected_; }

  private:
    struct Row {
        const char* name;
        void (Soak::*operation)(std::mt19937& random);
        unsigned weight;
    };
    static const std::array<Row, 13> rows_;

    // While no other token is attached: new keys go to the first one.
    void makeKeys(SoakToken& token) {
        const CngObject provider = openProvider();
        EXPECT_EQ(givePin(provider), ERROR_SUCCESS);
        token.signing = nameOf(createKey(provider, L"RSA", 0, AT_SIGNATURE));
        token.exchange = nameOf(createKey(provider, L"RSA", 0, AT_KEYEXCHANGE));
        const Context context = acquire(token.signing);
        for (const Bytes& message : messages_) {
            const Bytes signature = sign(digest(context, CALG_SHA_256, message));
            EXPECT_TRUE(opensslAccepts(publicKey(context), "-sha256", message, signature));
            token.signatures.push_back(reversed(signature));
        }
    }

    void work(std::size_t thread, int operations, unsigned seed) {
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

    void expect(const char* call, std::int64_t code, std::initializer_list<std::int64_t> allowed) {
        const std::string line = std::string(call) + " " + text(code);
        const bool known = std::ranges::any_of(
            allowed, [code](std::int64_t one) { return static_cast<DWORD>(one) == static_cast<DWORD>(code); });
        const std::lock_guard guard(outcomesLock_);
        const int times = ++(known ? outcomes_ : unexpected_)[line];
        if (!known && times == 1) {  // a long run is watched, and may be ended from outside
            std::fprintf(stderr, "unexpected: %s\n", line.c_str());
        }
    }
    void expectTrue(const char* call, bool holds) { expect(call, holds ? 0 : -1, {0}); }

    void signWithCryptoApi(std::mt19937& random) {
        const unsigned message = random() % messages;
        const Context context = acquire(tokens_[0].signing);
        const Bytes signature = sign(digest(context, CALG_SHA_256, messages_[message]));
        expectTrue("CryptSignHash", signature == reversed(tokens_[0].signatures[message]));
    }

    void verifyWithCryptoApi(std::mt19937& random) {
        const unsigned message = random() % messages;
        const Context context = acquire(tokens_[0].signing);
        const Key key = userKey(context);
        const Hash hash = digest(context, CALG_SHA_256, messages_[message]);
        Bytes signature = reversed(tokens_[0].signatures[message]);
        expectTrue("CryptVerifySignature", verifies(hash, signature, key));
        ++signature[random() % signature.size()];
        expect("CryptVerifySignature of a wrong one", errorOf(verifies(hash, signature, key)), {NTE_BAD_SIGNATURE});
    }

    // On whatever token the name leads to at the moment.
    void hashWithCryptoApi(std::mt19937& random) {
        const unsigned message = random() % messages;
        const Context context = acquire(tokens_[random() % tokens_.size()].signing);
        expectTrue("CryptGetHashParam",
                   valueOf(digest(context, CALG_SHA_256, messages_[message])) == digests_[message]);
    }

    // One at a time: three wrong ones in a row would lock the token.
    void givePins(std::mt19937&) {
        const std::lock_guard guard(pins_);
        const Context context = acquire(tokens_[0].signing);
        expect("CryptSetProvParam, wrong PIN", errorOf(givePin(context, "9999")), {NTE_KEYSET_ENTRY_BAD});
        expect("CryptSetProvParam, right PIN", errorOf(givePin(context)), {0});
    }

    void useSessionKey(std::mt19937& random) {
        const Context context = acquire(tokens_[0].exchange);
        const Key exchange = userKey(context, AT_KEYEXCHANGE);
        const Key key = import(context, keyBlob(SIMPLEBLOB, CALG_AES_128, wrapped_), exchange);
        expect("CryptImportKey", errorOf(key != 0), {0});
        const Bytes plaintext = pattern(1 + random() % 500);
        expectTrue("CryptEncrypt and CryptDecrypt",
                   !key || decrypt(key, encrypt(key, plaintext, plaintext.size() + 16)) == plaintext);
    }

    void readParameters(std::mt19937& random) {
        const Context context = acquire(tokens_[random() % tokens_.size()].signing);
        char name[256] = {};
        DWORD size = sizeof name;
        for (DWORD flag = CRYPT_FIRST;
             CryptGetProvParam(context, PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &size, flag);
             flag = CRYPT_NEXT, size = sizeof name) {
        }
        expect("CryptGetProvParam", GetLastError(), {ERROR_NO_MORE_ITEMS});
        Bytes random64(64);
        const std::int64_t code = errorOf(CryptGenRandom(context, 64, random64.data()));
        expect("CryptGenRandom", code, {0, NTE_PROVIDER_DLL_FAIL});  // the token may have gone since
        expectTrue("CryptGenRandom's result", code != 0 || random64 != Bytes(64));
    }

    void signWithCng(std::mt19937& random) {
        const std::size_t which = random() % tokens_.size();
        const unsigned message = random() % messages;
        const CngObject key = openKey(openProvider(), tokens_[which].signing);
        if (which == 0) {
            expect("NCryptOpenKey", status, {ERROR_SUCCESS});
        } else {
            expect("NCryptOpenKey, unsteady token", status, {ERROR_SUCCESS, NTE_NO_KEY});
        }
        if (!key) {
            return;
        }
        const Bytes signature = sign(key, digests_[message], silentPkcs1);
        if (which == 0) {
            expect("NCryptSignHash", status, {ERROR_SUCCESS});
        } else {
            expect("NCryptSignHash, unsteady token", status, {ERROR_SUCCESS, NTE_SILENT_CONTEXT, NTE_INTERNAL_ERROR});
        }
        expectTrue("NCryptSignHash's result",
                   status != ERROR_SUCCESS || signature == tokens_[which].signatures[message]);
    }

    void verifyWithCng(std::mt19937& random) {
        const unsigned message = random() % messages;
        const CngObject key = openKey(openProvider(), tokens_[0].signing);
        Bytes digest = digests_[message];
        const Bytes& signature = tokens_[0].signatures[message];
        expectTrue("NCryptVerifySignature", verifies(key, digest, signature, BCRYPT_PAD_PKCS1));
        ++digest[random() % 32];
        verifies(key, digest, signature, BCRYPT_PAD_PKCS1);
        expect("NCryptVerifySignature of a wrong one", status, {NTE_BAD_SIGNATURE});
    }

    void decryptWithCng(std::mt19937&) {
        const CngObject key = openKey(openProvider(), tokens_[0].exchange);
        expectTrue("NCryptDecrypt", decrypt(key, reversed(wrapped_), silentPkcs1) == sessionKey_);
    }

    void givePinWithCng(std::mt19937& random) {
        if (const CngObject key = openKey(openProvider(), tokens_[1 + random() % 3].signing)) {
            expect("NCryptSetProperty, PIN", givePin(key), {ERROR_SUCCESS, NTE_VALIDATION_FAILED});
        }
    }

    void enumerateWithCng(std::mt19937&) {
        const CngObject provider = openProvider();
        NCryptAlgorithmName* algorithms = nullptr;
        DWORD count = 0;
        expect("NCryptEnumAlgorithms", NCryptEnumAlgorithms(provider, 0, &count, &algorithms, 0), {ERROR_SUCCESS});
        NCryptFreeBuffer(algorithms);
        enumerateKeys(provider);
        expect("NCryptEnumKeys", status, {NTE_NO_MORE_ITEMS});
    }

    void makeAndDeleteKey(std::mt19937&) {
        CngObject key = createKey(openProvider(), L"ECDSA_P256");
        expect("NCryptDeleteKey", NCryptDeleteKey(key, 0), {ERROR_SUCCESS});
        *key.put() = 0;
    }

    // What happens to the tokens meanwhile; the disturbing threads take turns.
    void disturb(std::mt19937& random) {
        const std::lock_guard guard(disturbing_);
        const std::filesystem::path broken =
            std::filesystem::path(virtual_token::tokenHome()) / (tokens_[3].id + ".json");
        const std::filesystem::path whole = broken.string() + ".kept";
        std::error_code passing;  // somebody has the file open at the moment
        try {
            switch (random() % 6) {
                case 0:
                case 1:
                    return virtual_token::findToken(tokens_[1].id)->changeState([](auto& state) {
                        state.attached = !state.attached;
                    });
                case 2:
                    return virtual_token::findToken(tokens_[2].id)->signOn(pin);
                case 3:
                    return virtual_token::findToken(tokens_[2].id)->endSignOn(virtual_token::SignOn::Expired);
                case 4:
                    std::filesystem::rename(broken, whole, passing);
                    std::ofstream(broken, std::ios::binary) << "{\"format\": 1,";
                    return;
                default:
                    if (std::filesystem::exists(whole)) {
                        std::filesystem::rename(whole, broken, passing);
                    }
            }
        } catch (const std::exception& failed) {
            expect(failed.what(), -1, {0});
        }
    }

    std::array<SoakToken, 4> tokens_;
    std::vector<Bytes> messages_, digests_;
    Bytes wrapped_, sessionKey_ = pattern(16);
    std::mutex pins_, disturbing_, outcomesLock_;
    std::map<std::string, int> outcomes_, unexpected_;
    std::atomic<int> done_ = 0;
    std::unique_ptr<Watchdog> watchdog_;
};

const std::array<Soak::Row, 13> Soak::rows_ = {{
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
}};

TEST_F(Soak, EveryCallEndsAsItShould) {
    const char* const given = std::getenv("TALVIK_SOAK_OPERATIONS");
    const int operations = given != nullptr ? std::atoi(given) : 2000;
    DialogRobot robot;
    run(std::max(1000, operations / 10), 1);
    const Footprint before = footprint();
    run(operations, 100);
    const Footprint after = footprint();
    for (const auto& [line, count] : outcomes()) {
        std::printf("%8d %s\n", count, line.c_str());
    }
    std::printf("%d operations; %s\n", operations, difference(before, after).c_str());
    EXPECT_EQ(unexpected(), (std::map<std::string, int>{}));
    EXPECT_EQ(robot.finish(), Seen{});
    EXPECT_TRUE(isFlat(before, after));
}

}  // namespace
}  // namespace soak
