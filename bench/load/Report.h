#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace load {

using Clock = std::chrono::steady_clock;

/// What one run measured. Latencies are kept as they are: runs are short enough.
struct Report {
    std::string work;
    double seconds = 0;
    std::uint64_t answers = 0;
    std::uint64_t wrong = 0;      ///< answered, but not with what the value file says
    std::uint64_t lost = 0;       ///< asked again because no answer came
    std::uint64_t bytes = 0;      ///< payload received
    std::vector<float> latencies; ///< microseconds

    void add(Clock::duration latency) {
        latencies.push_back(std::chrono::duration<float, std::micro>(latency).count());
    }
    /// Prints the run as one JSON line on standard output.
    void print();
};

} // namespace load
