#pragma once

#include <string>
#include <vector>

namespace quorad::admin {

enum class Verdict { OK, WARNING, FAILED };

/// The outcome of one check.
struct Finding {
    Verdict verdict;
    std::string check;  ///< what was looked at, in a word or two
    std::string text;   ///< what was found
    std::string advice; ///< what to do; empty where there is nothing to do
};

/// For a terminal: a line for each finding, the advice below it, and a sum. Pure.
std::string render(const std::vector<Finding>& findings);

/// The gravest verdict; OK when there are no findings.
Verdict worst(const std::vector<Finding>& findings);

} // namespace quorad::admin
