#include "support/TestDirectory.h"

#include <karst/DN.h>
#include <karst/Exceptions.h>
#include <karst/LocalRpcSession.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test {

namespace {

constexpr const char* CONFIG = "/etc/velmorix/velmorix.conf";
constexpr const char* LDIF = "/etc/velmorix/directory.ldif";
constexpr std::chrono::seconds PATIENCE{60};

void writeFile(const std::string& path, const std::string& text) {
    // In place of the old one in one step, so that a half-written directory is never read.
    const std::string fresh = path + ".new";
    {
        std::ofstream file(fresh, std::ios::binary | std::ios::trunc);
        file << text;
        if (!file.flush()) {
            throw std::runtime_error("cannot write " + fresh);
        }
    }
    std::filesystem::rename(fresh, path);
}

/// Calls `done` until it says true.
template <typename Done> void waitFor(const char* what, const Done& done) {
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error(std::string("timed out: ") + what);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

/// "name: value", in base64 where plain text would not come back the same.
std::string attribute(const std::string& name, const std::string& value) {
    const bool plain =
        value.find_first_not_of(
            " !\"#$%&'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_`"
            "abcdefghijklmnopqrstuvwxyz{|}~") == std::string::npos &&
        (value.empty() || (std::strchr(" :<", value.front()) == nullptr && value.back() != ' '));
    if (plain) {
        return name + ": " + value + "\n";
    }
    static constexpr const char* DIGITS =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string encoded;
    for (std::size_t i = 0; i < value.size(); i += 3) {
        const std::size_t count = std::min<std::size_t>(3, value.size() - i);
        unsigned group = 0;
        for (std::size_t j = 0; j < 3; ++j) {
            group = group << 8 | (j < count ? static_cast<unsigned char>(value[i + j]) : 0U);
        }
        for (std::size_t j = 0; j < 4; ++j) {
            encoded += j <= count ? DIGITS[group >> (18 - 6 * j) & 0x3f] : '=';
        }
    }
    return name + ":: " + encoded + "\n";
}

std::string object(const std::string& dn, const std::string& attributes) {
    return "dn: " + dn + "\n" + attributes + "\n";
}

std::string domainOf(const std::string& zone) {
    return zone.substr(zone.find("DC="));
}

} // namespace

TestDirectory::TestDirectory(const std::string& ldif, const std::string& zone) {
    // The daemon's data, so that one test does not see the objects of the one before.
    std::filesystem::remove_all("/var/velmorix");
    std::filesystem::create_directories("/var/velmorix");
    writeFile(CONFIG,
              "quorad.directory: ldif:" + std::string(LDIF) + "\nquorad.zone: " + zone + "\n");
    writeFile(LDIF, ldif);
    start();
}

TestDirectory::~TestDirectory() {
    stop();
}

void TestDirectory::start() {
    m_pid = ::fork();
    if (m_pid < 0) {
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    }
    if (m_pid == 0) {
        // Its messages would drown those of the test.
        const int log = ::open("/var/velmorix/quorad.log", O_WRONLY | O_CREAT | O_APPEND, 0600);
        ::dup2(log, STDOUT_FILENO);
        ::dup2(log, STDERR_FILENO);
        ::execl(QUORAD_PROGRAM, "quorad", "-d", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    waitFor("quorad answers", [this] {
        int status = 0;
        if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = -1;
            throw std::runtime_error("quorad ended at once");
        }
        try {
            highestCommittedUSN();
            return true;
        } catch (const tessa::TESSAException&) {
            return false;
        }
    });
}

void TestDirectory::stop() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGTERM);
        ::waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
}

void TestDirectory::write(const std::string& ldif) {
    writeFile(LDIF, ldif);
}

void TestDirectory::replace(const std::string& ldif) {
    const std::int64_t before = highestCommittedUSN();
    writeFile(LDIF, ldif);
    ::kill(m_pid, SIGHUP); // look at once instead of within a second
    waitFor("the directory changes", [before] { return highestCommittedUSN() > before; });
}

std::int64_t TestDirectory::highestCommittedUSN() {
    tessa::LocalRpcSession session(tessa::QUORAD_SOCKET, false, true);
    return session.ldapFetch(DOMAIN_NAME, "", {"highestCommittedUSN"}, false)["highestCommittedUSN"]
        .asInt64()
        .value();
}

std::string TestDirectory::base(const std::string& server, const std::string& zone,
                                const std::string& nisDomain) {
    const std::string domain = domainOf(zone);
    std::string ldif = "version: 1\n\n" + object("", "dnsHostName: " + server + "\n");
    ldif += object(domain, "objectClass: domainDNS\n");
    ldif += container("CN=Zones," + domain) + container("CN=Users," + domain);
    ldif +=
        object(zone, "objectClass: container\n" +
                         (nisDomain.empty() ? "" : "extensionName: nisdomain=" + nisDomain + "\n"));
    return ldif + container("CN=nismaps," + zone);
}

std::string TestDirectory::container(const std::string& dn) {
    return object(dn, "objectClass: container\n");
}

std::string TestDirectory::map(const std::string& name, const std::string& zone) {
    return container("CN=" + name + ",CN=nismaps," + zone);
}

std::string TestDirectory::entry(const std::string& map, const std::string& cn,
                                 const std::string& key, const std::string& value,
                                 const std::string& zone) {
    return object("CN=" + tessa::DN::escape(cn) + ",CN=" + map + ",CN=nismaps," + zone,
                  "objectClass: container\n" + attribute("description", key) +
                      attribute("adminDescription", value));
}

std::string TestDirectory::user(const std::string& name, unsigned uid, unsigned gid,
                                const std::string& extraAttributes) {
    return object("CN=" + name + ",CN=Users,DC=example,DC=com",
                  "objectClass: top\nobjectClass: person\nobjectClass: user\nobjectCategory: "
                  "person\nsAMAccountName: " +
                      name + "\nuidNumber: " + std::to_string(uid) +
                      "\ngidNumber: " + std::to_string(gid) + "\ngecos: User " + name +
                      "\nunixHomeDirectory: /home/" + name + "\nloginShell: /bin/bash\n" +
                      extraAttributes);
}

std::string TestDirectory::group(const std::string& name, unsigned gid,
                                 const std::vector<std::string>& members) {
    std::string attributes = "objectClass: group\nsAMAccountName: " + name +
                             "\ngidNumber: " + std::to_string(gid) + "\n";
    for (const std::string& member : members) {
        attributes += "member: CN=" + member + ",CN=Users,DC=example,DC=com\n";
    }
    return object("CN=" + name + ",CN=Users,DC=example,DC=com", attributes);
}

} // namespace test
