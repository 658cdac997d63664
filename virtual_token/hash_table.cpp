#include "hash_table.h"

#include <algorithm>
#include <iterator>
#include <mutex>

#include "status.h"

namespace virtual_token {

std::size_t HashTable::capacityOfMachine() {
    constexpr std::size_t leastCapacity = 32768;
    constexpr std::size_t bytesPerHash = 2048;  // the state, some 1,400 bytes, and what finds it
    MEMORYSTATUSEX memory{};
    memory.dwLength = sizeof memory;
    GlobalMemoryStatusEx(&memory);
    return std::max<std::size_t>(leastCapacity, memory.ullTotalPhys / 32 / bytesPerHash);
}

// A caller's thread may still be working on a hash that has made room: then it is not reused.
void HashTable::keepIdle(Shard& shard, RunningHashPointer hash) {
    if (hash.use_count() == 1 && shard.idle.size() < idleKept) {
        shard.idle.push_back(std::move(hash));
    }
}

RunningHashPointer HashTable::takeIdle(Shard& shard, int algorithm) {
    const auto found = std::ranges::find(shard.idle, algorithm, [](const auto& hash) { return hash->algorithm; });
    if (found == shard.idle.end()) {
        return nullptr;
    }
    std::swap(*found, shard.idle.back());
    RunningHashPointer hash = std::move(shard.idle.back());
    shard.idle.pop_back();
    return hash;
}

std::uint64_t HashTable::begin(int algorithm) {
    const std::uint64_t handle = next_.fetch_add(1);
    Shard& shard = shardOf(handle);
    RunningHashPointer hash;
    {
        const std::lock_guard guard(shard.lock);
        if (shard.byUse.size() >= shardCapacity_) {
            shard.index.erase(shard.byUse.front().handle);
            keepIdle(shard, std::move(shard.byUse.front().hash));
            shard.byUse.pop_front();
        }
        hash = takeIdle(shard, algorithm);
    }
    if (hash) {
        gcry_md_reset(hash->digest.get());
    } else {
        hash = std::make_shared<RunningHash>();
        hash->digest = openDigest(algorithm);
        hash->algorithm = algorithm;
    }
    const std::lock_guard guard(shard.lock);
    shard.byUse.push_back({handle, std::move(hash)});
    shard.index.emplace(handle, std::prev(shard.byUse.end()));
    return handle;
}

RunningHashPointer HashTable::find(std::uint64_t handle) {
    Shard& shard = shardOf(handle);
    const std::lock_guard guard(shard.lock);
    const auto found = shard.index.find(handle);
    require(found != shard.index.end(), Status::BadHashHandle);
    shard.byUse.splice(shard.byUse.end(), shard.byUse, found->second);
    return found->second->hash;
}

void HashTable::end(std::uint64_t handle, RunningHashPointer hash) {
    Shard& shard = shardOf(handle);
    const std::lock_guard guard(shard.lock);
    const auto found = shard.index.find(handle);
    if (found != shard.index.end()) {
        shard.byUse.erase(found->second);
        shard.index.erase(found);
        keepIdle(shard, std::move(hash));
    }
}

}  // namespace virtual_token
