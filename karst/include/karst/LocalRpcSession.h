#pragma once

#include "karst/ADObject.h"

#include <boost/shared_ptr.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tessa {

/// Where the directory client daemon listens.
inline constexpr const char* QUORAD_SOCKET = "/var/velmorix/daemon";

/// Search scopes (RFC 4511).
enum Scope : int { SCOPE_BASE = 0, SCOPE_ONE_LEVEL = 1, SCOPE_SUBTREE = 2 };

/// System information codes.
inline constexpr int SYSTEM_INFO_ZONE_HIERARCHY = 64;

/// Flags of getUser2 and getGroup2.
inline constexpr unsigned UNIX_ONLY = 0x1;        ///< only accounts that carry POSIX attributes
inline constexpr unsigned GROUP_MEMBERSHIP = 0x2; ///< deliver the member names too
/// Name that asks getUser2 and getGroup2 for the next entry of the running enumeration.
inline constexpr const char* NEXT_ENTRY = "@#";

/// Names of client settings for loadSetting.
inline constexpr const char* SETTING_ZONE_NAME = "zonename"; ///< DN of the machine's zone
inline constexpr const char* SETTING_HOST_NAME = "hostname"; ///< name of the joined computer
inline constexpr const char* SETTING_ZONE_GUID = "zoneguid"; ///< GUID text of the zone object
/// Attribute of a zone object that holds its NIS domain name.
inline constexpr const char* TESSA_ZONE_SFU = "_nisdomain";

/// A user as the directory client delivers it. Time stamps are the directory's: 100-nanosecond
/// units since 1601-01-01.
struct UserRecord {
    std::string name;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::string gecos;
    std::string homeDirectory;
    std::string shell;
    std::string passwordHash; ///< "x" when it is not readable
    std::uint32_t accountControl = 0;
    bool enabled = true;
    std::int64_t passwordTime = 0;    ///< P: compared with passwordExpiry; the controller's now
    std::int64_t passwordExpiry = -1; ///< E: -1 never, 0 must be changed
    std::int64_t accountExpires = 0;  ///< -1, 0 and the largest value: never
};

/// A group with its members' names in a stable sorted order.
struct GroupRecord {
    std::string name;
    std::uint32_t gid = 0;
    std::vector<std::string> members;
};

/// The objects of a search, read as they are asked for: one page travels at a time, so a search of
/// any size needs the memory of one page. Valid as long as the session; one thread at a time.
class ADObjectList {
public:
    virtual ~ADObjectList() = default;
    /// Moves the next object into `object`.
    /// @return false at the end.
    /// @throws what LocalRpcSession's calls throw, when a page cannot be fetched.
    virtual bool next(ADObject& object) = 0;
};

/// Conversation with the directory client daemon over its local socket.
///
/// Connects on the first call and again on the call after a broken connection. Every call has a
/// deadline. One thread at a time. Calls throw:
///  - IOException: the daemon cannot be reached;
///  - IPCException: the call was lost (connection broken, deadline passed) or the daemon answered
///    that the directory could not be asked;
///  - NotFoundException: the object, account or setting does not exist;
///  - EndOfListException: an enumeration has ended;
///  - BadDataException: the request or the answer is malformed.
class LocalRpcSession {
public:
    /// @param socketPath path of the daemon's socket
    /// @param connectNow connect in the constructor instead of on the first call
    /// @param reconnect connect again after a broken connection; without it a broken session stays
    ///        broken
    LocalRpcSession(const std::string& socketPath, bool connectNow, bool reconnect);
    ~LocalRpcSession();
    LocalRpcSession(const LocalRpcSession&) = delete;
    LocalRpcSession& operator=(const LocalRpcSession&) = delete;

    /// How long a call may take: one question (30 s unless set), and a page of a search or an
    /// enumeration (120 s).
    void setDeadlines(std::chrono::milliseconds call, std::chrono::milliseconds page);

    /// One object by its DN ("" is the root object, "<GUID=...>" finds by GUID).
    /// @param domain DNS domain (or server name) whose directory is asked
    /// @param attributes names to deliver; empty: all
    /// @param allAttributes deliver all, whatever `attributes` says
    ADObject ldapFetch(const std::string& domain, const std::string& dn,
                       const std::vector<std::string>& attributes, bool allAttributes);

    /// Objects below `base` that match the filter (RFC 4515).
    /// @param sizeLimit most objects to return, 0: no limit
    /// @param allAttributes as in ldapFetch
    boost::shared_ptr<ADObjectList> ldapSearch(const std::string& domain, const std::string& filter,
                                               const std::string& base,
                                               const std::vector<std::string>& attributes,
                                               int scope, int sizeLimit, bool allAttributes);
    /// The same, following the directory's paging to the end.
    boost::shared_ptr<ADObjectList> ldapPagedSearch(const std::string& domain,
                                                    const std::string& filter,
                                                    const std::string& base,
                                                    const std::vector<std::string>& attributes,
                                                    int scope, int sizeLimit, bool allAttributes);

    /// Code 64: the zone hierarchy, one zone DN a line, the machine's own zone first. Empty when
    /// the daemon knows of none.
    std::string getSystemInfo(int code);
    /// A client setting by its name (SETTING_*).
    std::string loadSetting(const std::string& name);

    void startListUser();
    UserRecord getUser2(const std::string& name, unsigned flags);
    void endListUser();
    /// @param cached may be answered from what the daemon remembers of an enumeration
    void startListGroup(bool cached);
    GroupRecord getGroup2(const std::string& name, unsigned flags);
    void endListGroup();

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

/// Reads a client setting over a short session of its own.
/// @param required throw NotFoundException when it is not set (otherwise: empty text)
/// @param trim drop white space around the value
/// @throws as LocalRpcSession
std::string loadSetting(const std::string& name, bool required, bool trim);

} // namespace tessa
