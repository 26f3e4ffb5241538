#include "Settings.h"

#include "../Backend.h"

#include <karst/DN.h>
#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <fstream>

#include <sys/stat.h>
#include <unistd.h>

namespace quorad::ldap {

namespace {

constexpr unsigned LDAP_PORT = 389;
constexpr unsigned LDAPS_PORT = 636;
constexpr const char* DEFAULT_KEYTAB = "/etc/krb5.keytab";
constexpr const char* DEFAULT_CA_FILE = "/etc/ssl/certs/ca-certificates.crt";
constexpr std::size_t MACHINE_NAME = 15; // bytes of an account name, without its "$"
constexpr std::size_t MAX_PASSWORD = 1024;

[[noreturn]] void refuse(const std::string& key, const std::string& value,
                         const std::string& what) {
    TESSA_THROW(tessa::BadDataException, key + ": '" + value + "': " + what);
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char c) {
        return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    });
    return text;
}

bool takePrefix(std::string_view& text, std::string_view prefix) {
    if (!tessa::equalsIgnoreCase(text.substr(0, prefix.size()), prefix)) {
        return false;
    }
    text.remove_prefix(prefix.size());
    return true;
}

bool isHostName(std::string_view name) {
    return !name.empty() && name.front() != '.' && name.front() != '-' &&
           std::all_of(name.begin(), name.end(), [](unsigned char c) {
               return std::isalnum(c) != 0 || c == '.' || c == '-' || c == '_';
           });
}

Endpoint endpointOf(const std::string& word) {
    Endpoint endpoint;
    std::string_view rest(word);
    endpoint.tls = takePrefix(rest, "ldaps://");
    if (!endpoint.tls && !takePrefix(rest, "ldap://")) {
        refuse(PROP_DIRECTORY, word, "is neither 'ldap:', 'ldap://HOST' nor 'ldaps://HOST'");
    }
    endpoint.port = endpoint.tls ? LDAPS_PORT : LDAP_PORT;
    if (!rest.empty() && rest.back() == '/') {
        rest.remove_suffix(1);
    }
    const std::size_t colon = rest.rfind(':');
    if (colon != std::string_view::npos) {
        const std::string_view port = rest.substr(colon + 1);
        const bool digits = !port.empty() && std::all_of(port.begin(), port.end(), [](char c) {
            return c >= '0' && c <= '9';
        });
        endpoint.port = tessa::atoui(port);
        if (!digits || endpoint.port == 0 || endpoint.port > 65535) {
            refuse(PROP_DIRECTORY, word, "the port must be a number from 1 to 65535");
        }
        rest = rest.substr(0, colon);
    }
    if (!isHostName(rest)) {
        refuse(PROP_DIRECTORY, word, "a host name must follow the '//'");
    }
    endpoint.host = tessa::lower(rest);
    return endpoint;
}

void readServers(const tessa::Properties& configuration, Settings& settings) {
    const auto words = configuration.getList(PROP_DIRECTORY);
    if (words.size() == 1 && (tessa::equalsIgnoreCase(words.front(), "ldap:") ||
                              tessa::equalsIgnoreCase(words.front(), "ldaps:"))) {
        settings.discoverTls = tessa::equalsIgnoreCase(words.front(), "ldaps:");
        return;
    }
    for (const std::string& word : words) {
        settings.servers.push_back(endpointOf(word));
    }
}

std::string machineName(const tessa::Properties& configuration) {
    std::string name = configuration.get(PROP_HOST_NAME);
    if (name.empty()) {
        std::array<char, 256> buffer{};
        if (::gethostname(buffer.data(), buffer.size() - 1) != 0) {
            TESSA_THROW(tessa::SystemException, "gethostname failed: " + tessa::errorText(errno));
        }
        name = buffer.data();
    }
    return name;
}

// The domain of the zone is that of the machine; a machine without a zone has its own name only.
std::string readDomain(const tessa::Properties& configuration) {
    std::string domain = configuration.get(PROP_DOMAIN);
    if (domain.empty()) {
        domain = tessa::DN::domainFromDN(configuration.get(PROP_ZONE));
    }
    if (domain.empty()) {
        const std::string name = machineName(configuration);
        const std::size_t point = name.find('.');
        domain = point == std::string::npos ? "" : name.substr(point + 1);
    }
    if (!domain.empty() && domain.back() == '.') {
        domain.pop_back();
    }
    if (!isHostName(domain)) {
        refuse(PROP_DOMAIN, domain,
               "the DNS domain of the directory is needed, here or in the DC components of "
               "quorad.zone");
    }
    return tessa::lower(domain);
}

std::chrono::seconds readTime(const tessa::Properties& configuration, const char* key,
                              long fallback, long least, long most) {
    const long value = configuration.getTime(key, fallback);
    if (value < least || value > most) {
        refuse(key, configuration.get(key),
               "the time must lie between " + std::to_string(least) + " and " +
                   std::to_string(most) + " seconds");
    }
    return std::chrono::seconds(value);
}

// Orrisd waits 30 seconds for an object and 120 for a page: the limits leave room for a second
// controller.
void readLimits(const tessa::Properties& configuration, Settings& settings) {
    constexpr long DAY = 24L * 3600;
    settings.connectTimeout = readTime(configuration, PROP_CONNECT_TIMEOUT, 5, 1, 10);
    settings.timeout = readTime(configuration, PROP_TIMEOUT, 8, 1, 10);
    settings.searchTimeout = readTime(configuration, PROP_SEARCH_TIMEOUT, 80, 1, 85);
    settings.compareInterval = readTime(configuration, PROP_COMPARE_INTERVAL, 600, 0, 30 * DAY);
    settings.failbackInterval = readTime(configuration, PROP_FAILBACK_INTERVAL, 900, 1, 30 * DAY);
    if (configuration.exists(PROP_PAGE_SIZE)) {
        const std::string text = configuration.get(PROP_PAGE_SIZE);
        settings.pageSize = tessa::atoui(text);
        if (std::to_string(settings.pageSize) != text || settings.pageSize == 0 ||
            settings.pageSize > 10000) {
            refuse(PROP_PAGE_SIZE, text, "the size must be a number from 1 to 10000");
        }
    }
}

std::string defaultPrincipal(const tessa::Properties& configuration, const std::string& domain) {
    std::string name = machineName(configuration);
    name = upper(name.substr(0, name.find('.')));
    return name.substr(0, MACHINE_NAME) + "$@" + upper(domain);
}

void readAuthentication(const tessa::Properties& configuration, Settings& settings) {
    const std::string method = tessa::lower(configuration.get(PROP_AUTH, "gssapi"));
    if (method == "gssapi") {
        settings.keytab = configuration.get(PROP_KEYTAB, DEFAULT_KEYTAB);
        settings.principal = configuration.get(PROP_PRINCIPAL);
        if (settings.principal.empty()) {
            settings.principal = defaultPrincipal(configuration, settings.domain);
        } else if (settings.principal.find('@') == std::string::npos) {
            settings.principal += "@" + upper(settings.domain);
        }
        if (settings.keytab.empty() || settings.keytab.front() != '/') {
            refuse(PROP_KEYTAB, settings.keytab, "an absolute path is needed");
        }
        return;
    }
    if (method != "simple") {
        refuse(PROP_AUTH, method, "is neither 'gssapi' nor 'simple'");
    }
    settings.authentication = Authentication::SIMPLE;
    settings.bindDn = configuration.get(PROP_BIND_DN);
    settings.passwordFile = configuration.get(PROP_PASSWORD_FILE);
    if (settings.bindDn.empty()) {
        refuse(PROP_BIND_DN, "", "a simple bind needs the name to bind as");
    }
    if (settings.passwordFile.empty() || settings.passwordFile.front() != '/') {
        refuse(PROP_PASSWORD_FILE, settings.passwordFile,
               "a simple bind needs the absolute path of the file that holds the password");
    }
    const bool allTls = settings.servers.empty()
                            ? settings.discoverTls
                            : std::all_of(settings.servers.begin(), settings.servers.end(),
                                          [](const Endpoint& endpoint) { return endpoint.tls; });
    if (!settings.startTls && !allTls) {
        refuse(PROP_AUTH, method,
               "would send the password over a clear connection: set quorad.ldap.starttls to yes "
               "or use ldaps://");
    }
    settings.password();
}

} // namespace

std::string Endpoint::uri() const {
    return (tls ? "ldaps://" : "ldap://") + host + ":" + std::to_string(port);
}

bool Settings::isLdap(const std::string& source) {
    const auto words = tessa::split(source, " \t,");
    return !words.empty() && (tessa::equalsIgnoreCase(words.front().substr(0, 5), "ldap:") ||
                              tessa::equalsIgnoreCase(words.front().substr(0, 6), "ldaps:"));
}

Settings Settings::parse(const tessa::Properties& configuration) {
    Settings settings;
    readServers(configuration, settings);
    settings.domain = readDomain(configuration);
    settings.startTls = configuration.getBool(PROP_START_TLS, false);
    settings.caFile = configuration.get(PROP_CA_FILE, DEFAULT_CA_FILE);
    readLimits(configuration, settings);
    readAuthentication(configuration, settings);
    return settings;
}

void requirePrivateFile(const std::string& path, const std::string& what) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        TESSA_THROW(tessa::BadDataException,
                    what + " '" + path + "' cannot be read: " + tessa::errorText(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        TESSA_THROW(tessa::BadDataException, what + " '" + path + "' is not a regular file");
    }
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        TESSA_THROW(tessa::BadDataException,
                    what + " '" + path + "' is open to others than its owner and is not used: " +
                        "chmod 600 it, and think of the secret in it as known");
    }
    if (status.st_uid != 0 && status.st_uid != ::geteuid()) {
        TESSA_THROW(tessa::BadDataException, what + " '" + path + "' must belong to root");
    }
}

std::string Settings::password() const {
    requirePrivateFile(passwordFile, "password file");
    std::ifstream file(passwordFile, std::ios::binary);
    std::string text(MAX_PASSWORD + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > MAX_PASSWORD) {
        TESSA_THROW(tessa::BadDataException,
                    "password file '" + passwordFile + "' is longer than a password can be");
    }
    text.resize(std::min(text.find('\n'), text.size()));
    if (!text.empty() && text.back() == '\r') {
        text.pop_back();
    }
    if (text.empty()) {
        TESSA_THROW(tessa::BadDataException,
                    "password file '" + passwordFile + "' has no password in its first line");
    }
    return text;
}

} // namespace quorad::ldap
