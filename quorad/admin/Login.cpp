#include "Login.h"

#include "Backend.h"
#include "ldap/Locator.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <ctime>

#include <krb5.h>

namespace quorad::admin {

namespace {

constexpr const char* COPY_OF_CACHE = "MEMORY:quorad-admin";

/// The caller's ticket cache.
class Cache {
public:
    Cache() {
        if (krb5_init_context(&m_context) == 0 && krb5_cc_default(m_context, &m_cache) == 0 &&
            krb5_cc_get_principal(m_context, m_cache, &m_principal) != 0) {
            m_principal = nullptr;
        }
    }
    ~Cache() {
        if (m_principal != nullptr) {
            krb5_free_principal(m_context, m_principal);
        }
        if (m_cache != nullptr) {
            krb5_cc_close(m_context, m_cache);
        }
        if (m_context != nullptr) {
            krb5_free_context(m_context);
        }
    }
    Cache(const Cache&) = delete;
    Cache& operator=(const Cache&) = delete;

    std::string principal() const {
        char* text = nullptr;
        if (m_principal == nullptr || krb5_unparse_name(m_context, m_principal, &text) != 0) {
            return "";
        }
        std::string name(text);
        krb5_free_unparsed_name(m_context, text);
        return name;
    }

    // End of the ticket that others are got with; 0 when there is none.
    std::time_t end() const {
        krb5_cc_cursor cursor = nullptr;
        std::time_t end = 0;
        if (m_principal == nullptr || krb5_cc_start_seq_get(m_context, m_cache, &cursor) != 0) {
            return 0;
        }
        krb5_creds credentials{};
        while (krb5_cc_next_cred(m_context, m_cache, &cursor, &credentials) == 0) {
            const krb5_data first =
                credentials.server->length > 0 ? credentials.server->data[0] : krb5_data{};
            if (std::string_view(first.data, first.length) == "krbtgt") {
                end = std::max<std::time_t>(end, credentials.times.endtime);
            }
            krb5_free_cred_contents(m_context, &credentials);
        }
        krb5_cc_end_seq_get(m_context, m_cache, &cursor);
        return end;
    }

    void copyTo(const char* name) const {
        krb5_ccache copy = nullptr;
        krb5_error_code code = krb5_cc_resolve(m_context, name, &copy);
        if (code == 0) {
            code = krb5_cc_initialize(m_context, copy, m_principal);
            if (code == 0) {
                code = krb5_cc_copy_creds(m_context, m_cache, copy);
            }
            krb5_cc_close(m_context, copy);
        }
        if (code != 0) {
            TESSA_THROW(tessa::IPCException, "the tickets of the caller cannot be used");
        }
    }

private:
    krb5_context m_context = nullptr;
    krb5_ccache m_cache = nullptr;
    krb5_principal m_principal = nullptr;
};

} // namespace

std::string CallerTickets::principalOfCache() {
    const Cache cache;
    return cache.end() > std::time(nullptr) ? cache.principal() : "";
}

std::shared_ptr<const ldap::Ticket> CallerTickets::ticket() {
    const Cache cache;
    const std::time_t end = cache.end();
    if (end <= std::time(nullptr)) {
        TESSA_THROW(tessa::IPCException, "the tickets of the caller are used up: run kinit");
    }
    cache.copyTo(COPY_OF_CACHE);
    return std::make_shared<const ldap::Ticket>(COPY_OF_CACHE, end);
}

void CallerTickets::forget(const std::shared_ptr<const ldap::Ticket>& /*ticket*/) {
    // The caller's tickets are the caller's; there are no others to be got.
}

ldap::Settings settingsOf(const tessa::Properties& configuration, const LoginOptions& options) {
    tessa::Properties effective;
    for (const auto& [key, value] : configuration.withPrefix("")) {
        effective.set(key, value);
    }
    const std::string source = configuration.get(PROP_DIRECTORY, DEFAULT_DIRECTORY);
    if (!ldap::Settings::isLdap(source)) {
        TESSA_THROW(tessa::BadDataException,
                    std::string(PROP_DIRECTORY) + ": '" + source +
                        "' names no Active Directory domain; nothing can be looked at or changed "
                        "there through LDAP. Set it to 'ldap:'");
    }
    if (!options.server.empty()) {
        const bool named = options.server.find("://") != std::string::npos;
        effective.set(PROP_DIRECTORY, named ? options.server : "ldap://" + options.server);
    }
    if (!options.bindDn.empty()) {
        effective.set(ldap::PROP_AUTH, "simple");
        effective.set(ldap::PROP_BIND_DN, options.bindDn);
        effective.set(ldap::PROP_PASSWORD_FILE, options.passwordFile);
    }
    return ldap::Settings::parse(effective);
}

Login logIn(const ldap::Settings& settings, const LoginOptions& options) {
    Login login;
    ldap::Settings used(settings);
    if (used.authentication == ldap::Authentication::SIMPLE) {
        login.who = used.bindDn;
    } else if (const std::string caller = CallerTickets::principalOfCache();
               !options.machine && !caller.empty()) {
        login.who = used.principal = caller;
        login.tickets = std::make_unique<CallerTickets>();
    } else {
        login.who = used.principal;
        login.tickets = std::make_unique<ldap::Kerberos>(used.keytab, used.principal);
    }
    std::string failures;
    for (const ldap::Candidate& candidate : ldap::Locator::candidates(used)) {
        try {
            login.connection =
                std::make_unique<ldap::Connection>(used, candidate.endpoint, login.tickets.get());
            return login;
        } catch (const tessa::IPCException& error) {
            failures += (failures.empty() ? "" : "\n") + error.message();
        }
    }
    TESSA_THROW(tessa::IPCException, failures);
}

} // namespace quorad::admin
