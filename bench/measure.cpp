#include "measure.h"

#include <algorithm>
#include <chrono>
#include <limits>

namespace talvik::bench {
namespace {

double microsecondsPerRun(int runs, const Work& work) {
    return microsecondsOf([&] {
               for (int i = 0; i < runs; ++i) {
                   work();
               }
           }) /
           runs;
}

// The second of two runs: the first one fills caches, opens files and logs in.
int runsPerSlice(const Effort& effort, const Work& work) {
    work();
    const double once = std::max(microsecondsOf(work), 0.01);
    return static_cast<int>(std::clamp(effort.millisecondsPerSlice * 1000 / once, 1.0, 1e6));
}

}  // namespace

double microsecondsOf(const Work& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

Summary summarize(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return {values.front(), values[values.size() / 2], values.back()};
}

Json toJson(const Summary& summary) {
    return {{"min", summary.minimum}, {"median", summary.median}, {"max", summary.maximum}};
}

Summary Timings::speed(std::size_t way, std::size_t reference) const {
    std::vector<double> ratios;
    for (std::size_t round = 0; round < times_[way].size(); ++round) {
        ratios.push_back(times_[reference][round] / times_[way][round]);
    }
    return summarize(ratios);
}

double Timings::undisturbedSpeed(std::size_t way, std::size_t reference) const {
    return of(reference).minimum / of(way).minimum;
}

// Every other slice takes the ways in the opposite order: what one way leaves behind weighs on both neighbours alike.
Timings measure(const Effort& effort, const std::vector<Work>& ways) {
    std::vector<int> runs;
    runs.reserve(ways.size());
    for (const Work& way : ways) {
        runs.push_back(runsPerSlice(effort, way));
    }
    Timings timings(ways.size());
    for (int round = 0; round < effort.rounds; ++round) {
        std::vector<double> least(ways.size(), std::numeric_limits<double>::infinity());
        for (int slice = 0; slice < effort.slices; ++slice) {
            for (std::size_t turn = 0; turn < ways.size(); ++turn) {
                const std::size_t way = slice % 2 == 0 ? turn : ways.size() - 1 - turn;
                least[way] = std::min(least[way], microsecondsPerRun(runs[way], ways[way]));
            }
        }
        for (std::size_t way = 0; way < ways.size(); ++way) {
            timings.add(way, least[way]);
        }
    }
    return timings;
}

}  // namespace talvik::bench
