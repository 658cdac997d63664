// Several threads, a context each: how much more work they do than one.
#include <algorithm>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

#include "level_query.h"
#include "sections.h"
#include "sequences.h"

namespace talvik::bench {
namespace {

constexpr int threadCounts[] = {1, 2, 4};
constexpr int rounds = 15;

using ThreadWork = std::function<void(int thread)>;

// Microseconds until each of `count` threads has done `work` `runs` times.
double timeThreads(int count, int runs, const ThreadWork& work) {
    std::latch start(count + 1);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < count; ++thread) {
        threads.emplace_back([&, thread] {
            start.arrive_and_wait();
            for (int i = 0; i < runs; ++i) {
                work(thread);
            }
        });
    }
    start.arrive_and_wait();
    return microsecondsOf([&] {
        for (std::thread& thread : threads) {
            thread.join();
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
        double single = 0;
        for (std::size_t i = 0; i < std::size(threadCounts); ++i) {
            const double taken = timeThreads(threadCounts[i], load.runs, careful);
            single = i == 0 ? taken : single;
            if (round >= 0) {
                gains[i].push_back(threadCounts[i] * single / taken);
            }
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
    for (int i = 0; i < threadCounts[std::size(threadCounts) - 1]; ++i) {
        contexts.push_back(std::make_unique<Context>(token.provider, token.containerName.c_str()));
    }
    const Bytes message(1024, 0x5A);
    const Bytes piece(1u << 20, 0xA5);
    const Load loads[] = {
        {"threads.hash", "hashing 4 MiB in chunks of 1 MiB",
         [&](int thread) { hashThroughCsp(token.provider, *contexts[thread], piece, 4 * piece.size()); }, 5},
        {"threads.sign", "signing: SHA-256 of 1 KiB, RSA-2048",
         [&](int thread) { signThroughCsp(token.provider, *contexts[thread], message); }, 8}};
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
            {load.id, load.name, nullptr, 20}, "machine", [](int) { spin(); }, row);
        rows.push_back(std::move(row));
    }
}

}  // namespace talvik::bench
