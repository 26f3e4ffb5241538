#include "Findings.h"

#include <algorithm>
#include <string_view>

namespace quorad::admin {

namespace {

constexpr std::size_t VERDICT_WIDTH = 9;
constexpr std::size_t CHECK_WIDTH = 16;

std::string_view word(Verdict verdict) {
    switch (verdict) {
    case Verdict::OK:
        return "OK";
    case Verdict::WARNING:
        return "WARNING";
    case Verdict::FAILED:
        break;
    }
    return "FAILED";
}

std::string padded(std::string_view text, std::size_t width) {
    std::string result(text);
    result.resize(std::max(width, result.size() + 1), ' ');
    return result;
}

// Every line of the text begins below the first one.
std::string indented(std::string_view text) {
    std::string result;
    for (const char c : text) {
        result += c;
        if (c == '\n') {
            result.append(VERDICT_WIDTH + CHECK_WIDTH, ' ');
        }
    }
    return result;
}

} // namespace

std::string render(const std::vector<Finding>& findings) {
    std::string text;
    std::size_t warnings = 0;
    std::size_t failures = 0;
    for (const Finding& finding : findings) {
        text += padded(word(finding.verdict), VERDICT_WIDTH) + padded(finding.check, CHECK_WIDTH) +
                indented(finding.text) + "\n";
        if (!finding.advice.empty()) {
            text += std::string(VERDICT_WIDTH + CHECK_WIDTH, ' ') + "-> " +
                    indented(finding.advice) + "\n";
        }
        warnings += finding.verdict == Verdict::WARNING ? 1 : 0;
        failures += finding.verdict == Verdict::FAILED ? 1 : 0;
    }
    if (failures + warnings == 0) {
        return text + "Everything is in order.\n";
    }
    return text + std::to_string(failures) + " failed, " + std::to_string(warnings) +
           (warnings == 1 ? " warning.\n" : " warnings.\n");
}

Verdict worst(const std::vector<Finding>& findings) {
    Verdict verdict = Verdict::OK;
    for (const Finding& finding : findings) {
        verdict = std::max(verdict, finding.verdict);
    }
    return verdict;
}

} // namespace quorad::admin
