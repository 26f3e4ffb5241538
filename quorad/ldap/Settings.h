#pragma once

#include <karst/Properties.h>

#include <chrono>
#include <string>
#include <vector>

namespace quorad::ldap {

inline constexpr const char* PROP_DOMAIN = "quorad.domain";
inline constexpr const char* PROP_AUTH = "quorad.ldap.auth";
inline constexpr const char* PROP_KEYTAB = "quorad.ldap.keytab";
inline constexpr const char* PROP_PRINCIPAL = "quorad.ldap.principal";
inline constexpr const char* PROP_BIND_DN = "quorad.ldap.bind.dn";
inline constexpr const char* PROP_PASSWORD_FILE = "quorad.ldap.password.file";
inline constexpr const char* PROP_START_TLS = "quorad.ldap.starttls";
inline constexpr const char* PROP_CA_FILE = "quorad.ldap.tls.cacert";
inline constexpr const char* PROP_CONNECT_TIMEOUT = "quorad.ldap.connect.timeout";
inline constexpr const char* PROP_TIMEOUT = "quorad.ldap.timeout";
inline constexpr const char* PROP_SEARCH_TIMEOUT = "quorad.ldap.search.timeout";
inline constexpr const char* PROP_PAGE_SIZE = "quorad.ldap.page.size";
inline constexpr const char* PROP_COMPARE_INTERVAL = "quorad.ldap.compare.interval";
inline constexpr const char* PROP_FAILBACK_INTERVAL = "quorad.ldap.failback.interval";

/// Where a domain controller listens.
struct Endpoint {
    std::string host;
    unsigned port = 389;
    bool tls = false; ///< from the first byte on

    /// "ldap://dc1.example.com:389"
    std::string uri() const;
    friend bool operator==(const Endpoint&, const Endpoint&) = default;
};

enum class Authentication { GSSAPI, SIMPLE };

/// What the configuration says about a domain and the way to its controllers. A value type.
struct Settings {
    std::vector<Endpoint> servers; ///< in the order of preference; none: found through DNS
    bool discoverTls = false;      ///< those found through DNS are asked on the TLS port
    std::string domain;            ///< DNS name, lower-case
    Authentication authentication = Authentication::GSSAPI;
    std::string keytab;
    std::string principal; ///< "HOST$@REALM"
    std::string bindDn;
    std::string passwordFile;
    bool startTls = false;
    std::string caFile; ///< certificates of authorities that are trusted
    std::chrono::seconds connectTimeout{5};
    std::chrono::seconds timeout{8};         ///< one question and its answer
    std::chrono::seconds searchTimeout{80};  ///< one page of a search
    std::chrono::seconds compareInterval{};  ///< between two comparisons of what a map holds
    std::chrono::seconds failbackInterval{}; ///< before a preferred controller is asked again
    unsigned pageSize = 1000;

    friend bool operator==(const Settings&, const Settings&) = default;

    /// Whether a value of quorad.directory names a domain rather than a file.
    static bool isLdap(const std::string& source);
    /// @throws tessa::BadDataException that names the key and what is wrong with its value
    static Settings parse(const tessa::Properties& configuration);
    /// Contents of the password file without the end of its line.
    /// @throws tessa::BadDataException when it cannot be read, or others than root can read it
    std::string password() const;
};

/// @throws tessa::BadDataException unless the file is a regular one that only its owner, who is
///         root or the caller, can read. A missing file is one that cannot be read.
void requirePrivateFile(const std::string& path, const std::string& what);

} // namespace quorad::ldap
