#include "soak/watch.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <tlhelp32.h>

namespace soak {

namespace {

constexpr std::uintptr_t highestHandle = 0x20000;

constexpr struct {
    const char* name;
    std::size_t mayGrow;
} counted[] = {{"heap in use", 256u << 10}, {"private memory", 4u << 20}, {"handles", 8}, {"threads", 0}};

constexpr unsigned mostNewBlocks = 32;  // of a size

// Wine 10's heap counts a group of blocks as in use when one of them is; Wine 8's has no groups.
bool takesBlocksByTheGroup() {
    const auto version = reinterpret_cast<const char*(CDECL*)()>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version")));
    return version != nullptr && std::atoi(version()) > 8;
}

void countHeap(Footprint& footprint) {
    std::vector<HANDLE> heaps(GetProcessHeaps(0, nullptr));
    heaps.resize(std::min<std::size_t>(heaps.size(), GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data())));
    for (const HANDLE heap : heaps) {
        HeapLock(heap);
        PROCESS_HEAP_ENTRY entry{};
        while (HeapWalk(heap, &entry)) {
            if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0) {
                footprint.counted[0] += entry.cbData;
                ++footprint.heapBlocks[std::min<std::size_t>(entry.cbData / 16, footprint.heapBlocks.size() - 1)];
            }
        }
        HeapUnlock(heap);
    }
}

std::size_t committedPrivateBytes() {
    std::size_t bytes = 0;
    MEMORY_BASIC_INFORMATION region{};
    for (const unsigned char* at = nullptr; VirtualQuery(at, &region, sizeof region) != 0;
         at = static_cast<const unsigned char*>(region.BaseAddress) + region.RegionSize) {
        bytes += region.State == MEM_COMMIT && region.Type == MEM_PRIVATE ? region.RegionSize : 0;
    }
    return bytes;
}

unsigned openHandles() {
    unsigned count = 0;
    for (std::uintptr_t value = 4; value < highestHandle; value += 4) {
        DWORD flags = 0;
        count += GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags) != FALSE;
    }
    return count;
}

unsigned runningThreads() {
    unsigned count = 0;
    const HANDLE list = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry{};
    entry.dwSize = sizeof entry;
    for (BOOL more = Thread32First(list, &entry); more; more = Thread32Next(list, &entry)) {
        count += entry.th32OwnerProcessID == GetCurrentProcessId();
    }
    CloseHandle(list);
    return count;
}

}  // namespace

Footprint footprint() {
    Footprint now;
    now.counted = {0, committedPrivateBytes(), openHandles(), runningThreads()};
    countHeap(now);
    return now;
}

std::string difference(const Footprint& before, const Footprint& after) {
    std::string text;
    for (std::size_t i = 0; i < std::size(counted); ++i) {
        text += std::string(i == 0 ? "" : ", ") + counted[i].name + ' ' + std::to_string(before.counted[i]) + " -> " +
                std::to_string(after.counted[i]);
    }
    return text;
}

bool isFlat(const Footprint& before, const Footprint& after) {
    bool isFlat = true;
    for (std::size_t i = 0; i < std::size(counted); ++i) {
        const bool mayGrow = i == 0 && takesBlocksByTheGroup();
        isFlat &= before.counted[i] != 0 && (mayGrow || after.counted[i] <= before.counted[i] + counted[i].mayGrow);
    }
    for (std::size_t size = 0; size < before.heapBlocks.size(); ++size) {
        isFlat &= after.heapBlocks[size] <= before.heapBlocks[size] + mostNewBlocks;
    }
    return isFlat;
}

Watchdog::Watchdog(std::size_t threads)
    : places_(threads), thread_([this] {
          while (!stop_) {
              look();
              Sleep(100);
          }
      }) {}

Watchdog::~Watchdog() {
    stop_ = true;
    thread_.join();
}

void Watchdog::enters(std::size_t thread, const char* operation) {
    places_[thread].since = GetTickCount64();
    places_[thread].operation = operation;
}

void Watchdog::look() const {
    constexpr ULONGLONG longestMilliseconds = 60000;
    const ULONGLONG now = GetTickCount64();
    for (const Place& place : places_) {
        if (place.operation == nullptr || now < place.since + longestMilliseconds) {
            continue;
        }
        for (std::size_t i = 0; i < places_.size(); ++i) {
            const char* const operation = places_[i].operation;
            std::fprintf(stderr, "thread %u: %s for %llu ms\n", static_cast<unsigned>(i),
                         operation != nullptr ? operation : "at rest", now - places_[i].since);
        }
        std::fflush(stderr);
        TerminateProcess(GetCurrentProcess(), 3);
    }
}

}  // namespace soak
