#include "hash_table.h"

#include <mutex>

#include "status.h"

namespace virtual_token {

std::uint64_t HashTable::add(RunningHashPointer hash) {
    const std::uint64_t handle = next_.fetch_add(1);
    Shard& shard = shardOf(handle);
    RunningHashPointer displaced;  // closed after the lock is released
    const std::lock_guard guard(shard.lock);
    if (shard.byUse.size() >= capacity / shardCount) {
        displaced = std::move(shard.byUse.front().hash);
        shard.index.erase(shard.byUse.front().handle);
        shard.byUse.pop_front();
    }
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

void HashTable::remove(std::uint64_t handle) {
    Shard& shard = shardOf(handle);
    const std::lock_guard guard(shard.lock);
    const auto found = shard.index.find(handle);
    if (found != shard.index.end()) {
        shard.byUse.erase(found->second);
        shard.index.erase(found);
    }
}

}  // namespace virtual_token
