// The hashes under way. Callers never release one that they give up and may come back to one that is finished, so a
// handle is a number that is looked up, never an address, and once all that are held take up their share of the
// machine's memory, the hash that has not been used longest makes room.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <unordered_map>
#include <vector>

#include "gcrypt_objects.h"
#include "srw_lock.h"

namespace virtual_token {

struct RunningHash {
    Digest digest;
    int algorithm = 0;  // libgcrypt's number
    SrwLock lock;       // two threads on one handle
};
using RunningHashPointer = std::shared_ptr<RunningHash>;

class HashTable {
  public:
    // How many hashes a thirty-second of the machine's memory holds, 32,768 at least.
    static std::size_t capacityOfMachine();

    explicit HashTable(std::size_t capacity) : shardCapacity_(capacity / shardCount) {}

    std::uint64_t begin(int algorithm);             // gives a handle, never 0
    RunningHashPointer find(std::uint64_t handle);  // throws BadHashHandle
    void end(std::uint64_t handle, RunningHashPointer hash);

  private:
    // Handles are spread in turn, so each shard's oldest is close to the oldest of all.
    static constexpr std::size_t shardCount = 64;

    // States kept for reuse: a digest state is large and making one is what costs most in a short hash.
    static constexpr std::size_t idleKept = 8;

    struct Entry {
        std::uint64_t handle;
        RunningHashPointer hash;
    };
    struct Shard {
        SrwLock lock;
        std::list<Entry> byUse;  // the least recently used first
        std::unordered_map<std::uint64_t, std::list<Entry>::iterator> index;
        std::vector<RunningHashPointer> idle;
    };
    static RunningHashPointer takeIdle(Shard& shard, int algorithm);
    static void keepIdle(Shard& shard, RunningHashPointer hash);
    Shard& shardOf(std::uint64_t handle) { return shards_[handle % shardCount]; }

    const std::size_t shardCapacity_;
    std::array<Shard, shardCount> shards_;
    std::atomic<std::uint64_t> next_{1};
};

}  // namespace virtual_token
