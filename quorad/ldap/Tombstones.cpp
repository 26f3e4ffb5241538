#include "Tombstones.h"

#include "../Reporter.h"

#include <karst/Exceptions.h>
#include <karst/Guid.h>

namespace quorad::ldap {

namespace {

constexpr std::chrono::seconds KEPT(60);
constexpr char DELETED_MARK = '\x01';

} // namespace

Tombstones::Tombstones() : m_logger(tessa::Logger::get(LOGGER_NAME)) {}

std::string Tombstones::container(const std::string& namingContext) {
    return "CN=Deleted Objects," + namingContext;
}

bool Tombstones::readable(Query& query) {
    const std::string server = query.server();
    {
        const tessa::Lock lock(m_mutex);
        const auto found = m_findings.find(server);
        if (found != m_findings.end() &&
            std::chrono::steady_clock::now() - found->second.time < KEPT) {
            return found->second.readable;
        }
    }
    std::vector<tessa::ADObject> objects;
    SearchOptions options;
    options.showDeleted = true;
    options.sizeLimit = 1;
    try {
        query.start(container(query.connection().root().namingContext), "(lastKnownParent=*)",
                    {"lastKnownParent"}, options);
        query.nextPage(objects);
    } catch (const tessa::NotFoundException&) { // NOLINT: hidden altogether
    } catch (const Refused& e) {
        KARST_LOG(m_logger, tessa::LOG_DEBUGGING, "Deleted objects: %s", e.what());
    }
    const bool readable =
        !objects.empty() && objects.front().attributeExists("lastKnownParent", true);
    const tessa::Lock lock(m_mutex);
    const bool isNew = m_findings.count(server) == 0 || m_findings[server].readable != readable;
    m_findings[server] = {readable, std::chrono::steady_clock::now()};
    if (isNew) {
        KARST_LOG(m_logger, tessa::LOG_INFORMATION, "%s",
                  readable ? ("Deleted objects can be read on " + server).c_str()
                           : ("No deleted object can be read on " + server +
                              ": deletions are found by comparing what the maps hold")
                                 .c_str());
    }
    return readable;
}

tessa::ADObject Tombstones::goneObject(const std::string& server, const std::string& guid,
                                       std::int64_t usn) {
    const tessa::Guid id = tessa::Guid::fromBytes(guid);
    tessa::ADObject object;
    object.set("_dn", id.toDN());
    object.set("_server", server);
    object.set("objectGUID", guid);
    object.set("cn", DELETED_MARK + id.toString());
    object.set("isDeleted", std::string("TRUE"));
    object.set("uSNChanged", std::to_string(usn));
    return object;
}

tessa::ADObject Tombstones::deletedObject(const tessa::ADObject& tombstone) {
    tessa::ADObject object = tombstone;
    const std::string name = tombstone["cn"];
    object.set("cn", DELETED_MARK + name.substr(0, name.find('\n')));
    return object;
}

} // namespace quorad::ldap
