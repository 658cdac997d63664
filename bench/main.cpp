// What the provider costs: each sequence of entry points against the same work done directly on the device library, in
// one process. Usage: talvik_bench PIN
#include <cstdio>
#include <exception>
#include <vector>

#include "measure.h"
#include "provider.h"
#include "token/device_library.h"

namespace talvik::bench {
namespace {

constexpr int digestSize = 32;

Comparison signSequence(const TokenContext& context, const std::string& pin) {
    const Provider& provider = context.provider;
    const std::vector<BYTE> data(1024, 0x5A);
    const auto throughProvider = [&] {
        HCRYPTHASH hash = 0;
        BYTE signature[512];
        DWORD length = sizeof signature;
        require(provider.createHash(context.handle, CALG_SHA_256, 0, 0, &hash), "CPCreateHash");
        require(provider.hashData(context.handle, hash, data.data(), static_cast<DWORD>(data.size()), 0), "CPHashData");
        require(provider.signHash(context.handle, hash, AT_SIGNATURE, nullptr, 0, signature, &length), "CPSignHash");
        require(provider.destroyHash(context.handle, hash), "CPDestroyHash");
    };
    const auto direct = [&] {
        void* hash = nullptr;
        unsigned char digest[64];
        unsigned char signature[1024];
        int digestLength = digestSize;
        int length = sizeof signature;
        requireStatus(talvik_initHash(context.deviceId.c_str(), TALVIK_HASH_SHA256, &hash, nullptr), "initHash");
        requireStatus(talvik_updateHash(hash, data.data(), static_cast<int>(data.size()), nullptr), "updateHash");
        requireStatus(talvik_finalHash(hash, digest, &digestLength, nullptr), "finalHash");
        requireStatus(talvik_signHash(context.deviceId.c_str(), context.keyId, pin.c_str(), digest, digestLength,
                                      signature, &length, false, nullptr, false),
                      "signHash");
    };
    return compare("sign: SHA-256 of 1 KiB, RSA-2048", {2, 15, 10}, throughProvider, direct);
}

Comparison hashChunks(const TokenContext& context, const char* name, std::size_t total, std::size_t chunk) {
    const Provider& provider = context.provider;
    const std::vector<BYTE> data(chunk, 0xA5);
    const std::size_t chunks = total / chunk;
    const auto throughProvider = [&] {
        HCRYPTHASH hash = 0;
        BYTE digest[64];
        DWORD length = sizeof digest;
        require(provider.createHash(context.handle, CALG_SHA_256, 0, 0, &hash), "CPCreateHash");
        for (std::size_t i = 0; i < chunks; ++i) {
            require(provider.hashData(context.handle, hash, data.data(), static_cast<DWORD>(chunk), 0), "CPHashData");
        }
        require(provider.getHashParam(context.handle, hash, HP_HASHVAL, digest, &length, 0), "CPGetHashParam");
        require(provider.destroyHash(context.handle, hash), "CPDestroyHash");
    };
    const auto direct = [&] {
        void* hash = nullptr;
        unsigned char digest[64];
        int length = digestSize;
        requireStatus(talvik_initHash(context.deviceId.c_str(), TALVIK_HASH_SHA256, &hash, nullptr), "initHash");
        for (std::size_t i = 0; i < chunks; ++i) {
            requireStatus(talvik_updateHash(hash, data.data(), static_cast<int>(chunk), nullptr), "updateHash");
        }
        requireStatus(talvik_finalHash(hash, digest, &length, nullptr), "finalHash");
    };
    return compare(name, {1, 5, 1}, throughProvider, direct);
}

void print(const Comparison& comparison) {
    std::printf("%-44s %12.1f %12.1f %8.3f  (%.3f to %.3f)\n", comparison.name.c_str(), comparison.provider.median,
                comparison.direct.median, comparison.ratio.median, comparison.ratio.minimum, comparison.ratio.maximum);
    std::fflush(stdout);
}

void run(const std::string& pin) {
    const Provider provider;
    const TokenContext context(provider, pin);
    std::printf("%-44s %12s %12s %8s\n", "", "provider us", "direct us", "ratio");
    print(signSequence(context, pin));
    constexpr std::size_t total = 64u << 20;
    print(hashChunks(context, "hash: 64 MiB, SHA-256, chunks of 1 MiB", total, 1u << 20));
    print(hashChunks(context, "hash: 64 MiB, SHA-256, chunks of 4 KiB", total, 4u << 10));
}

}  // namespace
}  // namespace talvik::bench

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: talvik_bench PIN\n", stderr);
        return 2;
    }
    try {
        talvik::bench::run(argv[1]);
        return 0;
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "talvik_bench: %s\n", problem.what());
        return 1;
    }
}
