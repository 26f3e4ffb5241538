#pragma once

#include "ldap/Connection.h"
#include "ldap/Settings.h"

#include <karst/Properties.h>

#include <memory>
#include <string>

namespace quorad::admin {

/// As whom the domain is asked.
struct LoginOptions {
    bool machine = false; ///< the machine account, whatever tickets the caller has
    std::string bindDn;   ///< simple bind as somebody else
    std::string passwordFile;
    std::string server; ///< this controller only
};

/// The tickets that the caller has (kinit), for GSSAPI.
class CallerTickets : public ldap::Kerberos {
public:
    CallerTickets() : Kerberos("", "") {}

    /// Whether there are any that are still good.
    static bool present() { return !principalOfCache().empty(); }
    /// Principal of the caller's valid tickets; empty when there are none.
    static std::string principalOfCache();
    std::shared_ptr<const ldap::Ticket> ticket() override;
    void forget(const std::shared_ptr<const ldap::Ticket>& ticket) override;
};

/// A bound connection and what it was made with, which it needs as long as it lives.
struct Login {
    std::unique_ptr<ldap::Kerberos> tickets;
    std::unique_ptr<ldap::Connection> connection;
    std::string who;
};

/// Settings of the configuration with what the command line says instead.
/// @throws tessa::BadDataException when they make no sense, or do not name a domain
ldap::Settings settingsOf(const tessa::Properties& configuration, const LoginOptions& options);

/// Connects to the first controller that can be had: as the name on the command line, else with the
/// tickets of the caller, else as the machine.
/// @throws tessa::TESSAException that says of each controller why not
Login logIn(const ldap::Settings& settings, const LoginOptions& options);

} // namespace quorad::admin
