#pragma once

#include "Findings.h"
#include "Login.h"
#include "ldap/Connection.h"
#include "ldap/Locator.h"
#include "ldap/Settings.h"

#include <karst/Properties.h>

#include <ctime>
#include <string>
#include <vector>

namespace quorad::admin {

/// Looks at everything between this machine and its maps, in the order in which one thing needs the
/// other, and says of each whether it is in order and what to do if not. Changes nothing. Asks as
/// the machine, as quorad does.
class JoinCheck {
public:
    /// @param server this controller only; empty: all of them
    explicit JoinCheck(const tessa::Properties& configuration, const std::string& server = "")
        : m_configuration(configuration) {
        m_login.server = server;
    }

    /// All checks. What depends on something that failed is left out.
    std::vector<Finding> run();

    /// Verdict on the difference of the clocks. Pure.
    static Finding judgeClock(const std::string& host, std::time_t theirs, std::time_t ours);
    /// Verdict on the principals of a keytab. Pure.
    static Finding judgeKeytab(const std::string& keytab, const std::string& principal,
                               const std::vector<std::string>& principals);

private:
    bool checkConfiguration();
    bool checkDns();
    void checkHosts();
    void checkClocks();
    void checkKeytab();
    void checkBind();
    void checkZone(ldap::Connection& connection);
    void checkAbove(ldap::Connection& connection);
    void checkTombstones(ldap::Connection& connection);
    void checkUsers(ldap::Connection& connection);
    void checkService();
    void add(Verdict verdict, std::string check, std::string text, std::string advice = "");

    const tessa::Properties& m_configuration;
    LoginOptions m_login;
    ldap::Settings m_settings;
    std::string m_zone;
    std::vector<ldap::Candidate> m_candidates;
    std::vector<Finding> m_findings;
};

} // namespace quorad::admin
