#include "daemon/Waiting.h"

#include "common/Globals.h"

#include <ctime>

namespace nis {

namespace {

bool signalFlagRaised() {
    return gShutdownNow || gReconfigureNow || gRebuildMapNow || gRefreshMapNow;
}

} // namespace

void pollUntil(std::time_t deadline, bool stopWhenInitialized) {
    while (!signalFlagRaised() && !(stopWhenInitialized && gInitialized) &&
           std::time(nullptr) < deadline) {
        // A signal cuts the step short on the thread that receives signals.
        const timespec step{1, 0};
        nanosleep(&step, nullptr);
    }
}

} // namespace nis
