// Replaces the allocation functions of a test program, those behind operator new included: every block ends where an
// inaccessible page begins, and a released block is inaccessible for good. Whoever writes or reads past a block or
// after its release is stopped there and then; what was written in front of a block is found when it is released.
#include "soak/guarded_heap.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
void __real_free(void* memory);
void* __real_realloc(void* memory, std::size_t size);
void* __wrap_malloc(std::size_t size);
void __wrap_free(void* memory);
void* __wrap_calloc(std::size_t count, std::size_t size);
void* __wrap_realloc(void* memory, std::size_t size);
}

namespace {

constexpr std::size_t pageSize = 4096;
constexpr std::size_t arenaSize = std::size_t{1} << 37;  // address space; pages are committed block by block
constexpr unsigned char filling = 0xA7;

// What stands at the beginning of a block's first page.
struct Header {
    std::size_t size;
    std::size_t pages;  // accessible ones
};

std::atomic<std::size_t> used{0};

std::atomic<unsigned char*> reserved{nullptr};

// Not a local static: the guard of its initialisation would allocate.
unsigned char* arena() {
    if (unsigned char* const present = reserved) {
        return present;
    }
    auto* const fresh = static_cast<unsigned char*>(VirtualAlloc(nullptr, arenaSize, MEM_RESERVE, PAGE_NOACCESS));
    unsigned char* other = nullptr;
    if (reserved.compare_exchange_strong(other, fresh)) {
        return fresh;
    }
    VirtualFree(fresh, 0, MEM_RELEASE);
    return other;
}

bool isOurs(const void* memory) {
    const auto* const at = static_cast<const unsigned char*>(memory);
    return at >= arena() && at < arena() + arenaSize;
}

[[noreturn]] void stop(const char* what) {
    std::fprintf(stderr, "guarded heap: %s\n", what);
    TerminateProcess(GetCurrentProcess(), 4);
    std::abort();
}

constexpr unsigned char secret[guarded_heap::secretSize + 1] = "a planted secret";
std::atomic<int> secretsReleased{0};

// Objects need their alignment; byte buffers of odd sizes end exactly at the guard page.
std::size_t occupied(std::size_t size) {
    return size % 8 == 0 ? (size + 15) / 16 * 16 : size;
}

void* allocate(std::size_t size) noexcept {
    const std::size_t pages = (sizeof(Header) + occupied(size) + pageSize - 1) / pageSize;
    const std::size_t offset = used.fetch_add((pages + 1) * pageSize);
    if (offset + (pages + 1) * pageSize > arenaSize) {
        stop("no address space left");
    }
    unsigned char* const first = arena() + offset;
    if (VirtualAlloc(first, pages * pageSize, MEM_COMMIT, PAGE_READWRITE) == nullptr) {
        return nullptr;
    }
    std::memset(first, filling, pages * pageSize);
    const Header header{size, pages};
    std::memcpy(first, &header, sizeof header);
    return first + pages * pageSize - occupied(size);
}

// Between the header's end and the block there is less than a page.
unsigned char* firstPageOf(void* memory, Header& header) {
    const auto at = reinterpret_cast<std::uintptr_t>(memory) - sizeof(Header);
    auto* const first = reinterpret_cast<unsigned char*>(at / pageSize * pageSize);
    std::memcpy(&header, first, sizeof header);
    if (header.pages == 0 || first + header.pages * pageSize - occupied(header.size) != memory) {
        stop("released twice, or something else wrote over the beginning of a block");
    }
    return first;
}

void release(void* memory) noexcept {
    Header header{};
    unsigned char* const first = firstPageOf(memory, header);
    const auto* const block = static_cast<unsigned char*>(memory);
    for (const unsigned char* at = first + sizeof header; at < first + header.pages * pageSize; ++at) {
        if ((at < block || at >= block + header.size) && *at != filling) {
            stop("somebody wrote beside a block");
        }
    }
    if (std::search(block, block + header.size, secret, secret + guarded_heap::secretSize) != block + header.size) {
        ++secretsReleased;
    }
    VirtualFree(first, header.pages * pageSize, MEM_DECOMMIT);
}

}  // namespace

void guarded_heap::plantSecret(void* where) noexcept {
    std::memcpy(where, secret, secretSize);
}

int guarded_heap::releasedSecrets() noexcept {
    return secretsReleased;
}

void* __wrap_malloc(std::size_t size) {
    return allocate(size);
}

void __wrap_free(void* memory) {
    if (memory != nullptr) {
        isOurs(memory) ? release(memory) : __real_free(memory);
    }
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
    void* const memory = allocate(count * size);
    return memory != nullptr ? std::memset(memory, 0, count * size) : nullptr;
}

void* __wrap_realloc(void* memory, std::size_t size) {
    if (memory != nullptr && !isOurs(memory)) {
        return __real_realloc(memory, size);
    }
    void* const moved = allocate(size);
    if (memory != nullptr) {
        Header header{};
        firstPageOf(memory, header);
        std::memcpy(moved, memory, header.size < size ? header.size : size);
        release(memory);
    }
    return moved;
}
