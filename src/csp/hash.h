// The record behind an HCRYPTHASH.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstdint>
#include <optional>

#include "token/key_encoding.h"

namespace talvik::csp {

// Owned by the caller between CPCreateHash or CPDuplicateHash and CPDestroyHash.
struct HASH_CONTEXT {
    std::uint32_t mechanism = 0;      // digest algorithm code; a signature overwrites it with its key's type
    std::uint32_t mechanismCopy = 0;  // as created; 0 in a duplicate
    void* deviceHashHandle = nullptr;
    std::uint8_t isValid = 0;
    std::uint8_t isFinalized = 0;
    unsigned char hashValue[128] = {};
    unsigned char signKeyId[16] = {};
    std::uint32_t signKeyIdLen = 0;
    std::uint32_t hashValueLen = 0;
    std::uint32_t hashSize = 0;  // of a digest, fixed at creation
};

inline HASH_CONTEXT* hashOf(HCRYPTHASH handle) noexcept {
    return reinterpret_cast<HASH_CONTEXT*>(handle);
}

// Finishes the device hash into the record's cache, announcing room for `expectedLength` bytes. Nothing on success,
// else the library's status; a length outside the cache is a failure whatever the status says.
std::optional<int> finalizeHash(HASH_CONTEXT& hash, int expectedLength, void* reserved);

}  // namespace talvik::csp
