#pragma once

#include <ctime>

namespace nis {

/// Waits in steps of one second until the clock reaches the deadline (seconds since the epoch).
/// Returns at once when one of the signal flags is raised, and, with stopWhenInitialized, when
/// gInitialized is set.
void pollUntil(std::time_t deadline, bool stopWhenInitialized);

} // namespace nis
