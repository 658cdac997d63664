// What the module and its handles take up.
#include <filesystem>
#include <vector>

#include "sections.h"
#include "token/token_records.h"

namespace talvik::bench {
namespace {

constexpr int handleCount = 2000;

// Bytes in use on all heaps of the process, the heaps' own bookkeeping included.
std::size_t heapBytes() {
    std::vector<HANDLE> heaps(256);
    heaps.resize(GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data()));
    std::size_t total = 0;
    for (const HANDLE heap : heaps) {
        HeapLock(heap);
        PROCESS_HEAP_ENTRY entry = {};
        while (HeapWalk(heap, &entry) != FALSE) {
            if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0) {
                total += entry.cbData + entry.cbOverhead;
            }
        }
        HeapUnlock(heap);
    }
    return total;
}

void addRow(Json& rows, const char* id, const char* name, double bytes) {
    rows.push_back({{"section", "footprint"}, {"id", id}, {"name", name}, {"bytes", bytes}});
}

// Bytes of one handle: `make` makes one, `destroy` ends it.
template <class Handle, class Make, class Destroy>
void measureHandle(Json& rows, const char* id, const char* name, const Make& make, const Destroy& destroy) {
    destroy(make());
    std::vector<Handle> handles(handleCount);
    const std::size_t before = heapBytes();
    for (Handle& handle : handles) {
        handle = make();
    }
    const std::size_t with = heapBytes();
    for (const Handle handle : handles) {
        destroy(handle);
    }
    const std::size_t after = heapBytes();
    addRow(rows, id, name, (static_cast<double>(with) - static_cast<double>(before)) / handleCount);
    rows.back()["leftBehind"] = (static_cast<double>(after) - static_cast<double>(before)) / handleCount;
}

}  // namespace

void measureMemory(const Provider& provider, Json& rows) {
    const std::string container = containerNameOf(talvik_getKeyPairList("LISTING", nullptr).front());
    const Context context(provider, container.c_str());
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& ksp = *provider.ksp;
    const auto acquire = [&] {
        HCRYPTPROV handle = 0;
        unsigned char callbacks[64] = {};
        require(provider.acquireContext(&handle, container.c_str(), 0, reinterpret_cast<VTableProvStruc*>(callbacks)),
                "CPAcquireContext");
        return handle;
    };
    measureHandle<HCRYPTPROV>(rows, "memory.context", "CSP context, token with one key", acquire,
                              [&](HCRYPTPROV handle) { provider.releaseContext(handle, 0); });
    measureHandle<HCRYPTHASH>(
        rows, "memory.hash", "CSP hash",
        [&] {
            HCRYPTHASH handle = 0;
            require(provider.createHash(context, CALG_SHA_256, 0, 0, &handle), "CPCreateHash");
            return handle;
        },
        [&](HCRYPTHASH handle) { provider.destroyHash(context, handle); });
    measureHandle<HCRYPTKEY>(
        rows, "memory.key", "CSP key",
        [&] {
            HCRYPTKEY handle = 0;
            require(provider.getUserKey(context, AT_SIGNATURE, &handle), "CPGetUserKey");
            return handle;
        },
        [&](HCRYPTKEY handle) { provider.destroyKey(context, handle); });
    const auto openProvider = [&] {
        NCRYPT_PROV_HANDLE handle = 0;
        requireStatus(ksp.OpenProvider(&handle, nullptr, 0), "KSPOpenProvider");
        return handle;
    };
    measureHandle<NCRYPT_PROV_HANDLE>(rows, "memory.ksp.provider", "CNG provider", openProvider, ksp.FreeProvider);
    const NCRYPT_PROV_HANDLE opened = openProvider();
    measureHandle<NCRYPT_KEY_HANDLE>(
        rows, "memory.ksp.key", "CNG key",
        [&] {
            NCRYPT_KEY_HANDLE handle = 0;
            requireStatus(ksp.OpenKey(opened, &handle, widened(container).c_str(), 0, 0), "KSPOpenKey");
            return handle;
        },
        [&](NCRYPT_KEY_HANDLE handle) { ksp.FreeKey(opened, handle); });
    ksp.FreeProvider(opened);
}

void measureLoading(const Provider& provider, Json& rows) {
    wchar_t path[MAX_PATH];
    require(GetModuleFileNameW(provider.module, path, MAX_PATH) != 0, "GetModuleFileName");
    addRow(rows, "size.module", "TalvikCSP.dll, stripped", static_cast<double>(std::filesystem::file_size(path)));
    const double unload = microsecondsOf([&] { FreeLibrary(provider.module); });
    rows.push_back({{"section", "loading"}, {"load", provider.loadMicroseconds}, {"unload", unload}});
    rows.back()["staysLoaded"] = GetModuleHandleA("TalvikCSP.dll") != nullptr;
}

}  // namespace talvik::bench
