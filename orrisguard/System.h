#pragma once

#include "Probe.h"
#include "Watch.h"

#include <string>
#include <vector>

namespace orrisguard {

/// The process with that id; one without start time when there is none, or only its remains.
Process processOf(pid_t pid);

/// The watch's surroundings as they are.
class System : public Surroundings {
public:
    /// Environment variable that tells a watchdog of the restarts before it.
    static constexpr const char* RESTARTS = "ORRISGUARD_RESTARTS";

    /// @param program path of the daemon
    /// @param arguments to start it with, without its name
    /// @param pidFile of the daemon
    System(Probe probe, std::string program, std::vector<std::string> arguments,
           std::string pidFile);

    Time now() override { return std::chrono::steady_clock::now(); }
    void sleep(std::chrono::seconds time) override;
    bool waitForEnd(const Process& process, std::chrono::seconds time) override;
    Answer ask(std::chrono::seconds timeout) override;
    void signal(const Process& process, int number) override;
    void stepAside() override;
    Process running() override;
    bool launch(int restarts) override;
    Launched launched() override;

private:
    Probe m_probe;
    const std::string m_program;
    const std::vector<std::string> m_arguments;
    const std::string m_pidFile;
    bool m_lastExitWasGood = false; ///< of the processes that came of the last launch
};

} // namespace orrisguard
