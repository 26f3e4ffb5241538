#include "common/UpdatePace.h"

#include <gtest/gtest.h>

namespace {

using nis::UpdatePace;

long never() {
    return 0;
}
long always() {
    static long count = 0;
    return ++count;
}
/// Only while the first object is made and looks for the first time.
long once() {
    static long count = 0;
    return count < 2 ? ++count : count;
}

/// Steps for that long, with or without somebody asking meanwhile.
void run(UpdatePace& pace, UpdatePace::Clock::duration time, bool asked) {
    const auto end = UpdatePace::Clock::now() + time;
    while (UpdatePace::Clock::now() < end) {
        if (asked) {
            UpdatePace::answered();
        }
        pace.step();
    }
}

void runUntilPaused(UpdatePace& pace, unsigned times) {
    for (long steps = 0; pace.pauses() < times; ++steps) {
        ASSERT_LT(steps, 1'000'000'000L);
        UpdatePace::answered();
        pace.step();
    }
}

TEST(UpdatePaceTest, DoesNotPauseWhenNobodyAsks) {
    UpdatePace::answered(); // before the pass
    UpdatePace pace(always);
    run(pace, 20 * UpdatePace::WORK, false);
    EXPECT_EQ(pace.pauses(), 0U);
}

TEST(UpdatePaceTest, DoesNotPauseWhenThereAreProcessorsForAll) {
    UpdatePace pace(never);
    run(pace, 20 * UpdatePace::WORK, true);
    EXPECT_EQ(pace.pauses(), 0U);
}

TEST(UpdatePaceTest, PausesWhileOthersAskAndProcessorsAreShort) {
    UpdatePace pace(always);
    const auto start = UpdatePace::Clock::now();
    runUntilPaused(pace, 3);
    EXPECT_GE(UpdatePace::Clock::now() - start, 3 * (UpdatePace::WORK + UpdatePace::PAUSE));
    run(pace, 20 * UpdatePace::WORK, false);
    EXPECT_EQ(pace.pauses(), 3U) << "nobody asks any more";
}

TEST(UpdatePaceTest, RemembersForAWhileThatProcessorsWereShort) {
    UpdatePace pace(once);
    runUntilPaused(pace, 1);
    run(pace, UpdatePace::MEMORY, true);
    const unsigned before = pace.pauses();
    run(pace, 20 * UpdatePace::WORK, true);
    EXPECT_EQ(pace.pauses(), before) << "long ago";
}

TEST(UpdatePaceTest, PreemptionsOfTheThreadOnlyGrow) {
    const long before = UpdatePace::threadPreemptions();
    EXPECT_GE(before, 0);
    EXPECT_GE(UpdatePace::threadPreemptions(), before);
}

} // namespace
