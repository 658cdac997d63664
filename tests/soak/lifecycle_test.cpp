// The provider comes and goes, and its process ends in the middle of things.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "e2e/surroundings.h"
#include "soak/cng_table.h"
#include "soak/roles.h"
#include "soak/watch.h"
#include "support/dialog_robot.h"

namespace soak {
namespace {

using namespace e2e;

constexpr UINT givenExitCode = 42;
constexpr std::size_t threads = 4;

class Lifecycle : public Tokens {};

// The moment is kept for the process that waits.
[[noreturn]] void leave() {
    const ULONGLONG now = GetTickCount64();
    Bytes stamp(sizeof now);
    std::memcpy(stamp.data(), &now, sizeof now);
    write("left", stamp);
    ExitProcess(givenExitCode);
}

// One cycle of each face: the module is loaded anew, as far as the process is concerned.
bool cycle() {
    const HMODULE module = LoadLibraryA("TalvikCSP.dll");
    const Context context = acquire();
    const Hash hash = digest(context, CALG_SHA_256, bytesOf("cycle"));
    Bytes value(32);
    DWORD size = 32;
    const bool hashed = CryptGetHashParam(hash, HP_HASHVAL, value.data(), &size, 0) != FALSE;
    const CngKey provider("");
    DWORD version = 0;
    const bool answered = cng().GetProviderProperty(provider.provider(), NCRYPT_VERSION_PROPERTY,
                                                    reinterpret_cast<PBYTE>(&version), 4, &size, 0) == ERROR_SUCCESS;
    return module && hashed && answered && version == 0x100 && FreeLibrary(module);
}

TEST_F(Lifecycle, ComesAndGoesInSeveralThreads) {
    const char* const given = std::getenv("TALVIK_UNLOAD_CYCLES");
    EXPECT_EQ(Role("load", given != nullptr ? given : "400").wait(), 0u);
}

class Ending : public Lifecycle, public ::testing::WithParamInterface<const char*> {};

TEST_P(Ending, IsPromptWithTheGivenExitCode) {
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(Role(GetParam(), std::to_string(i)).wait(), givenExitCode);
        const ULONGLONG now = GetTickCount64();
        const Bytes stamp = read("left");
        ASSERT_EQ(stamp.size(), sizeof now);
        ULONGLONG left = 0;
        std::memcpy(&left, stamp.data(), sizeof left);
        EXPECT_LT(now - left, 3000u);
    }
}

INSTANTIATE_TEST_SUITE_P(Ways, Ending, ::testing::Values("exit-during-call", "exit-under-dialog"));

}  // namespace

int loadAndFree(const std::string& cycles) {
    const int each = std::stoi(cycles) / static_cast<int>(threads);
    std::atomic<int> failures{0};
    const auto round = [&](int count) {
        Watchdog watchdog(threads);
        std::vector<std::thread> workers;
        for (std::size_t i = 0; i < threads; ++i) {
            workers.emplace_back([&, i, count] {
                for (int k = 0; k < count; ++k) {
                    watchdog.enters(i, "cycle");
                    failures += cycle() ? 0 : 1;
                }
                watchdog.rests(i);
            });
        }
        for (std::thread& worker : workers) {
            worker.join();
        }
    };
    round(20);
    const Footprint before = footprint();
    round(each);
    const Footprint after = footprint();
    std::printf("%d cycles; %s\n", each * static_cast<int>(threads), difference(before, after).c_str());
    std::fflush(stdout);
    return failures != 0 ? 1 : isFlat(before, after) ? 0 : 2;
}

// Threads are inside both faces and the device library, at a random place, when the process ends.
int exitDuringCall(const std::string& name) {
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
}

int exitUnderDialog(const std::string&) {
    DialogRobot robot;
    std::atomic<bool> open{false};
    robot.does([&](const PinDialog&) { open = true; });
    std::thread asking([] { generate(acquire()); });
    while (!open) {
        SwitchToThread();
    }
    leave();
}

}  // namespace soak
