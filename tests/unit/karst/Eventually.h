#pragma once

#include <chrono>
#include <thread>

namespace test {

/// Polls until the condition holds. False when it does not within a time that is far beyond any
/// honest wait, so that a failure ends the test instead of hanging it.
template <typename Condition> bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace test
