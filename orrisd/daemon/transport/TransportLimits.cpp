#include "daemon/transport/TransportLimits.h"

#include "common/Globals.h"

#include <karst/Text.h>

#include <algorithm>
#include <cerrno>

#include <sys/resource.h>

namespace nis {

namespace {

constexpr std::size_t MOST_CONNECTIONS = 4096;
constexpr std::size_t LEAST_RESERVE = 256;

} // namespace

std::size_t TransportLimits::connectionLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return LEAST_RESERVE;
    }
    const std::size_t descriptors = limit.rlim_cur;
    // Caches, snapshots and the way to the directory need descriptors as well; where there are
    // few, both sides get half.
    const std::size_t reserve = std::min(std::max(LEAST_RESERVE, descriptors / 4), descriptors / 2);
    return std::min(MOST_CONNECTIONS, descriptors - reserve);
}

void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) {
        return;
    }
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        KARST_LOG(logger, tessa::LOG_WARN, "Raising the descriptor limit failed: %s",
                  tessa::errorText(errno).c_str());
    }
}

} // namespace nis
