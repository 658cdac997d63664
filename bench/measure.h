// Measuring several ways of doing the same work side by side: in turn, round by round, so that a machine whose speed
// drifts slows all of them.
#pragma once

#include <cstddef>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace talvik::bench {

using Json = nlohmann::ordered_json;

// Of the rounds of one measurement.
struct Summary {
    double minimum = 0;
    double median = 0;
    double maximum = 0;
};

Summary summarize(std::vector<double> values);
Json toJson(const Summary& summary);

// How long to measure. In a round each way has several slices, in turn with the others, and its fastest counts: other
// programs take the processor away in most of a slow one. A slice repeats the way until it has taken the given time,
// and at least once.
struct Effort {
    int rounds = 11;
    int slices = 4;
    double millisecondsPerSlice = 4;
};

// Microseconds of one run, for each way in each round.
class Timings {
  public:
    explicit Timings(std::size_t ways) : times_(ways) {}

    void add(std::size_t way, double microseconds) { times_[way].push_back(microseconds); }
    Summary of(std::size_t way) const { return summarize(times_[way]); }

    // How many times as fast as `reference` a way was, taken round by round.
    Summary speed(std::size_t way, std::size_t reference) const;

    // The same of the fastest slices of all rounds: closest to a machine that does nothing else.
    double undisturbedSpeed(std::size_t way, std::size_t reference) const;

  private:
    std::vector<std::vector<double>> times_;
};

using Work = std::function<void()>;

// Each call of a way does the whole work once.
Timings measure(const Effort& effort, const std::vector<Work>& ways);

double microsecondsOf(const Work& work);

}  // namespace talvik::bench
