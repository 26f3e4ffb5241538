#pragma once

#include <karst/Mutex.h>

#include <set>
#include <string>
#include <vector>

#include <sys/types.h>

namespace quorad {

/// Who may talk to the service: root, the daemon's own user, and the users that the configuration
/// names. Thread-safe.
class SocketAllow {
public:
    /// Replaces the users.
    /// @param users names, or numbers; those that this machine does not know are reported at
    /// warning
    ///        level and left out
    void set(const std::vector<std::string>& users);
    bool permits(uid_t uid) const;
    /// Mode that the socket needs: open to all when somebody besides root may come, because then
    /// permits() decides.
    unsigned socketMode() const;

private:
    mutable tessa::Mutex m_mutex;
    std::set<uid_t> m_users KARST_GUARDED_BY(m_mutex);
};

} // namespace quorad
