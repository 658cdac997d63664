// What a long run is watched by: who is in which operation for how long, and what the process holds.
#pragma once

#include <windows.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

namespace soak {

// Counted one by one: Wine answers 0 when it is asked for a process's private bytes or number of handles. For a moment
// when the other threads are at rest.
struct Footprint {
    std::vector<unsigned> heapBlocks = std::vector<unsigned>(4096);  // in use, by size in steps of 16 bytes
    std::array<std::size_t, 4> counted{};  // bytes in use in all heaps, private memory, handles, threads
};
Footprint footprint();

// "1 -> 2" for each of them.
std::string difference(const Footprint& before, const Footprint& after);

// Whether nothing has grown, but for what the heap needs to arrange itself. What is lost again and again is many blocks
// of one size. Bytes count too, but for newer versions of Wine, which take blocks of each size by the group.
bool isFlat(const Footprint& before, const Footprint& after);

// Each thread says what it is about to do. When one of them is at it for too long, everybody's operation is printed and
// the process ends with exit code 3.
class Watchdog {
  public:
    explicit Watchdog(std::size_t threads);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    void enters(std::size_t thread, const char* operation);
    void rests(std::size_t thread) { enters(thread, nullptr); }

  private:
    struct Place {
        std::atomic<const char*> operation{nullptr};
        std::atomic<ULONGLONG> since{0};
    };
    void look() const;

    std::vector<Place> places_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace soak
