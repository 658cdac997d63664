// The record behind an HCRYPTPROV.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstdint>
#include <string>
#include <vector>

namespace talvik::csp {

// Owned by the application's handle. One handle is used by one thread at a time.
struct CspContext {
    std::string deviceId;       // "" in a verify-only context
    void* reserved = nullptr;   // last argument of device library calls; always null
    std::string containerName;  // as requested, or the key that the requested name stands for
    std::uint8_t valid = 0;     // 1 once acquisition has succeeded
    std::uint32_t keysetType = 0;
    std::uint64_t enumIndex = 0;              // position of PP_ENUMCONTAINERS
    std::vector<std::string> containerNames;  // of all key pairs on the device, in its order
    std::uint32_t algEnumIndex = 0;           // position of PP_ENUMALGS and PP_ENUMALGS_EX
};

// The context behind a handle; null when the handle is null or its record not valid.
inline CspContext* contextOf(HCRYPTPROV handle) noexcept {
    auto* const context = reinterpret_cast<CspContext*>(handle);
    return context != nullptr && context->valid == 1 ? context : nullptr;
}

}  // namespace talvik::csp
