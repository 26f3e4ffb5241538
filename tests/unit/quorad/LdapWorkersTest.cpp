#include "ldap/Workers.h"

#include <karst/Exceptions.h>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>

namespace {

using namespace quorad::ldap;
using Clock = std::chrono::steady_clock;

TEST(LdapWorkers, RunsAndPassesFailuresOn) {
    Workers workers;
    const auto count = std::make_shared<std::atomic<int>>(0);
    workers.run(
        Clock::now() + std::chrono::seconds(60), [count] { ++*count; }, "counting");
    EXPECT_EQ(*count, 1);
    EXPECT_THROW(workers.run(
                     Clock::now() + std::chrono::seconds(60),
                     [] { TESSA_THROW(tessa::NotFoundException, "nothing"); }, "failing"),
                 tessa::NotFoundException);
}

TEST(LdapWorkers, DoesNotWaitForWhatHangs) {
    const auto release = std::make_shared<std::promise<void>>();
    const auto released = std::make_shared<std::shared_future<void>>(release->get_future());
    {
        Workers workers;
        for (std::size_t i = 0; i < Workers::MAX_WORKERS; ++i) {
            try {
                workers.run(
                    Clock::now() + std::chrono::milliseconds(5), [released] { released->wait(); },
                    "connecting");
                ADD_FAILURE() << "waited for it";
            } catch (const tessa::IPCException& e) {
                EXPECT_NE(e.message().find("connecting: no end"), std::string::npos);
            }
        }
        // No thread for each client that asks meanwhile.
        EXPECT_THROW(workers.run(
                         Clock::now() + std::chrono::seconds(60), [] {}, "one more"),
                     tessa::IPCException);
        release->set_value();
        // Those that ended make room.
        const auto limit = Clock::now() + std::chrono::seconds(60);
        bool done = false;
        while (!done && Clock::now() < limit) {
            try {
                workers.run(
                    limit, [&done] { done = true; }, "again");
            } catch (const tessa::IPCException&) { // NOLINT: not yet
            }
        }
        EXPECT_TRUE(done);
    }
}

} // namespace
