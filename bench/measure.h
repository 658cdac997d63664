// Measuring two ways of doing the same work side by side: in turn, so that a machine whose speed drifts slows both.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace talvik::bench {

struct Summary {
    double minimum = 0;
    double median = 0;
    double maximum = 0;
};

// One comparison: microseconds of one run of each way, and how much of the direct way's throughput the provider keeps.
struct Comparison {
    std::string name;
    Summary provider;
    Summary direct;
    Summary ratio;  // direct time / provider time, round by round
};

struct Rounds {
    int warmUp = 1;
    int counted = 9;
    int runsPerRound = 1;
};

// Runs `provider` and `direct` in turn. Each call does the whole work once.
Comparison compare(const std::string& name, const Rounds& rounds, const std::function<void()>& provider,
                   const std::function<void()>& direct);

// Microseconds of one run of `work`.
Summary time(const Rounds& rounds, const std::function<void()>& work);

}  // namespace talvik::bench
