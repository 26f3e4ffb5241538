#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace test {

/// A real directory client daemon (quorad, on an LDIF file) for tests that run in a private
/// namespace: it writes the configuration and the directory, starts the program, and stops it by
/// its process id. One at a time, since the daemon's paths are fixed. One thread at a time.
///
/// The directory holds the zone "zoneA" of DC=example,DC=com, whose server is dc1.example.com.
class TestDirectory {
public:
    static constexpr const char* ZONE = "CN=zoneA,CN=Zones,DC=example,DC=com";
    static constexpr const char* DOMAIN_NAME = "example.com";
    static constexpr const char* SERVER = "dc1.example.com";

    /// Writes the directory and starts the daemon; returns once it answers. Throws
    /// std::runtime_error when it does not.
    /// @param ldif the directory's text; see the builders below
    /// @param zone DN of the machine's zone
    explicit TestDirectory(const std::string& ldif, const std::string& zone = ZONE);
    ~TestDirectory();
    TestDirectory(const TestDirectory&) = delete;
    TestDirectory& operator=(const TestDirectory&) = delete;

    /// Puts another directory in place; returns once the highest committed USN has moved.
    void replace(const std::string& ldif);
    /// Puts another directory in place without waiting, for texts that change nothing.
    static void write(const std::string& ldif);
    /// Ends the daemon; calls to it then fail until start().
    void stop();
    /// Starts the daemon again on the directory as it is.
    void start();
    pid_t pid() const { return m_pid; }

    static std::int64_t highestCommittedUSN();

    // Builders of LDIF text. A zone, a map and an entry live in their parent's container.
    /// Root object, domain, the containers of zones and users, the zone and its map container.
    /// @param nisDomain of the zone; empty: not set
    static std::string base(const std::string& server = SERVER, const std::string& zone = ZONE,
                            const std::string& nisDomain = "");
    static std::string container(const std::string& dn);
    static std::string map(const std::string& name, const std::string& zone = ZONE);
    /// @param cn name of the object, unique in its map
    static std::string entry(const std::string& map, const std::string& cn, const std::string& key,
                             const std::string& value, const std::string& zone = ZONE);
    static std::string user(const std::string& name, unsigned uid, unsigned gid,
                            const std::string& extraAttributes = "");
    /// @param members names of users
    static std::string group(const std::string& name, unsigned gid,
                             const std::vector<std::string>& members);

private:
    pid_t m_pid = -1;
};

} // namespace test
