#include "token/secret_bytes.h"

#include <windows.h>

#include <atomic>
#include <utility>

namespace talvik {
namespace {

constexpr std::size_t smallestKept = std::size_t{64} << 10;
constexpr std::size_t keptSize = (std::size_t{1} << 20) + 4096;  // a ciphertext is longer than its plaintext

using Block = std::unique_ptr<unsigned char[]>;

// Threads that decrypt at the same time find it gone and allocate their own; the last one to finish leaves its block.
std::atomic<unsigned char*> kept = nullptr;

bool usesKeptBlock(std::size_t size) {
    return size >= smallestKept && size <= keptSize;
}

Block blockFor(std::size_t size) {
    if (!usesKeptBlock(size)) {
        return std::make_unique_for_overwrite<unsigned char[]>(size);
    }
    Block block(kept.exchange(nullptr));
    return block != nullptr ? std::move(block) : std::make_unique_for_overwrite<unsigned char[]>(keptSize);
}

}  // namespace

SecretBytes::SecretBytes(std::size_t size) : size_(size), bytes_(blockFor(size)) {}

SecretBytes::~SecretBytes() {
    SecureZeroMemory(bytes_.get(), size_);
    if (usesKeptBlock(size_)) {
        const Block replaced(kept.exchange(bytes_.release()));
    }
}

}  // namespace talvik
