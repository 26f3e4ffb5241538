#pragma once

#include "Directory.h"
#include "Zones.h"
#include "ldap/Settings.h"

#include <karst/Mutex.h>
#include <karst/Properties.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace quorad {

/// Where what must survive a restart is kept.
inline constexpr const char* STATE_DIRECTORY = "/var/velmorix/quorad";

inline constexpr const char* PROP_DIRECTORY = "quorad.directory";
inline constexpr const char* PROP_ZONE = "quorad.zone";
inline constexpr const char* PROP_HOST_NAME = "quorad.hostname";
inline constexpr const char* PROP_SOCKET_ALLOW = "quorad.socket.allow";
inline constexpr const char* PROP_CORE_DUMPS = "quorad.coredumps";
inline constexpr const char* DEFAULT_DIRECTORY = "ldif:/etc/velmorix/directory.ldif";

/// The directory and the machine's place in it, as one configuration names them. Whoever works with
/// it holds it: after a change of the configuration running searches go on in the old one.
struct Backend {
    std::string source; ///< value of quorad.directory
    std::string zone;
    std::string hostName;
    std::optional<ldap::Settings> settings; ///< of a domain; none for a file
    std::shared_ptr<Directory> directory;
    std::unique_ptr<Zones> zones; ///< uses the directory
};

/// The back end of the configuration in force. Thread-safe.
class CurrentBackend {
public:
    explicit CurrentBackend(std::shared_ptr<Backend> backend) : m_backend(std::move(backend)) {}
    std::shared_ptr<Backend> get() const {
        const tessa::Lock lock(m_mutex);
        return m_backend;
    }
    void set(std::shared_ptr<Backend> backend) {
        const tessa::Lock lock(m_mutex);
        m_backend = std::move(backend);
    }

private:
    mutable tessa::Mutex m_mutex;
    std::shared_ptr<Backend> m_backend KARST_GUARDED_BY(m_mutex);
};

/// Looks at what a configuration says about the directory and the zone.
/// @throws tessa::BadDataException when there can be no such directory or zone
void checkConfiguration(const tessa::Properties& configuration);

/// Makes the back end that a configuration names. A directory that cannot be asked at this moment
/// is no error.
/// @param previous back end in force, whose directory is kept when the configuration still names
/// it;
///        may be null
/// @param discardState begin without what was kept on disk
/// @throws tessa::BadDataException as checkConfiguration; tessa::TESSAException when the
/// directory's
///         state cannot be kept
std::shared_ptr<Backend> makeBackend(const tessa::Properties& configuration,
                                     const std::string& stateDirectory,
                                     const std::shared_ptr<Backend>& previous, bool discardState);

} // namespace quorad
