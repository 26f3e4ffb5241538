#pragma once

#include "Settings.h"

#include <string>
#include <string_view>
#include <vector>

namespace quorad::ldap {

/// A domain controller that may be asked.
struct Candidate {
    Endpoint endpoint;
    unsigned priority = 0; ///< the lowest is preferred
    unsigned weight = 0;   ///< share among those of one priority

    friend bool operator==(const Candidate&, const Candidate&) = default;
};

/// Finds the controllers of a domain. Pure functions but for candidates().
class Locator {
public:
    /// The configured controllers in their order, or those that DNS names. May take as long as DNS
    /// does.
    /// @throws tessa::IPCException when DNS names none
    static std::vector<Candidate> candidates(const Settings& settings);

    /// Name of the service records of a domain's controllers.
    static std::string serviceName(const std::string& domain);
    /// Controllers in an answer of DNS (wire format, RFC 1035 and 2782). What is malformed in it is
    /// left out.
    static std::vector<Candidate> fromAnswer(std::string_view answer, bool tls);
    /// Sorted by priority; within one priority drawn by weight.
    static void order(std::vector<Candidate>& candidates);
};

} // namespace quorad::ldap
