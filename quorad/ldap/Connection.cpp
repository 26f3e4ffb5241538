// Making a connection. What is asked over it is in ConnectionCalls.cpp and PagedSearch.cpp.
#include "Connection.h"

#include <karst/Text.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include <sasl/sasl.h>

namespace quorad::ldap {

namespace {

constexpr int KEEPALIVE_IDLE = 10; // seconds, of a connection over which nothing is said
constexpr int KEEPALIVE_PROBES = 3;
constexpr int KEEPALIVE_INTERVAL = 5;

// Nothing is asked of a person: the mechanism finds what it needs in the ticket cache.
int answerSasl(LDAP* /*ldap*/, unsigned /*flags*/, void* /*defaults*/, void* questions) {
    for (auto* question = static_cast<sasl_interact_t*>(questions);
         question->id != SASL_CB_LIST_END; ++question) {
        question->result = question->defresult != nullptr ? question->defresult : "";
        question->len =
            static_cast<unsigned>(std::strlen(static_cast<const char*>(question->result)));
    }
    return LDAP_SUCCESS;
}

timeval toTimeval(std::chrono::seconds time) {
    return {static_cast<std::time_t>(time.count()), 0};
}

bool isNumericAddress(const std::string& host) {
    return host.find_first_not_of("0123456789.") == std::string::npos;
}

// "20261121143000.0Z"
std::time_t generalizedTime(const std::string& text) {
    std::tm time{};
    const char* const end = ::strptime(text.c_str(), "%Y%m%d%H%M%S", &time);
    return end == nullptr ? 0 : ::timegm(&time);
}

} // namespace

Connection::Connection(const Settings& settings, const Endpoint& endpoint, Kerberos* kerberos)
    : m_settings(settings), m_endpoint(endpoint), m_made(std::chrono::steady_clock::now()) {
    const int code = ::ldap_initialize(&m_ldap, endpoint.uri().c_str());
    if (code != LDAP_SUCCESS) {
        TESSA_THROW(ConnectionLost, endpoint.uri() + ": " + ::ldap_err2string(code));
    }
    try {
        setOptions();
        if (m_settings.startTls && !m_endpoint.tls) {
            startTls();
        }
        // Before any secret is sent, and before Kerberos is asked: whether somebody is there, and
        // what time it is there.
        m_root = readRoot();
        bind(kerberos);
        m_root = readRoot();
    } catch (...) {
        ::ldap_unbind_ext(m_ldap, nullptr, nullptr);
        throw;
    }
}

Connection::~Connection() {
    ::ldap_unbind_ext(m_ldap, nullptr, nullptr);
}

std::chrono::seconds Connection::age() const {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() -
                                                            m_made);
}

// Whatever ldap.conf and the environment say: these hold.
void Connection::setOptions() {
    const auto set = [this](int option, const void* value, const char* name) {
        if (::ldap_set_option(m_ldap, option, value) != LDAP_OPT_SUCCESS) {
            TESSA_THROW(ConnectionLost,
                        m_endpoint.uri() + ": the LDAP library refuses the option " + name);
        }
    };
    const auto number = [&](int option, int value, const char* name) { set(option, &value, name); };
    number(LDAP_OPT_PROTOCOL_VERSION, LDAP_VERSION3, "protocol version");
    set(LDAP_OPT_REFERRALS, LDAP_OPT_OFF, "referrals");
    number(LDAP_OPT_DEREF, LDAP_DEREF_NEVER, "aliases");
    const timeval connecting = toTimeval(m_settings.connectTimeout);
    set(LDAP_OPT_NETWORK_TIMEOUT, &connecting, "network time limit");
    const timeval asking = toTimeval(m_settings.timeout);
    set(LDAP_OPT_TIMEOUT, &asking, "time limit");
    number(LDAP_OPT_X_KEEPALIVE_IDLE, KEEPALIVE_IDLE, "keepalive idle time");
    number(LDAP_OPT_X_KEEPALIVE_PROBES, KEEPALIVE_PROBES, "keepalive probes");
    number(LDAP_OPT_X_KEEPALIVE_INTERVAL, KEEPALIVE_INTERVAL, "keepalive interval");
    const unsigned userTimeout = static_cast<unsigned>(m_settings.timeout.count()) * 1000U;
    set(LDAP_OPT_TCP_USER_TIMEOUT, &userTimeout, "TCP time limit");
    set(LDAP_OPT_X_SASL_NOCANON, LDAP_OPT_ON, "host names as they are");
    number(LDAP_OPT_X_TLS_REQUIRE_CERT, LDAP_OPT_X_TLS_HARD, "certificate check");
    number(LDAP_OPT_X_TLS_PROTOCOL_MIN, LDAP_OPT_X_TLS_PROTOCOL_TLS1_2, "TLS version");
    if (m_endpoint.tls || m_settings.startTls) {
        set(LDAP_OPT_X_TLS_CACERTFILE, m_settings.caFile.c_str(), "trusted certificates");
        number(LDAP_OPT_X_TLS_NEWCTX, 0,
               ("trusted certificates (is '" + m_settings.caFile + "' readable?)").c_str());
    }
}

void Connection::startTls() {
    const int code = ::ldap_start_tls_s(m_ldap, nullptr, nullptr);
    if (code != LDAP_SUCCESS) {
        const std::string text = diagnostic(code);
        TESSA_THROW(ConnectionLost, m_endpoint.uri() + ": StartTLS failed: " + text +
                                        "; the certificate must name the host and be signed by an "
                                        "authority in '" +
                                        m_settings.caFile + "'");
    }
}

void Connection::bind(Kerberos* kerberos) {
    if (m_settings.authentication == Authentication::SIMPLE) {
        bindSimple();
    } else {
        bindSasl(*kerberos);
    }
}

void Connection::bindSimple() {
    std::string password;
    try {
        password = m_settings.password();
    } catch (const tessa::BadDataException& e) {
        QUORAD_REFUSED(e.message(), LDAP_INVALID_CREDENTIALS);
    }
    berval credentials{};
    credentials.bv_len = password.size();
    credentials.bv_val = password.data();
    int message = 0;
    const int code = ::ldap_sasl_bind(m_ldap, m_settings.bindDn.c_str(), LDAP_SASL_SIMPLE,
                                      &credentials, nullptr, nullptr, &message);
    ::explicit_bzero(password.data(), password.size());
    const std::string what = "bind as '" + m_settings.bindDn + "'";
    requireSent(code, what);
    finishBind(message, what);
}

void Connection::finishBind(int message, const std::string& what) {
    try {
        finish(message, what);
    } catch (const Refused& e) {
        if (e.code() == LDAP_INVALID_CREDENTIALS) {
            QUORAD_REFUSED(e.message() + "; look at the name and the password, and whether the "
                                         "account is enabled",
                           e.code());
        }
        throw;
    }
}

std::shared_ptr<const Ticket> Connection::ticketOf(Kerberos& kerberos) const {
    try {
        return kerberos.ticket();
    } catch (const tessa::IPCException& e) {
        TESSA_THROW(tessa::IPCException, e.message() + clockNote(e.message()));
    }
}

// Which clock is ahead, for messages about clocks. In minutes: the text must stay the same while
// nothing changes.
std::string Connection::clockNote(const std::string& failure) const {
    constexpr long MINUTE = 60;
    const long seconds = m_root.time - std::time(nullptr);
    const long minutes = (std::labs(seconds) + MINUTE / 2) / MINUTE;
    if (!isClockFailure(failure) || m_root.time == 0 || minutes == 0) {
        return "";
    }
    return " (that of " + m_root.server + " is " + std::to_string(minutes) + " minutes " +
           (seconds > 0 ? "ahead" : "behind") + ")";
}

void Connection::bindSasl(Kerberos& kerberos) {
    const auto ticket = ticketOf(kerberos);
    ticket->use();
    const std::string what = "bind as '" + m_settings.principal + "'";
    const bool tls = m_endpoint.tls || m_settings.startTls;
    if (tls) {
        int binding = LDAP_OPT_X_SASL_CBINDING_TLS_ENDPOINT;
        ::ldap_set_option(m_ldap, LDAP_OPT_X_SASL_CBINDING, &binding);
    }
    // Controllers do not seal inside TLS; without it everything is sealed.
    const int code = negotiate(tls ? "minssf=0,maxssf=0" : "minssf=56", what);
    if (code == LDAP_SUCCESS) {
        return;
    }
    kerberos.forget(ticket);
    std::string text = m_endpoint.uri() + ": " + what + ": " + diagnostic(code);
    std::string advice = kerberosAdvice(text);
    if (advice.empty() && isNumericAddress(m_endpoint.host)) {
        advice = "Kerberos needs the controller's name, not its address";
    }
    if (code == LDAP_STRONG_AUTH_REQUIRED && tls) {
        advice = "this controller takes tickets only without TLS, where everything is sealed all "
                 "the same: use ldap:// without StartTLS";
    }
    text += advice.empty() ? "" : "; " + advice + clockNote(text);
    if (code == LDAP_SERVER_DOWN || code == LDAP_TIMEOUT) {
        TESSA_THROW(ConnectionLost, text);
    }
    QUORAD_REFUSED(text, code);
}

// The steps of the mechanism; @return what they ended with.
int Connection::negotiate(const char* properties, const std::string& what) {
    ::ldap_set_option(m_ldap, LDAP_OPT_X_SASL_SECPROPS, properties);
    const auto deadline = std::chrono::steady_clock::now() + m_settings.timeout;
    int code = LDAP_SASL_BIND_IN_PROGRESS;
    LDAPMessage* answer = nullptr;
    const char* mechanism = nullptr;
    int message = 0;
    while (code == LDAP_SASL_BIND_IN_PROGRESS) {
        code = ::ldap_sasl_interactive_bind(m_ldap, nullptr, "GSSAPI", nullptr, nullptr,
                                            LDAP_SASL_QUIET, answerSasl, nullptr, answer,
                                            &mechanism, &message);
        ::ldap_msgfree(answer);
        answer = nullptr;
        if (code == LDAP_SASL_BIND_IN_PROGRESS) {
            answer = await(message, LDAP_MSG_ALL, deadline, what);
        }
    }
    return code;
}

RootObject Connection::readRoot() {
    return toRoot(read("", {"dnsHostName", "defaultNamingContext", "configurationNamingContext",
                            "dsServiceName", "currentTime", "highestCommittedUSN"}));
}

RootObject Connection::toRoot(const tessa::ADObject& object) const {
    RootObject root;
    root.server = tessa::lower(object["dnsHostName"].asString());
    root.namingContext = object["defaultNamingContext"];
    root.configurationContext = object["configurationNamingContext"];
    root.settingsDn = object["dsServiceName"];
    root.time = generalizedTime(object["currentTime"]);
    if (root.server.empty() || root.namingContext.empty()) {
        QUORAD_REFUSED(m_endpoint.uri() + ": this is not a domain controller of Active Directory",
                       LDAP_OTHER);
    }
    try {
        root.usn = object["highestCommittedUSN"].asInt64().value();
    } catch (const tessa::BadDataException& e) {
        QUORAD_REFUSED(m_endpoint.uri() + ": highestCommittedUSN: " + e.message(), LDAP_OTHER);
    }
    return root;
}

} // namespace quorad::ldap
