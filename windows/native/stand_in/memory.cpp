// Pages, as far as a guarded copy needs them: reserved at once, committed from the start, released as a whole.
#include <windows.h>

#include <map>
#include <mutex>
#include <sys/mman.h>

namespace {

std::mutex lock;
std::map<void*, std::size_t> reserved;

}  // namespace

LPVOID WINAPI VirtualAlloc(LPVOID address, SIZE_T size, DWORD kind, DWORD) {
    if (kind == MEM_COMMIT) {
        return mprotect(address, size, PROT_READ | PROT_WRITE) == 0 ? address : nullptr;
    }
    void* const base = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) {
        return nullptr;
    }
    const std::lock_guard guard(lock);
    reserved[base] = size;
    return base;
}

BOOL WINAPI VirtualFree(LPVOID address, SIZE_T, DWORD) {
    const std::lock_guard guard(lock);
    const auto found = reserved.find(address);
    if (found == reserved.end()) {
        return FALSE;
    }
    munmap(address, found->second);
    reserved.erase(found);
    return TRUE;
}
