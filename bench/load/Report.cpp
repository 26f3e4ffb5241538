#include "load/Report.h"

#include <algorithm>
#include <cstdio>

namespace load {

namespace {

double percentile(const std::vector<float>& sorted, double part) {
    if (sorted.empty()) {
        return 0;
    }
    const auto last = static_cast<double>(sorted.size() - 1);
    return static_cast<double>(sorted[static_cast<std::size_t>(last * part)]);
}

} // namespace

void Report::print() {
    std::sort(latencies.begin(), latencies.end());
    std::printf("{\"work\":\"%s\",\"seconds\":%.3f,\"answers\":%llu,\"wrong\":%llu,\"lost\":%llu,"
                "\"bytes\":%llu,\"per_second\":%.0f,\"p50_us\":%.1f,\"p90_us\":%.1f,"
                "\"p99_us\":%.1f,\"p999_us\":%.1f,\"max_us\":%.1f}\n",
                work.c_str(), seconds, static_cast<unsigned long long>(answers),
                static_cast<unsigned long long>(wrong), static_cast<unsigned long long>(lost),
                static_cast<unsigned long long>(bytes),
                seconds > 0 ? static_cast<double>(answers) / seconds : 0.0,
                percentile(latencies, 0.50), percentile(latencies, 0.90),
                percentile(latencies, 0.99), percentile(latencies, 0.999),
                percentile(latencies, 1.0));
    std::fflush(stdout);
}

} // namespace load
