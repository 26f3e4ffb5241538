#pragma once

#include "Query.h"

#include <karst/Logger.h>
#include <karst/Mutex.h>

#include <chrono>
#include <map>
#include <string>

namespace quorad::ldap {

/// Whether the deleted objects of a domain can be read, by server. An account needs a right for
/// that, so it may change. Thread-safe.
class Tombstones {
public:
    Tombstones();

    /// Where they are, below the naming context.
    static std::string container(const std::string& namingContext);
    /// Asks the controller unless that was done a moment ago. Without any deleted object there is
    /// nothing to see, which counts as not readable.
    bool readable(Query& query);

    /// What is left of an object that is not in its map any more.
    static tessa::ADObject goneObject(const std::string& server, const std::string& guid,
                                      std::int64_t usn);
    /// A deleted object as clients are told of it: its "cn" begins with the byte 0x01.
    static tessa::ADObject deletedObject(const tessa::ADObject& tombstone);

private:
    struct Finding {
        bool readable = false;
        std::chrono::steady_clock::time_point time;
    };
    const boost::shared_ptr<tessa::Logger> m_logger;
    tessa::Mutex m_mutex;
    std::map<std::string, Finding> m_findings KARST_GUARDED_BY(m_mutex);
};

} // namespace quorad::ldap
