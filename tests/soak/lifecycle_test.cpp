// The provider comes and goes, and its process ends in the middle of things.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "e2e_ksp/cng.h"
#include "soak/watch.h"

namespace soak {
namespace {

using namespace e2e;

constexpr UINT givenExitCode = 42;
constexpr std::size_t threads = 4;

class Lifecycle : public Tokens {};

bool loadAndFree() {
    const HMODULE module = LoadLibraryA("TalvikCSP.dll");
    return module && GetProcAddress(module, "CPAcquireContext") && FreeLibrary(module);
}

// One cycle of each face: the module is loaded anew, as far as the process is concerned.
bool cycle() {
    const HMODULE module = LoadLibraryA("TalvikCSP.dll");
    const Context context = acquire();
    const bool hashed = valueOf(digest(context, CALG_SHA_256, bytesOf("cycle"))).size() == 32;
    return module && hashed && property(openProvider(), NCRYPT_VERSION_PROPERTY) == Bytes{0, 1, 0, 0} &&
           FreeLibrary(module);
}

void cycleInThreads(int count) {
    Watchdog watchdog(threads);
    std::vector<std::jthread> workers;
    for (std::size_t i = 0; i < threads; ++i) {
        workers.emplace_back([&, i] {
            for (int k = 0; k < count; ++k) {
                watchdog.enters(i, "cycle");
                EXPECT_TRUE(cycle());
            }
            watchdog.rests(i);
        });
    }
}

const PlayedRole loading("load", [](const std::string& cycles) {
    // More often than the process has thread-local slots, of which every real load would take one for good.
    for (int i = 0; i < 2000; ++i) {
        EXPECT_TRUE(loadAndFree());
    }
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(acquire() && loadAndFree());
    }
    cycleInThreads(20);
    const Footprint before = footprint();
    cycleInThreads(std::stoi(cycles) / static_cast<int>(threads));
    const Footprint after = footprint();
    std::printf("%s cycles; %s\n", cycles.c_str(), difference(before, after).c_str());
    std::fflush(stdout);
    return isFlat(before, after) ? 0 : 2;
});

TEST_F(Lifecycle, ComesAndGoesInSeveralThreads) {
    const char* const given = std::getenv("TALVIK_UNLOAD_CYCLES");
    EXPECT_EQ(Role("load", given != nullptr ? given : "3000").wait(), 0u);
}

// Each refused acquisition lets the system unload the provider, though its monitor has been started.
const PlayedRole refused("refused", [](const std::string&) {
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(errorOf(acquire() != 0), NTE_TOKEN_KEYSET_STORAGE_FULL);
    }
    return 0;
});

TEST_F(Lifecycle, RefusedAcquisitionsDoNotHang) {
    change("detach", token());
    EXPECT_EQ(Role("refused").wait(), 0u);
}

// The moment is kept for the process that waits.
void stampDeparture() {
    const ULONGLONG now = GetTickCount64();
    Bytes stamp(sizeof now);
    std::memcpy(stamp.data(), &now, sizeof now);
    write("left", stamp);
}

[[noreturn]] void leave() {
    stampDeparture();
    ExitProcess(givenExitCode);
}

const PlayedRole endings[] = {
    {"return-with-context",
     [](const std::string&) -> int {
         static const Context context = acquire();
         stampDeparture();
         return givenExitCode;
     }},
    {"exit-with-context",
     [](const std::string&) -> int {
         const Context context = acquire();
         leave();
     }},
    // Threads are inside both faces and the device library, at a random place, when the process ends.
    {"exit-during-call",
     [](const std::string& name) -> int {
         std::atomic<int> under{0};
         std::vector<std::thread> workers;
         for (std::size_t i = 0; i < threads; ++i) {
             workers.emplace_back([&] {
                 for (;; ++under) {
                     cycle();
                 }
             });
         }
         while (under < 20 + 7 * std::stoi(name)) {
             SwitchToThread();
         }
         leave();
     }},
    {"exit-under-dialog",
     [](const std::string&) -> int {
         DialogRobot robot;
         std::atomic<bool> open{false};
         robot.does([&](const PinDialog&) { open = true; });
         std::thread asking([] { generate(acquire()); });
         while (!open) {
             SwitchToThread();
         }
         leave();
     }},
};

class Ending : public Lifecycle, public ::testing::WithParamInterface<std::pair<const char*, int>> {};

TEST_P(Ending, IsPromptWithTheGivenExitCode) {
    const auto& [way, times] = GetParam();
    for (int i = 0; i < times; ++i) {
        EXPECT_EQ(Role(way, std::to_string(i)).wait(), givenExitCode);
        const ULONGLONG now = GetTickCount64();
        ULONGLONG left = 0;
        std::memcpy(&left, read("left").data(), sizeof left);
        EXPECT_LT(now - left, 3000u);
    }
}

INSTANTIATE_TEST_SUITE_P(Ways, Ending,
                         ::testing::Values(std::pair("return-with-context", 1), std::pair("exit-with-context", 1),
                                           std::pair("exit-during-call", 5), std::pair("exit-under-dialog", 5)));

}  // namespace
}  // namespace soak
