#pragma once

#include <karst/Logger.h>

#include <chrono>
#include <string>

#include <sys/types.h>

namespace orrisguard {

inline constexpr const char* LOGGER_NAME = "orrisguard";

/// A process as no later one can be mistaken for it: process ids are used again.
struct Process {
    pid_t pid = 0;
    unsigned long long started = 0; ///< ticks since the system came up; 0: there is no process
    bool exists() const { return started != 0; }
    friend bool operator==(const Process&, const Process&) = default;
};

enum class Answer {
    ANSWERED,
    SILENT,
    UNKNOWN ///< it could not be asked: nobody knows its port yet
};

/// What has become of a daemon that was launched.
enum class Launched {
    ALIVE,
    ENDED, ///< in an orderly way: somebody told it to
    FAILED
};

/// The keys "nisd.watch." of the configuration.
struct Settings {
    std::chrono::seconds frequency{30};    ///< between two looks
    std::chrono::seconds checkTimeout{10}; ///< of one look
    std::chrono::seconds death{60};        ///< without an answer until the daemon is ended
    std::chrono::seconds longestPause{300};
    int mostRestarts = 5;              ///< in a row
    std::chrono::seconds startup{180}; ///< that a start may take before silence counts
};

/// What the watch does to the world; replaced in tests.
class Surroundings {
public:
    using Time = std::chrono::steady_clock::time_point;

    virtual ~Surroundings() = default;
    virtual Time now() = 0;
    virtual void sleep(std::chrono::seconds time) = 0;
    /// @return whether the process is gone; false when the time has passed
    virtual bool waitForEnd(const Process& process, std::chrono::seconds time) = 0;
    virtual Answer ask(std::chrono::seconds timeout) = 0;
    virtual void signal(const Process& process, int number) = 0;
    /// Goes on under another process id: a daemon that is ended in an orderly way kills the process
    /// that it started as its watchdog.
    virtual void stepAside() = 0;
    /// The daemon that is running now, by its pid file; none if that is not alive.
    virtual Process running() = 0;
    /// Starts the daemon, and tells its watchdog of the restarts so far.
    /// @return false when that was not possible
    virtual bool launch(int restarts) = 0;
    /// Of the last launch.
    virtual Launched launched() = 0;
};

/// Looks after one daemon until it has been replaced: a daemon that was started again brings a
/// watchdog of its own. One thread.
class Watch {
public:
    /// How long an ending daemon is waited for before it is killed, and a starting one before the
    /// start counts as failed.
    static constexpr std::chrono::seconds END_PATIENCE{30};
    static constexpr std::chrono::seconds START_PATIENCE{30};

    /// @param restarts that came before this daemon, each shortly after the last
    Watch(Surroundings& surroundings, const Settings& settings, const Process& daemon,
          int restarts);

    /// @return 0 when another daemon has taken the place of the watched one, 1 when none could be
    ///         started
    int run();

private:
    void watchUntilGone();
    void end();
    bool restart();
    bool awaitSuccessor();
    std::chrono::seconds pauseBefore(int restart) const;

    Surroundings& m_surroundings;
    const Settings m_settings;
    const Process m_daemon;
    int m_restarts;
    const Surroundings::Time m_begin;
    const boost::shared_ptr<tessa::Logger> m_logger;
};

} // namespace orrisguard
