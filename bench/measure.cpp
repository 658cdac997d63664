#include "measure.h"

#include <algorithm>
#include <chrono>

namespace talvik::bench {
namespace {

double microseconds(int runs, const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < runs; ++i) {
        work();
    }
    const std::chrono::duration<double, std::micro> taken = std::chrono::steady_clock::now() - start;
    return taken.count() / runs;
}

Summary summarize(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return {values.front(), values[values.size() / 2], values.back()};
}

}  // namespace

Comparison compare(const std::string& name, const Rounds& rounds, const std::function<void()>& provider,
                   const std::function<void()>& direct) {
    std::vector<double> providerTimes;
    std::vector<double> directTimes;
    std::vector<double> ratios;
    for (int round = -rounds.warmUp; round < rounds.counted; ++round) {
        const double providerTime = microseconds(rounds.runsPerRound, provider);
        const double directTime = microseconds(rounds.runsPerRound, direct);
        if (round >= 0) {
            providerTimes.push_back(providerTime);
            directTimes.push_back(directTime);
            ratios.push_back(directTime / providerTime);
        }
    }
    return {name, summarize(providerTimes), summarize(directTimes), summarize(ratios)};
}

Summary time(const Rounds& rounds, const std::function<void()>& work) {
    std::vector<double> times;
    for (int round = -rounds.warmUp; round < rounds.counted; ++round) {
        const double taken = microseconds(rounds.runsPerRound, work);
        if (round >= 0) {
            times.push_back(taken);
        }
    }
    return summarize(times);
}

}  // namespace talvik::bench
