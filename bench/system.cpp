// The provider beside the system's own software CSP: the same program through the same CryptoAPI.
#include <algorithm>
#include <vector>

#include "level_query.h"
#include "sections.h"

namespace talvik::bench {
namespace {

struct CryptoApiProvider {
    const char* provider;
    DWORD type;
    const char* container;
    DWORD flags;
};

// An application's context with a signature key.
class Application {
  public:
    explicit Application(const CryptoApiProvider& which) : which_(which), context_(acquireOrMake(which.container)) {
        if (CryptGetUserKey(context_, AT_SIGNATURE, &key_) == FALSE) {
            require(CryptGenKey(context_, AT_SIGNATURE, 2048u << 16, &key_), "CryptGenKey");
        }
        signature_ = sign();
    }
    ~Application() {
        CryptDestroyKey(key_);
        CryptReleaseContext(context_, 0);
    }
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    Bytes sign() const {
        const Hash hash(context_, signedData_);
        Bytes signature(512);
        auto length = static_cast<DWORD>(signature.size());
        require(CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature.data(), &length), "CryptSignHash");
        signature.resize(length);
        return signature;
    }

    void verify() const {
        const Hash hash(context_, signedData_);
        require(CryptVerifySignatureA(hash, signature_.data(), static_cast<DWORD>(signature_.size()), key_, nullptr, 0),
                "CryptVerifySignature");
    }

    void hash(const Bytes& piece, std::size_t pieces) const {
        const Hash hash(context_, piece);
        for (std::size_t i = 1; i < pieces; ++i) {
            hash.add(piece);
        }
        BYTE digest[64];
        DWORD length = sizeof digest;
        require(CryptGetHashParam(hash, HP_HASHVAL, digest, &length, 0), "CryptGetHashParam");
    }

    void drawRandom() const {
        BYTE random[1024];
        require(CryptGenRandom(context_, sizeof random, random), "CryptGenRandom");
    }

    // In a container of its own: a token's new key takes over the name that it was made under.
    void generateKey() const {
        const HCRYPTPROV context = acquireOrMake("talvik_bench_generated");
        HCRYPTKEY key = 0;
        require(CryptGenKey(context, AT_KEYEXCHANGE, 2048u << 16, &key), "CryptGenKey");
        CryptDestroyKey(key);
        CryptReleaseContext(context, 0);
    }

    // A context of its own: CryptoAPI keeps the module for the one that is open.
    void acquireAndRelease() const {
        HCRYPTPROV context = 0;
        require(CryptAcquireContextA(&context, which_.container, which_.provider, which_.type, which_.flags),
                "CryptAcquireContext");
        require(CryptReleaseContext(context, 0), "CryptReleaseContext");
    }

  private:
    HCRYPTPROV acquireOrMake(const char* container) const {
        HCRYPTPROV context = 0;
        if (CryptAcquireContextA(&context, container, which_.provider, which_.type, which_.flags) == FALSE) {
            require(
                CryptAcquireContextA(&context, container, which_.provider, which_.type, which_.flags | CRYPT_NEWKEYSET),
                "CryptAcquireContext");
        }
        return context;
    }

    class Hash {
      public:
        Hash(HCRYPTPROV context, const Bytes& data) {
            require(CryptCreateHash(context, CALG_SHA_256, 0, 0, &handle_), "CryptCreateHash");
            add(data);
        }
        ~Hash() { CryptDestroyHash(handle_); }
        Hash(const Hash&) = delete;
        Hash& operator=(const Hash&) = delete;

        void add(const Bytes& data) const {
            require(CryptHashData(handle_, data.data(), static_cast<DWORD>(data.size()), 0), "CryptHashData");
        }
        operator HCRYPTHASH() const noexcept { return handle_; }

      private:
        HCRYPTHASH handle_ = 0;
    };

    const CryptoApiProvider& which_;
    const Bytes signedData_ = Bytes(1024, 0x5A);
    const HCRYPTPROV context_;
    HCRYPTKEY key_ = 0;
    Bytes signature_;
};

struct Task {
    const char* id;
    const char* name;
    std::function<void(const Application&)> run;
    double unitsPerRun;  // of what the picture counts: operations, or megabytes
    Effort effort = {};
};

// The time of a generation varies by itself, more than by who makes it: many single ones.
constexpr Effort manySingleRuns = {31, 1, 0};

std::vector<Task> tasks() {
    std::vector<Task> list = {
        {"system.sign", "sign: SHA-256 of 1 KiB, RSA-2048", [](const Application& application) { application.sign(); },
         1},
        {"system.verify", "verify: SHA-256 of 1 KiB, RSA-2048",
         [](const Application& application) { application.verify(); }, 1},
        {"system.random", "random: 1 KiB", [](const Application& application) { application.drawRandom(); }, 1},
        {"system.context", "context: acquire, release",
         [](const Application& application) { application.acquireAndRelease(); }, 1},
        {"system.generate", "new key: RSA-2048", [](const Application& application) { application.generateKey(); }, 1,
         manySingleRuns},
    };
    struct Chunks {
        const char* id;
        const char* name;
        std::size_t piece;
        std::size_t pieces;
    };
    constexpr Chunks chunks[] = {{"system.hash.512", "hash, chunks of 512 B", 512, 512},
                                 {"system.hash.4k", "hash, chunks of 4 KiB", 4u << 10, 128},
                                 {"system.hash.64k", "hash, chunks of 64 KiB", 64u << 10, 16},
                                 {"system.hash.1m", "hash, chunks of 1 MiB", 1u << 20, 2}};
    for (const Chunks& row : chunks) {
        list.push_back({row.id, row.name,
                        [piece = Bytes(row.piece, 0xA5), pieces = row.pieces](const Application& application) {
                            application.hash(piece, pieces);
                        },
                        static_cast<double>(row.piece * row.pieces) / 1e6});
    }
    return list;
}

// The keys that the measurement has left on the token.
void deleteAllBut(const std::vector<TalvikKeyPair>& kept, const BenchToken& token) {
    const std::vector<TalvikKeyPair> keys = talvik_getKeyPairList(token.deviceId.c_str(), nullptr);
    for (const TalvikKeyPair& key : keys) {
        const bool isKept = std::ranges::any_of(
            kept, [&](const TalvikKeyPair& other) { return std::ranges::equal(key.keyId, other.keyId); });
        if (!isKept) {
            requireStatus(talvik_deleteKeyPair(token.deviceId.c_str(), key.keyId, token.pin.c_str(),
                                               key.storageFlag != 0, nullptr),
                          "talvik_deleteKeyPair");
        }
    }
}

}  // namespace

void measureBesideSystem(const BenchToken& token, Json& rows) {
    const std::vector<TalvikKeyPair> keys = talvik_getKeyPairList(token.deviceId.c_str(), nullptr);
    const CryptoApiProvider talvik = {"Talvik Cryptographic Provider CSP", PROV_RSA_FULL, token.containerName.c_str(),
                                      0};
    const CryptoApiProvider software = {MS_ENH_RSA_AES_PROV_A, PROV_RSA_AES, "talvik_bench", 0};
    const Application own(talvik);
    const Application system(software);
    for (const Task& task : tasks()) {
        const Work provider = [&] { task.run(own); };
        const Work withoutQueries = [&] {
            const AnsweredQueries answered;
            task.run(own);
        };
        const Timings timings = measure(task.effort, {provider, withoutQueries, [&] { task.run(system); }});
        rows.push_back({{"section", "system"},
                        {"id", task.id},
                        {"name", task.name},
                        {"library", "virtual token"},
                        {"unitsPerRun", task.unitsPerRun},
                        {"levelQueries", queriesOf(provider)},
                        {"provider", toJson(timings.of(0))},
                        {"providerWithoutQueries", toJson(timings.of(1))},
                        {"system", toJson(timings.of(2))},
                        {"speed", toJson(timings.speed(0, 2))},
                        {"speedWithoutQueries", toJson(timings.speed(1, 2))},
                        {"speedUndisturbed", timings.undisturbedSpeed(0, 2)},
                        {"speedUndisturbedWithoutQueries", timings.undisturbedSpeed(1, 2)}});
    }
    deleteAllBut(keys, token);
}

}  // namespace talvik::bench
