#include "JoinCheck.h"

#include "Backend.h"
#include "Keytab.h"

#include <karst/DN.h>
#include <karst/Exceptions.h>
#include <karst/LocalRpcSession.h>
#include <karst/Text.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include <arpa/inet.h>
#include <ldap.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace quorad::admin {

namespace {

// What Kerberos forgives (clockskew in krb5.conf), and what is worth a word before that.
constexpr long MAX_SKEW = 300;
constexpr long NOTABLE_SKEW = 30;

// "one, two, three"
std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        if (!text.empty()) {
            text += ", ";
        }
        text += word;
    }
    return text;
}

// Addresses of a host; empty when it has none, with the reason in `why`.
std::string addressesOf(const std::string& host, std::string& why) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (const int code = ::getaddrinfo(host.c_str(), nullptr, &hints, &found); code != 0) {
        why = ::gai_strerror(code);
        return "";
    }
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, &::freeaddrinfo);
    std::vector<std::string> addresses;
    for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
        std::array<char, NI_MAXHOST> text{};
        if (::getnameinfo(one->ai_addr, one->ai_addrlen, text.data(), text.size(), nullptr, 0,
                          NI_NUMERICHOST) == 0) {
            addresses.emplace_back(text.data());
        }
    }
    return joined(addresses);
}

// The clock of a controller, which tells it to anybody; 0 with the reason in `why` when it does
// not.
std::time_t clockOf(const ldap::Settings& settings, const ldap::Endpoint& endpoint,
                    std::string& why) {
    LDAP* handle = nullptr;
    if (::ldap_initialize(&handle, endpoint.uri().c_str()) != LDAP_SUCCESS) {
        why = "malformed address";
        return 0;
    }
    const auto close = [](LDAP* open) { ::ldap_unbind_ext(open, nullptr, nullptr); };
    const std::unique_ptr<LDAP, decltype(close)> owner(handle, close);
    const int version = LDAP_VERSION3;
    const timeval connecting{settings.connectTimeout.count(), 0};
    timeval asking{settings.timeout.count(), 0};
    ::ldap_set_option(handle, LDAP_OPT_PROTOCOL_VERSION, &version);
    ::ldap_set_option(handle, LDAP_OPT_NETWORK_TIMEOUT, &connecting);
    if (endpoint.tls) {
        const int fresh = 0;
        ::ldap_set_option(handle, LDAP_OPT_X_TLS_CACERTFILE, settings.caFile.c_str());
        ::ldap_set_option(handle, LDAP_OPT_X_TLS_NEWCTX, &fresh);
    }
    std::string attribute = "currentTime";
    std::array<char*, 2> attributes{attribute.data(), nullptr};
    LDAPMessage* answer = nullptr;
    const int code =
        ::ldap_search_ext_s(handle, "", LDAP_SCOPE_BASE, "(objectClass=*)", attributes.data(), 0,
                            nullptr, nullptr, &asking, LDAP_NO_LIMIT, &answer);
    const std::unique_ptr<LDAPMessage, decltype(&::ldap_msgfree)> message(answer, &::ldap_msgfree);
    LDAPMessage* const entry = code == LDAP_SUCCESS ? ::ldap_first_entry(handle, answer) : nullptr;
    if (entry == nullptr) {
        why = ::ldap_err2string(code);
        return 0;
    }
    const std::unique_ptr<berval*, decltype(&::ldap_value_free_len)> values(
        ::ldap_get_values_len(handle, entry, attribute.c_str()), &::ldap_value_free_len);
    std::tm time{};
    if (values == nullptr || ::strptime((*values)->bv_val, "%Y%m%d%H%M%S", &time) == nullptr) {
        why = "tells no time";
        return 0;
    }
    return ::timegm(&time);
}

} // namespace

void JoinCheck::add(Verdict verdict, std::string check, std::string text, std::string advice) {
    m_findings.push_back({verdict, std::move(check), std::move(text), std::move(advice)});
}

std::vector<Finding> JoinCheck::run() {
    if (checkConfiguration() && checkDns()) {
        checkHosts();
        checkClocks();
        if (m_settings.authentication == ldap::Authentication::GSSAPI) {
            checkKeytab();
        }
        checkBind();
    }
    checkService();
    return m_findings;
}

bool JoinCheck::checkConfiguration() {
    m_zone = m_configuration.get(PROP_ZONE);
    std::string fault;
    if (m_zone.empty()) {
        fault = std::string(PROP_ZONE) +
                " is not set; it is the distinguished name of this machine's zone";
    } else {
        try {
            quorad::checkConfiguration(m_configuration);
            m_settings = settingsOf(m_configuration, m_login);
        } catch (const tessa::TESSAException& error) {
            fault = error.message();
        }
    }
    if (!fault.empty()) {
        add(Verdict::FAILED, "configuration", fault, "mend /etc/velmorix/velmorix.conf");
        return false;
    }
    add(Verdict::OK, "configuration", "domain " + m_settings.domain + ", zone " + m_zone);
    return true;
}

bool JoinCheck::checkDns() {
    try {
        m_candidates = ldap::Locator::candidates(m_settings);
    } catch (const tessa::TESSAException& error) {
        add(Verdict::FAILED, "controllers", error.message(),
            "let /etc/resolv.conf name the domain's own DNS servers, or list controllers in "
            "quorad.directory");
        return false;
    }
    std::vector<std::string> names;
    names.reserve(m_candidates.size());
    for (const ldap::Candidate& candidate : m_candidates) {
        names.push_back(candidate.endpoint.host);
    }
    add(Verdict::OK, "controllers",
        joined(names) + (m_settings.servers.empty() ? " (found through DNS)" : " (configured)"));
    return true;
}

void JoinCheck::checkHosts() {
    for (const ldap::Candidate& candidate : m_candidates) {
        std::string why;
        const std::string& host = candidate.endpoint.host;
        const std::string addresses = addressesOf(host, why);
        if (addresses.empty()) {
            add(Verdict::FAILED, "address", host + ": " + why,
                "look at DNS; /etc/nsswitch.conf should say 'hosts: files dns' before any nis");
        } else {
            add(Verdict::OK, "address", host + " is " + addresses);
        }
    }
}

Finding JoinCheck::judgeClock(const std::string& host, std::time_t theirs, std::time_t ours) {
    const long difference = static_cast<long>(theirs - ours);
    Finding finding{Verdict::OK, "clock", "", ""};
    finding.text = host + " is " + std::to_string(std::labs(difference)) + " s " +
                   (difference < 0 ? "behind" : "ahead");
    if (std::labs(difference) > NOTABLE_SKEW) {
        const bool tooMuch = std::labs(difference) > MAX_SKEW;
        finding.verdict = tooMuch ? Verdict::FAILED : Verdict::WARNING;
        finding.advice = "set both clocks by one time source; Kerberos refuses more than " +
                         std::to_string(MAX_SKEW) + " s";
    }
    return finding;
}

void JoinCheck::checkClocks() {
    for (const ldap::Candidate& candidate : m_candidates) {
        std::string why;
        const std::string& host = candidate.endpoint.host;
        const std::time_t theirs = clockOf(m_settings, candidate.endpoint, why);
        if (theirs == 0) {
            add(Verdict::FAILED, "connection", candidate.endpoint.uri() + ": " + why,
                "look whether the controller runs and no firewall lies between");
        } else {
            m_findings.push_back(judgeClock(host, theirs, std::time(nullptr)));
        }
    }
}

Finding JoinCheck::judgeKeytab(const std::string& keytab, const std::string& principal,
                               const std::vector<std::string>& principals) {
    if (std::find(principals.begin(), principals.end(), principal) != principals.end()) {
        return {Verdict::OK, "keytab", keytab + " has keys of " + principal, ""};
    }
    return {Verdict::FAILED, "keytab",
            keytab + " has no key of " + principal + ", but of " +
                (principals.empty() ? "nobody" : joined(principals)),
            "join the machine under this name, or set quorad.ldap.principal or quorad.hostname"};
}

void JoinCheck::checkKeytab() {
    try {
        const auto principals = principalsOf(m_settings.keytab);
        ldap::requirePrivateFile(m_settings.keytab, "keytab");
        m_findings.push_back(judgeKeytab(m_settings.keytab, m_settings.principal, principals));
    } catch (const tessa::BadDataException& error) {
        add(Verdict::FAILED, "keytab", error.message(),
            "give the machine account a new password and write a new keytab");
    } catch (const tessa::TESSAException& error) {
        add(Verdict::FAILED, "keytab", m_settings.keytab + ": " + error.message(),
            "join the machine, or put the keytab back");
    }
}

void JoinCheck::checkBind() {
    std::unique_ptr<ldap::Connection> connection;
    std::size_t failed = 0;
    const std::string who = m_settings.authentication == ldap::Authentication::GSSAPI
                                ? m_settings.principal
                                : m_settings.bindDn;
    // Kept until the end: the connection may use its tickets.
    ldap::Kerberos kerberos(m_settings.keytab, m_settings.principal);
    for (const ldap::Candidate& candidate : m_candidates) {
        try {
            auto bound =
                std::make_unique<ldap::Connection>(m_settings, candidate.endpoint, &kerberos);
            add(Verdict::OK, "bind", who + " at " + bound->server());
            connection = connection ? std::move(connection) : std::move(bound);
        } catch (const tessa::TESSAException& error) {
            ++failed;
            add(Verdict::FAILED, "bind", error.message(), "");
        }
    }
    if (!connection) {
        return;
    }
    try {
        checkZone(*connection);
        checkAbove(*connection);
        checkTombstones(*connection);
        checkUsers(*connection);
    } catch (const tessa::TESSAException& error) {
        add(Verdict::FAILED, "directory", error.message(), "try again; see the controller's log");
    }
}

void JoinCheck::checkZone(ldap::Connection& connection) {
    try {
        const tessa::ADObject zone = connection.read(m_zone, {"extensionName"});
        std::string settings;
        for (const std::string& setting : zone["extensionName"].values()) {
            settings += ", " + setting;
        }
        add(Verdict::OK, "zone", m_zone + settings);
    } catch (const tessa::NotFoundException&) {
        add(Verdict::FAILED, "zone", m_zone + " is not there, or this machine may not read it",
            "quorad-admin zone create '" + m_zone + "'");
        return;
    }
    const std::string container = tessa::LDAPBinding::createChild(m_zone, "nismaps");
    try {
        std::vector<tessa::ADObject> maps;
        const auto search =
            connection.search(container, "(objectClass=container)", {"cn"}, ldap::SearchOptions());
        while (search->nextPage(maps)) {
        }
        std::vector<std::string> names;
        names.reserve(maps.size());
        for (const tessa::ADObject& map : maps) {
            names.push_back(map["cn"]);
        }
        add(Verdict::OK, "maps",
            std::to_string(maps.size()) + " in the zone" + (maps.empty() ? "" : ": ") +
                joined(names));
    } catch (const tessa::NotFoundException&) {
        add(Verdict::WARNING, "maps", container + " is not there: users and groups only are served",
            "quorad-admin zone create '" + m_zone + "'");
    }
}

void JoinCheck::checkAbove(ldap::Connection& connection) {
    for (std::string dn = tessa::DN::parent(m_zone); !dn.empty(); dn = tessa::DN::parent(dn)) {
        if (tessa::equalsIgnoreCase(dn.substr(0, dn.find(',')), "CN=Zones")) {
            return;
        }
        try {
            connection.read(dn, {"cn"});
            add(Verdict::OK, "zone above", dn);
        } catch (const tessa::NotFoundException&) {
            add(Verdict::WARNING, "zone above", dn + " cannot be read: its maps are not inherited",
                "let this machine read it");
        }
    }
    add(Verdict::WARNING, "zone above", m_zone + " does not lie in a container CN=Zones",
        "keep zones below CN=Zones, so that it is clear where inheritance ends");
}

void JoinCheck::checkTombstones(ldap::Connection& connection) {
    const std::string dn = "CN=Deleted Objects," + connection.root().namingContext;
    bool readable = false;
    try {
        // Some controllers name the container to everybody, but show its attributes by right only.
        readable = connection.read(dn, {"isDeleted"}, true).attributeExists("isDeleted", true);
    } catch (const tessa::NotFoundException&) {
        readable = false;
    }
    if (readable) {
        add(Verdict::OK, "deleted objects", "readable: deletions are seen at the next refresh");
        return;
    }
    const std::string account = m_settings.principal.substr(0, m_settings.principal.find('@'));
    add(Verdict::WARNING, "deleted objects",
        "not readable: deletions are seen only when maps are compared\n(every " +
            std::to_string(m_settings.compareInterval.count()) +
            " s, quorad.ldap.compare.interval)",
        "on a controller: dsacls \"" + dn + "\" /takeownership\ndsacls \"" + dn + "\" /G DOMAIN\\" +
            (account.empty() ? "ACCOUNT" : account) + ":LCRP");
}

void JoinCheck::checkUsers(ldap::Connection& connection) {
    ldap::SearchOptions one;
    one.scope = LDAP_SCOPE_SUBTREE;
    one.pageSize = 1;
    std::vector<tessa::ADObject> users;
    connection
        .search(connection.root().namingContext,
                "(&(objectCategory=person)(objectClass=user)(uidNumber=*))", {"cn"}, one)
        ->nextPage(users);
    if (users.empty()) {
        add(Verdict::WARNING, "users", "no user with a uidNumber can be seen",
            "give users uidNumber, gidNumber and unixHomeDirectory, or let this machine read them");
    } else {
        add(Verdict::OK, "users", "users with a uidNumber can be seen");
    }
}

void JoinCheck::checkService() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, tessa::QUORAD_SOCKET, sizeof(address.sun_path) - 1);
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool answers =
        descriptor >= 0 &&
        ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    const std::string why = answers ? "" : tessa::errorText(errno);
    if (descriptor >= 0) {
        ::close(descriptor);
    }
    if (answers) {
        add(Verdict::OK, "quorad", "runs and may be asked");
    } else {
        add(Verdict::WARNING, "quorad", std::string(tessa::QUORAD_SOCKET) + ": " + why,
            "systemctl start quorad");
    }
}

} // namespace quorad::admin
