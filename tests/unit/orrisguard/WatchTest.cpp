#include "Watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace orrisguard;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using Time = Surroundings::Time;

constexpr Process DAEMON{100, 5};
constexpr Process SUCCESSOR{200, 9};

/// A world with a clock of its own. Notes what is done to it.
class World : public Surroundings {
public:
    Time clock{};
    Time endsAt = Time::max(); ///< the daemon, by itself
    std::function<Answer(Time)> answer = [](Time) { return Answer::ANSWERED; };
    std::chrono::seconds diesAfterTerm = 1s; ///< negative: does not
    std::deque<bool> launches;               ///< whether each launch brings a daemon
    Process pidFile = DAEMON;
    Launched state = Launched::ALIVE;
    bool forgets = false; ///< whether launched daemons are gone before anybody looks
    std::vector<std::string> deeds;

    static Time at(std::chrono::seconds time) { return Time{} + time; }

    Time now() override { return clock; }
    void sleep(std::chrono::seconds time) override { clock += time; }
    bool waitForEnd(const Process& process, std::chrono::seconds time) override {
        EXPECT_EQ(process, DAEMON);
        const bool gone = endsAt <= clock + time;
        clock = gone ? std::max(clock, endsAt) : clock + time;
        if (clock > at(24h * 30)) {
            throw std::runtime_error("the watch never ends");
        }
        return gone;
    }
    Answer ask(std::chrono::seconds timeout) override {
        const Answer result = answer(clock);
        if (result == Answer::SILENT) {
            clock += timeout;
        }
        return result;
    }
    void signal(const Process& process, int number) override {
        EXPECT_EQ(process, DAEMON);
        note(number == SIGTERM ? "term" : number == SIGKILL ? "kill" : "?");
        if (number == SIGKILL) {
            endsAt = clock;
        } else if (diesAfterTerm >= 0s) {
            endsAt = clock + diesAfterTerm;
        }
    }
    void stepAside() override { note("aside"); }
    Process running() override {
        const bool stale = pidFile == DAEMON && endsAt <= clock;
        return stale ? Process{} : pidFile;
    }
    bool launch(int restarts) override {
        note("launch " + std::to_string(restarts));
        const bool comes = launches.empty() || launches.front();
        if (!launches.empty()) {
            launches.pop_front();
        }
        if (comes && !forgets) {
            pidFile = SUCCESSOR;
        }
        return comes;
    }
    Launched launched() override { return state; }

    void note(const std::string& deed) {
        deeds.push_back(std::to_string(std::chrono::duration_cast<std::chrono::seconds>(
                                           clock.time_since_epoch())
                                           .count()) +
                        " " + deed);
    }
};

int watch(World& world, int restarts = 0, Settings settings = {}) {
    return Watch(world, settings, DAEMON, restarts).run();
}

TEST(Watch, aDaemonThatIsGoneIsStartedAgain) {
    World world;
    world.endsAt = World::at(100s);
    EXPECT_EQ(watch(world), 0);
    EXPECT_THAT(world.deeds, ElementsAre("101 launch 1"));
}

TEST(Watch, aSuccessorThatWasEndedBeforeItWasSeenStaysEnded) {
    World world;
    world.endsAt = World::at(100s);
    world.state = Launched::ENDED;
    world.forgets = true;
    EXPECT_EQ(watch(world), 0);
    EXPECT_THAT(world.deeds, ElementsAre("101 launch 1"));
}

TEST(Watch, aSuccessorThatFailsIsNotWaitedFor) {
    World world;
    world.endsAt = World::at(100s);
    world.state = Launched::FAILED;
    world.forgets = true;
    EXPECT_EQ(watch(world), 1);
    EXPECT_THAT(world.deeds, ElementsAre("101 launch 1", "103 launch 2", "107 launch 3",
                                         "115 launch 4", "131 launch 5"));
}

TEST(Watch, aDaemonThatAnswersIsLeftAlone) {
    World world;
    world.endsAt = World::at(24h);
    EXPECT_EQ(watch(world), 0);
    EXPECT_EQ(world.deeds.size(), 1U) << "the launch after its end";
}

TEST(Watch, aSilentDaemonIsEndedAndStartedAgain) {
    World world;
    world.answer = [](Time now) {
        return now < World::at(1000s) ? Answer::ANSWERED : Answer::SILENT;
    };
    EXPECT_EQ(watch(world), 0);
    // The last answer came at 990; from 1050 on it has been silent for too long.
    EXPECT_THAT(world.deeds, ElementsAre("1070 aside", "1070 term", "1072 launch 1"));
}

TEST(Watch, aShortSilenceIsForgiven) {
    World world;
    world.endsAt = World::at(24h);
    world.answer = [](Time now) {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - Time{}).count();
        return seconds / 40 % 2 == 0 ? Answer::ANSWERED : Answer::SILENT;
    };
    EXPECT_EQ(watch(world), 0);
    EXPECT_EQ(world.deeds.size(), 1U);
}

TEST(Watch, aDaemonThatDoesNotEndIsKilled) {
    World world;
    world.diesAfterTerm = -1s;
    world.answer = [](Time) { return Answer::SILENT; };
    EXPECT_EQ(watch(world), 0);
    EXPECT_THAT(world.deeds, ElementsAre("240 aside", "240 term", "270 kill", "271 launch 1"));
}

TEST(Watch, aStartMayTakeItsTime) {
    World world;
    world.answer = [](Time now) {
        return now < World::at(200s) ? Answer::SILENT : Answer::ANSWERED;
    };
    world.endsAt = World::at(5000s);
    EXPECT_EQ(watch(world), 0);
    EXPECT_THAT(world.deeds, ElementsAre("5001 launch 1"));
}

TEST(Watch, whoCannotBeAskedIsNotEnded) {
    World world;
    world.answer = [](Time) { return Answer::UNKNOWN; };
    world.endsAt = World::at(24h);
    EXPECT_EQ(watch(world), 0);
    EXPECT_EQ(world.deeds.size(), 1U);
}

TEST(Watch, failedStartsAreRepeatedWithLongerPausesUntilItGivesUp) {
    World world;
    world.endsAt = World::at(10s);
    world.launches = {false, false, false, false, false, false};
    EXPECT_EQ(watch(world), 1);
    EXPECT_THAT(world.deeds, ElementsAre("11 launch 1", "13 launch 2", "17 launch 3", "25 launch 4",
                                         "41 launch 5"));
}

TEST(Watch, aLaunchThatLeadsToNoDaemonIsRepeated) {
    class Stillborn : public World {
    public:
        bool launch(int restarts) override {
            World::launch(restarts);
            if (restarts < 3) {
                pidFile = DAEMON; // the file is there, its process is not
            }
            return true;
        }
    };
    Stillborn world;
    world.endsAt = World::at(10s);
    EXPECT_EQ(watch(world), 0);
    EXPECT_THAT(world.deeds, ElementsAre("11 launch 1", "43 launch 2", "77 launch 3"));
}

TEST(Watch, restartsOfEarlierWatchdogsCount) {
    World world;
    world.endsAt = World::at(10s);
    EXPECT_EQ(watch(world, 4), 0);
    EXPECT_THAT(world.deeds, ElementsAre("26 launch 5"));
    World last;
    last.endsAt = World::at(10s);
    EXPECT_EQ(watch(last, 5), 1);
    EXPECT_THAT(last.deeds, IsEmpty());
}

TEST(Watch, aLongLifeEndsTheRow) {
    World world;
    world.endsAt = World::at(301s);
    EXPECT_EQ(watch(world, 5), 0);
    EXPECT_THAT(world.deeds, ElementsAre("302 launch 1"));
}

TEST(Watch, pausesHaveALimit) {
    World world;
    world.endsAt = World::at(10s);
    world.launches.assign(100, false);
    Settings settings;
    settings.mostRestarts = 60;
    settings.longestPause = 20s;
    EXPECT_EQ(watch(world, 30, settings), 1);
    EXPECT_EQ(world.deeds.size(), 30U);
    EXPECT_EQ(world.deeds.front(), "30 launch 31");
    EXPECT_EQ(world.deeds.back(), "610 launch 60");
}

TEST(Watch, aDaemonThatSomeoneElseStartedIsLeftToThem) {
    World world;
    world.endsAt = World::at(10s);
    world.pidFile = SUCCESSOR;
    EXPECT_EQ(watch(world), 0);
    EXPECT_THAT(world.deeds, IsEmpty());
}

} // namespace
