#pragma once

#include <functional>
#include <stdexcept>

#include <sys/wait.h>
#include <unistd.h>

namespace test {

/// Runs the body in a child process. True when the body returned true there.
inline bool inChild(const std::function<bool()>& body) {
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::runtime_error("fork failed");
    }
    if (child == 0) {
        bool good = false;
        try {
            good = body();
        } catch (...) { // whatever it is, the parent sees it as a failure
            good = false;
        }
        ::_exit(good ? 0 : 1);
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child) {
        throw std::runtime_error("waitpid failed");
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace test
