#include "daemon/Waiting.h"

#include "unit/daemon/DaemonTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <limits>
#include <thread>
#include <vector>

namespace {

constexpr std::time_t NEVER = std::numeric_limits<std::time_t>::max();

class Waiting : public testing::Test {
    test::CleanFlags m_flags;
};

TEST_F(Waiting, ends_at_the_deadline) {
    nis::pollUntil(0, false);
    const std::time_t deadline = std::time(nullptr) + 1;
    nis::pollUntil(deadline, false);
    EXPECT_GE(std::time(nullptr), deadline);
}

TEST_F(Waiting, any_signal_flag_ends_it) {
    for (std::atomic<bool>* flag :
         {&nis::gShutdownNow, &nis::gReconfigureNow, &nis::gRebuildMapNow, &nis::gRefreshMapNow}) {
        *flag = true;
        nis::pollUntil(NEVER, false);
        *flag = false;
    }
}

TEST_F(Waiting, the_end_of_start_up_ends_it_only_where_asked_for) {
    nis::gInitialized = true;
    nis::pollUntil(NEVER, true);
    const std::time_t deadline = std::time(nullptr) + 1;
    nis::pollUntil(deadline, false);
    EXPECT_GE(std::time(nullptr), deadline);
}

TEST_F(Waiting, a_flag_that_another_thread_raises_ends_it) {
    std::vector<std::thread> waiting;
    for (int i = 0; i < 4; ++i) {
        waiting.emplace_back([] { nis::pollUntil(NEVER, true); });
    }
    nis::gShutdownNow = true;
    for (std::thread& thread : waiting) {
        thread.join();
    }
}

} // namespace
