#pragma once

#include "../ldif/Sqlite.h"
#include "GuidRuns.h"

#include <karst/Mutex.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quorad::ldap {

/// One life of a controller's database. After it was restored from a backup its sequence numbers
/// begin again at lower ones: from then on those that clients see are `shift` higher than its own,
/// so that they go on rising and everything counts as changed.
struct Epoch {
    std::int64_t number = 0;
    std::int64_t shift = 0;
};

/// A container whose objects are kept track of, as one server has it.
struct TrackedBase {
    std::int64_t id = 0;
    std::int64_t epoch = -1;   ///< in which it was read completely; -1: never
    std::int64_t compared = 0; ///< when the last comparison was made, seconds since 1970
    std::int64_t comparedUsn = 0;
    std::int64_t count = 0; ///< objects known
};

/// What is known of a server.
struct ServerState {
    bool known = false;
    Epoch epoch;
    std::int64_t usn = 0; ///< the highest own number that was seen
};

/// An object that is not in its container any more.
struct GoneObject {
    std::string guid;
    std::int64_t usn = 0; ///< as clients see it; when that was noticed
};

/// What must survive a restart to find what was deleted or moved: which objects clients were told
/// of, by server and container. A database file in the state directory; a damaged one is replaced
/// by an empty one, with a warning. Sequence numbers are those that clients see unless said
/// otherwise. Thread-safe.
///
/// Operations throw tessa::IPCException when the file cannot be read or written.
class Store {
public:
    static constexpr const char* FILE_NAME = "ldap.db";

    /// @param discard begin with an empty one
    /// @throws tessa::SystemException when it cannot be made
    Store(std::string path, bool discard);
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    /// The folder of the file: there is room for others.
    const std::string& folder() const { return m_folder; }

    /// The epoch of a server that now shows this identity and sequence number of its own. A number
    /// below the one that it had, or another identity, begins a new epoch.
    /// @param invocation empty: not known, which is no other identity
    /// @param before what state() said before the server was asked for either: what others learn
    ///        meanwhile, who ask it later, proves nothing
    /// @param begun set when it did
    Epoch epoch(const std::string& server, const std::string& invocation, std::int64_t ownUsn,
                const ServerState& before, bool& begun);
    ServerState state(const std::string& server);

    /// The server showed this number of its own; lower ones than before change nothing.
    void raiseUsn(const std::string& server, std::int64_t ownUsn);

    TrackedBase base(const std::string& server, const std::string& dn);
    /// Clients are told that these are in the container.
    void add(const TrackedBase& base, const std::vector<std::string>& guids);
    /// The same for many: written down as they come, and put in their places later.
    void addMany(const TrackedBase& base, const std::vector<std::string>& guids);
    /// The whole container has been read, from this number on.
    void setRead(const TrackedBase& base, std::int64_t epoch, std::int64_t usn);
    /// A mark for compare(): what is added later does not count as missing.
    std::int64_t mark();
    /// Takes those of the container that were known at the mark and are not among the present ones
    /// for gone.
    /// @param present ready to be read
    /// @return how many are gone
    std::size_t compare(const TrackedBase& base, std::int64_t epoch, std::int64_t usn,
                        std::int64_t mark, GuidRuns& present);
    /// Where objects lie now: each is gone from every other container of the server.
    struct Place {
        std::string guid;
        std::string parent;
    };
    void setPlaces(const std::string& server, const std::vector<Place>& places, std::int64_t usn);
    /// Objects that are gone from the container, from that number on, in the order of their GUIDs.
    /// @param after GUID of the last one that the caller has
    std::vector<GoneObject> gone(const TrackedBase& base, std::int64_t fromUsn,
                                 const std::string& after, std::size_t limit);
    /// Which of the objects are gone from the container, from that number on.
    std::vector<bool> areGone(const TrackedBase& base, std::int64_t fromUsn,
                              const std::vector<std::string>& guids);

    /// How far changes were looked through for moved objects, as an own number in this epoch.
    std::int64_t movesSeen(const std::string& server, const Epoch& epoch, std::int64_t otherwise);
    void setMovesSeen(const std::string& server, const Epoch& epoch, std::int64_t ownUsn);
    /// Lets changes from that number on be looked through again.
    void lowerMovesSeen(const std::string& server, const Epoch& epoch, std::int64_t ownUsn);

private:
    struct Statements;

    void open(bool discard);
    void create();
    void close();
    template <typename Work> auto guarded(Work work);

    const std::string m_path;
    const std::string m_folder;
    tessa::Mutex m_mutex;
    std::unique_ptr<sqlite::Database> m_database KARST_GUARDED_BY(m_mutex);
    std::unique_ptr<Statements> m_statements KARST_GUARDED_BY(m_mutex);
};

} // namespace quorad::ldap
