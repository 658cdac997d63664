#include "soak/memory_search.h"

#include <cstdint>
#include <sstream>

namespace soak {
namespace {

constexpr DWORD writable = PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;

bool isAt(const volatile unsigned char* place, const MaskedText& secret, std::size_t stride) {
    const std::size_t half = secret.size() / 2;
    for (std::size_t i = 0; i < secret.size() - half; ++i) {
        if (place[i * stride] != static_cast<unsigned char>(secret.at(half + i)) ||
            (stride == 2 && place[i * stride + 1] != 0)) {
            return false;
        }
    }
    return true;
}

// Which module's data, which stack or what else the place belongs to.
std::string describe(std::uintptr_t place, const MEMORY_BASIC_INFORMATION& region, std::size_t stride) {
    char module[MAX_PATH] = "heap or another thread's stack";
    MEMORY_BASIC_INFORMATION own{};
    VirtualQuery(&module, &own, sizeof own);
    std::ostringstream text;
    if (region.Type == MEM_IMAGE) {
        GetModuleFileNameA(static_cast<HMODULE>(region.AllocationBase), module, MAX_PATH);
    }
    text << (stride == 2 ? "UTF-16" : "bytes") << " at 0x" << std::hex << place << ": "
         << (region.AllocationBase == own.AllocationBase ? "this thread's stack" : module);
    return text.str();
}

}  // namespace

std::vector<std::string> findCopies(const MaskedText& secret) {
    const std::size_t half = secret.size() / 2, length = secret.size() - half;
    std::vector<std::string> found;
    MEMORY_BASIC_INFORMATION region{};
    for (const unsigned char* at = nullptr; VirtualQuery(at, &region, sizeof region) != 0;
         at = static_cast<const unsigned char*>(region.BaseAddress) + region.RegionSize) {
        if (region.State != MEM_COMMIT || (region.Protect & writable) == 0 || (region.Protect & PAGE_GUARD) != 0) {
            continue;
        }
        const volatile unsigned char* const begin = static_cast<unsigned char*>(region.BaseAddress);
        const auto first = static_cast<unsigned char>(secret.at(half));
        for (const std::size_t stride : {std::size_t{1}, std::size_t{2}}) {
            for (std::size_t i = 0; i + length * stride <= region.RegionSize; ++i) {
                if (begin[i] == first && isAt(begin + i, secret, stride)) {
                    found.push_back(describe(reinterpret_cast<std::uintptr_t>(begin + i), region, stride));
                }
            }
        }
    }
    return found;
}

}  // namespace soak
