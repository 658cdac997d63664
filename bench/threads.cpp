// Several threads, a context each: how much more work they do than one.
#include <algorithm>
#include <atomic>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "level_query.h"
#include "sections.h"
#include "sequences.h"

namespace talvik::bench {
namespace {

constexpr int threadCounts[] = {1, 2, 4};
constexpr int rounds = 7;
constexpr int slices = 2;

using ThreadWork = std::function<void(int thread)>;

struct HandleCloser {
    using pointer = HANDLE;
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using OwnedHandle = std::unique_ptr<void, HandleCloser>;

// What the threads of one measurement share. The system's own objects: the library's latch now and then loses a
// wake-up under Wine.
struct Race {
    const ThreadWork& work;
    int runs;
    OwnedHandle ready{CreateSemaphoreA(nullptr, 0, 64, nullptr)};
    OwnedHandle start{CreateEventA(nullptr, TRUE, FALSE, nullptr)};
};

struct Runner {
    Race& race;
    int number;
    OwnedHandle thread;
};

DWORD WINAPI runThread(void* argument) {
    const Runner& runner = *static_cast<Runner*>(argument);
    ReleaseSemaphore(runner.race.ready.get(), 1, nullptr);
    WaitForSingleObject(runner.race.start.get(), INFINITE);
    for (int i = 0; i < runner.race.runs; ++i) {
        runner.race.work(runner.number);
    }
    return 0;
}

// Microseconds until each of `count` threads has done `work` `runs` times.
double timeThreads(int count, int runs, const ThreadWork& work) {
    Race race{work, runs};
    std::vector<Runner> runners;
    runners.reserve(count);
    for (int number = 0; number < count; ++number) {
        Runner& runner = runners.emplace_back(Runner{race, number, nullptr});
        runner.thread.reset(CreateThread(nullptr, 0, runThread, &runner, 0, nullptr));
        require(runner.thread != nullptr, "CreateThread");
        WaitForSingleObject(race.ready.get(), INFINITE);
    }
    return microsecondsOf([&] {
        SetEvent(race.start.get());
        for (const Runner& runner : runners) {
            WaitForSingleObject(runner.thread.get(), INFINITE);
        }
    });
}

// The threads' work must not throw: a failure is told after they have been joined.
ThreadWork remembering(std::atomic<bool>& failed, const ThreadWork& work) {
    return [&failed, work](int thread) {
        try {
            work(thread);
        } catch (const Failure&) {
            failed = true;
        }
    };
}

struct Load {
    const char* id;
    const char* name;
    ThreadWork work;
    int runs;
};

void measureLoad(const Load& load, const char* way, const ThreadWork& work, Json& row) {
    std::atomic<bool> failed = false;
    const ThreadWork careful = remembering(failed, work);
    std::vector<double> gains[std::size(threadCounts)];
    for (int round = -1; round < rounds; ++round) {
        double least[std::size(threadCounts)];
        std::fill(std::begin(least), std::end(least), std::numeric_limits<double>::infinity());
        for (int slice = 0; slice < slices; ++slice) {
            for (std::size_t i = 0; i < std::size(threadCounts); ++i) {
                least[i] = std::min(least[i], timeThreads(threadCounts[i], load.runs, careful));
            }
        }
        for (std::size_t i = 0; round >= 0 && i < std::size(threadCounts); ++i) {
            gains[i].push_back(threadCounts[i] * least[0] / least[i]);
        }
    }
    require(!failed, load.name);
    for (std::size_t i = 1; i < std::size(threadCounts); ++i) {
        row[way][std::to_string(threadCounts[i])] = toJson(summarize(gains[i]));
    }
}

// What the machine has to give: work in the processor alone.
void spin() {
    static thread_local std::uint64_t value = 1;
    for (int i = 0; i < 2'000'000; ++i) {
        value = value * 6364136223846793005u + 1442695040888963407u;
    }
}

}  // namespace

void measureThreads(const BenchToken& token, Json& rows) {
    std::vector<std::unique_ptr<Context>> contexts;
    contexts.resize(static_cast<std::size_t>(threadCounts[std::size(threadCounts) - 1]));
    for (auto& context : contexts) {
        context = std::make_unique<Context>(token.provider, token.containerName.c_str());
    }
    const Bytes message(1024, 0x5A);
    const Bytes piece(1u << 20, 0xA5);
    const Load loads[] = {
        {"threads.hash", "hashing 4 MiB in chunks of 1 MiB",
         [&](int thread) { hashThroughCsp(token.provider, *contexts[thread], piece, 4 * piece.size()); }, 40},
        {"threads.sign", "signing: SHA-256 of 1 KiB, RSA-2048",
         [&](int thread) { signThroughCsp(token.provider, *contexts[thread], message); }, 80}};
    const ThreadWork direct[] = {[&](int) { hashDirectly(token.deviceId, piece, 4 * piece.size()); },
                                 [&](int) { signDirectly(token, message); }};
    for (std::size_t i = 0; i < std::size(loads); ++i) {
        const Load& load = loads[i];
        Json row = {{"section", "threads"}, {"id", load.id}, {"name", load.name}, {"library", "virtual token"}};
        row["processors"] = std::thread::hardware_concurrency();
        measureLoad(load, "provider", load.work, row);
        {
            const AnsweredQueries answered;
            measureLoad(load, "providerWithoutQueries", load.work, row);
        }
        measureLoad(load, "direct", direct[i], row);
        measureLoad(
            {load.id, load.name, nullptr, 40}, "machine", [](int) { spin(); }, row);
        rows.push_back(std::move(row));
    }
}

}  // namespace talvik::bench
