#pragma once

#include <karst/ADObject.h>
#include <karst/LocalRpcSession.h>

#include <memory>
#include <string>
#include <vector>

namespace quorad {

struct SearchRequest {
    std::string domain; ///< DNS domain or server name whose directory is asked
    std::string filter; ///< RFC 4515
    std::string base;   ///< DN, or "<GUID=...>"
    std::vector<std::string> attributes;
    int scope = tessa::SCOPE_ONE_LEVEL;
    unsigned sizeLimit = 0; ///< 0: none
    bool allAttributes = false;
};

/// A running search or enumeration. Holds what it needs to go on; memory is bounded by a page.
/// One thread at a time.
template <typename Item> class Cursor {
public:
    virtual ~Cursor() = default;
    /// Appends up to `limit` items.
    /// @return false when there are no more after these
    virtual bool nextPage(std::vector<Item>& items, std::size_t limit) = 0;
};
using ObjectCursor = Cursor<tessa::ADObject>;
using UserCursor = Cursor<tessa::UserRecord>;
using GroupCursor = Cursor<tessa::GroupRecord>;

/// A directory behind the service: the embedded LDIF directory, or a domain through LDAP.
///
/// Every object carries "_dn", "_server" (lower-cased name of the server that answered) and
/// "objectGUID". All operations are thread-safe and throw
///  - tessa::NotFoundException: no such object (or search base);
///  - tessa::BadDataException: malformed DN, GUID or filter;
///  - tessa::IPCException: the directory cannot be asked now; never an empty success instead.
class Directory {
public:
    virtual ~Directory() = default;

    /// One object by DN or "<GUID=...>"; "" is the root object with "highestCommittedUSN".
    virtual tessa::ADObject fetch(const std::string& domain, const std::string& dn,
                                  const std::vector<std::string>& attributes,
                                  bool allAttributes) = 0;
    /// An entry search with a lower bound on usnchanged also delivers the objects that were deleted
    /// from (or moved out of) the base in that range: their "cn" begins with the byte 0x01.
    virtual std::unique_ptr<ObjectCursor> search(const SearchRequest& request) = 0;

    /// Users and groups in the order of their names (byte order).
    virtual std::unique_ptr<UserCursor> users(unsigned flags) = 0;
    virtual std::unique_ptr<GroupCursor> groups(unsigned flags) = 0;
    virtual tessa::UserRecord user(const std::string& name) = 0;
    virtual tessa::GroupRecord group(const std::string& name) = 0;

    /// Called about once a second and on SIGHUP: notice changes of the source, keep connections.
    virtual void maintain() = 0;
};

} // namespace quorad
