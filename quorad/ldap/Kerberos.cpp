#include "Kerberos.h"

#include "Settings.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <atomic>
#include <cerrno>
#include <utility>

#include <gssapi/gssapi_krb5.h>
#include <krb5.h>
#include <sys/stat.h>

namespace quorad::ldap {

namespace {

constexpr std::time_t RENEW_BEFORE_END = 600;
constexpr std::chrono::seconds PAUSE_AFTER_REFUSAL(30);

/// The library's context and what was made with it.
class Session {
public:
    Session() {
        if (const krb5_error_code code = krb5_init_context(&m_context); code != 0) {
            TESSA_THROW(tessa::IPCException, "Kerberos cannot be used: is /etc/krb5.conf in order? "
                                             "(error " +
                                                 std::to_string(code) + ")");
        }
    }
    ~Session() {
        if (keytab != nullptr) {
            krb5_kt_close(m_context, keytab);
        }
        if (principal != nullptr) {
            krb5_free_principal(m_context, principal);
        }
        if (hasCredentials) {
            krb5_free_cred_contents(m_context, &credentials);
        }
        krb5_free_context(m_context);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    krb5_context get() const { return m_context; }
    std::string text(krb5_error_code code) const {
        const char* const message = krb5_get_error_message(m_context, code);
        std::string copy = tessa::printable(message);
        krb5_free_error_message(m_context, message);
        return copy;
    }

    krb5_keytab keytab = nullptr;
    krb5_principal principal = nullptr;
    krb5_creds credentials{};
    bool hasCredentials = false;

private:
    krb5_context m_context = nullptr;
};

// What the centre holds against the account or its key: to ask again soon does harm.
bool isRefusal(krb5_error_code code) {
    return code == KRB5KDC_ERR_PREAUTH_FAILED || code == KRB5KRB_AP_ERR_BAD_INTEGRITY ||
           code == KRB5KDC_ERR_CLIENT_REVOKED || code == KRB5KDC_ERR_KEY_EXP ||
           code == KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN;
}

std::string adviceFor(krb5_error_code code) {
    switch (code) {
    case KRB5KDC_ERR_PREAUTH_FAILED:
    case KRB5KRB_AP_ERR_BAD_INTEGRITY:
        return "the keytab does not hold the present password of the account: write a new keytab";
    case KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN:
        return "the domain has no such account: join the machine, or set quorad.ldap.principal";
    case KRB5KDC_ERR_CLIENT_REVOKED:
        return "the account is disabled or locked: enable it in the domain";
    case KRB5KDC_ERR_KEY_EXP:
        return "the password of the account has expired: change it and write a new keytab";
    case KRB5KRB_AP_ERR_SKEW:
        return kerberosAdvice("Clock skew");
    case KRB5_KT_NOTFOUND:
        return "the keytab has no key of that account: write a new keytab, or set "
               "quorad.ldap.principal";
    case KRB5_REALM_UNKNOWN:
    case KRB5_REALM_CANT_RESOLVE:
    case KRB5_KDC_UNREACH:
        return "no key distribution centre of the realm answers: look at DNS, the network and "
               "/etc/krb5.conf";
    case KRB5KDC_ERR_ETYPE_NOSUPP:
        return "keytab and domain have no kind of encryption in common: write a new keytab";
    default:
        return "";
    }
}

std::string describe(const Session& session, krb5_error_code code, const std::string& what) {
    std::string text = what + ": " + session.text(code);
    const std::string advice = adviceFor(code);
    return advice.empty() ? text : text + "; " + advice;
}

void requireKeytab(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        TESSA_THROW(tessa::IPCException, "keytab '" + path +
                                             "' cannot be read: " + tessa::errorText(errno) +
                                             "; join the machine or put the keytab back");
    }
    try {
        requirePrivateFile(path, "keytab");
    } catch (const tessa::BadDataException& e) {
        TESSA_THROW(tessa::IPCException, e.message());
    }
}

// A fresh cache with the credentials in it.
std::shared_ptr<const Ticket> store(Session& session) {
    static std::atomic<unsigned> count{0};
    const std::string name = "MEMORY:quorad-" + std::to_string(++count);
    krb5_ccache cache = nullptr;
    krb5_error_code code = krb5_cc_resolve(session.get(), name.c_str(), &cache);
    if (code == 0) {
        code = krb5_cc_initialize(session.get(), cache, session.principal);
        if (code == 0) {
            code = krb5_cc_store_cred(session.get(), cache, &session.credentials);
        }
        krb5_cc_close(session.get(), cache);
    }
    if (code != 0) {
        TESSA_THROW(tessa::IPCException, "tickets cannot be kept: " + session.text(code));
    }
    return std::make_shared<const Ticket>(name, session.credentials.times.endtime);
}

} // namespace

Ticket::~Ticket() {
    krb5_context context = nullptr;
    krb5_ccache cache = nullptr;
    if (krb5_init_context(&context) != 0) {
        return;
    }
    if (krb5_cc_resolve(context, m_cacheName.c_str(), &cache) == 0) {
        krb5_cc_destroy(context, cache);
    }
    krb5_free_context(context);
}

void Ticket::use() const {
    OM_uint32 minor = 0;
    if (GSS_ERROR(gss_krb5_ccache_name(&minor, m_cacheName.c_str(), nullptr))) {
        TESSA_THROW(tessa::IPCException, "the ticket cache cannot be chosen");
    }
}

Kerberos::Stamp Kerberos::stamp() const {
    struct stat status {};
    if (::stat(m_keytab.c_str(), &status) != 0) {
        return {};
    }
    return {status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

std::shared_ptr<const Ticket> Kerberos::ticket() {
    const tessa::Lock lock(m_mutex);
    const Stamp now = stamp();
    const std::time_t time = std::time(nullptr);
    // While a keytab is missing (being written anew, perhaps) the tickets at hand still serve.
    const bool same = m_stamp == now || now == Stamp();
    if (m_ticket && same && time < m_ticket->end() - RENEW_BEFORE_END) {
        return m_ticket;
    }
    if (m_refusedStamp == now && std::chrono::steady_clock::now() < m_refusedUntil) {
        TESSA_THROW(tessa::IPCException, m_refusal);
    }
    m_ticket.reset();
    requireKeytab(m_keytab);
    Session session;
    const std::string what = "no ticket for '" + m_principal + "' with keytab '" + m_keytab + "'";
    krb5_error_code code = krb5_parse_name(session.get(), m_principal.c_str(), &session.principal);
    if (code == 0) {
        code = krb5_kt_resolve(session.get(), ("FILE:" + m_keytab).c_str(), &session.keytab);
    }
    if (code == 0) {
        code = krb5_get_init_creds_keytab(session.get(), &session.credentials, session.principal,
                                          session.keytab, 0, nullptr, nullptr);
        session.hasCredentials = code == 0;
    }
    if (code != 0) {
        const std::string text = describe(session, code, what);
        if (isRefusal(code)) {
            m_refusal = text;
            m_refusedStamp = now;
            m_refusedUntil = std::chrono::steady_clock::now() + PAUSE_AFTER_REFUSAL;
        }
        TESSA_THROW(tessa::IPCException, text);
    }
    m_ticket = store(session);
    m_stamp = now;
    return m_ticket;
}

void Kerberos::check() {
    requireKeytab(m_keytab);
    ticket();
}

void Kerberos::forget(const std::shared_ptr<const Ticket>& ticket) {
    const tessa::Lock lock(m_mutex);
    if (m_ticket == ticket) {
        m_ticket.reset();
    }
}

bool isClockFailure(const std::string& text) {
    const auto has = [&](const char* part) { return text.find(part) != std::string::npos; };
    return has("Clock skew") || has("clock skew") || has("not yet valid");
}

std::string kerberosAdvice(const std::string& text) {
    const auto has = [&](const char* part) { return text.find(part) != std::string::npos; };
    if (isClockFailure(text)) {
        return "the clocks of this machine and of the domain differ by too much: set them by one "
               "time source";
    }
    if (has("Server not found")) {
        return "the domain has no service name for that host: name controllers as the domain does, "
               "in full";
    }
    if (has("Cannot contact any KDC") || has("Cannot find KDC")) {
        return "no key distribution centre answers: look at DNS, the network and /etc/krb5.conf";
    }
    if (has("No worthy mechs") || has("Unknown authentication method")) {
        return "the GSSAPI module of the SASL library is missing on this machine";
    }
    return "";
}

} // namespace quorad::ldap
