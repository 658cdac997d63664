// Hashing. No token takes part, so no device is looked up.
#include <mutex>

#include "boundary.h"
#include "hash_table.h"
#include "key_types.h"

using namespace virtual_token;

namespace {

HashTable& hashes() {
    static HashTable table(HashTable::capacityOfMachine());
    return table;
}

std::uint64_t handleOf(void* hashHandle) {
    return reinterpret_cast<std::uintptr_t>(hashHandle);
}

}  // namespace

int talvik_initHash(const char* deviceId, int algorithm, void** hashHandle, void*) {
    return guarded([&] {
        require(deviceId != nullptr && hashHandle != nullptr, Status::InvalidArgument);
        const DigestType* type = digestOfCode(algorithm);
        require(type != nullptr, Status::Unsupported);
        const std::uint64_t handle = hashes().begin(type->algorithm);
        *hashHandle = reinterpret_cast<void*>(static_cast<std::uintptr_t>(handle));
    });
}

int talvik_updateHash(void* hashHandle, const unsigned char* data, int dataLength, void*) {
    return guarded([&] {
        const ByteView input = inputOf(data, dataLength);
        const RunningHashPointer hash = hashes().find(handleOf(hashHandle));
        const std::lock_guard guard(hash->lock);
        gcry_md_write(hash->digest.get(), input.data(), input.size());
    });
}

int talvik_finalHash(void* hashHandle, unsigned char* digest, int* digestLength, void*) {
    return guarded([&] {
        RunningHashPointer hash = hashes().find(handleOf(hashHandle));
        const std::size_t length = gcry_md_get_algo_dlen(hash->algorithm);
        requireRoom(digest, digestLength, length);
        {
            const std::lock_guard guard(hash->lock);
            copyOut({gcry_md_read(hash->digest.get(), hash->algorithm), length}, digest, digestLength);
        }
        hashes().end(handleOf(hashHandle), std::move(hash));
    });
}
