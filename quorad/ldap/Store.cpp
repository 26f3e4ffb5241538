#include "Store.h"

#include "../Reporter.h"
#include "StoreStatements.h"

#include <karst/DN.h>
#include <karst/Exceptions.h>
#include <karst/Logger.h>
#include <karst/Text.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quorad::ldap {

namespace {

constexpr std::int64_t APPLICATION_ID = 0x51564c44; // "QVLD"
constexpr std::int64_t FORMAT = 1;
constexpr std::int64_t KEPT_SECONDS = 90L * 86400; // of servers unseen, and of objects gone

constexpr const char* SCHEMA =
    "CREATE TABLE server(name BLOB PRIMARY KEY, invocation BLOB NOT NULL, usn INTEGER NOT NULL,"
    " epoch INTEGER NOT NULL, shift INTEGER NOT NULL, moves INTEGER NOT NULL,"
    " seen INTEGER NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE base(id INTEGER PRIMARY KEY, server BLOB NOT NULL, dn BLOB NOT NULL,"
    " epoch INTEGER NOT NULL, compared INTEGER NOT NULL, usn INTEGER NOT NULL,"
    " count INTEGER NOT NULL, UNIQUE(server, dn));"
    "CREATE TABLE known(base INTEGER, guid BLOB, mark INTEGER NOT NULL, PRIMARY KEY(base, guid))"
    " WITHOUT ROWID;"
    "CREATE TABLE gone(base INTEGER, guid BLOB, usn INTEGER NOT NULL, time INTEGER NOT NULL,"
    " PRIMARY KEY(base, guid)) WITHOUT ROWID;"
    "CREATE TABLE mark(value INTEGER NOT NULL);"
    "INSERT INTO mark VALUES(1);";

// Objects of large readings in the order in which they came, until they are put in their places:
// GUIDs have no order, so that each would change another page of the file.
constexpr const char* TOLD = "CREATE TABLE IF NOT EXISTS told(base INTEGER NOT NULL,"
                             " guid BLOB NOT NULL, mark INTEGER NOT NULL)";

std::int64_t pragma(sqlite::Database& database, const char* sql) {
    sqlite::Statement statement(database, sql);
    const sqlite::ScopedReset reset(statement);
    return statement.step() ? statement.number(0) : 0;
}

std::string_view toView(const GuidBytes& guid) {
    return {guid.data(), guid.size()};
}

void removeFiles(const std::string& path) {
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
        const std::string name = path + suffix;
        if (::unlink(name.c_str()) != 0 && errno != ENOENT) {
            TESSA_THROW(tessa::SystemException,
                        "cannot remove '" + name + "': " + tessa::errorText(errno));
        }
    }
}

} // namespace

Store::Store(std::string path, bool discard)
    : m_path(std::move(path)), m_folder(m_path.substr(0, m_path.rfind('/'))) {
    const tessa::Lock lock(m_mutex);
    open(discard);
}

Store::~Store() {
    close();
}

void Store::close() {
    const tessa::Lock lock(m_mutex);
    m_statements.reset();
    m_database.reset();
}

void Store::open(bool discard) {
    const tessa::Lock lock(m_mutex);
    struct stat status {};
    const bool exists = ::lstat(m_path.c_str(), &status) == 0;
    if (exists && !discard && S_ISREG(status.st_mode) && status.st_size > 0) {
        try {
            m_database =
                std::make_unique<sqlite::Database>(m_path, sqlite::Database::Access::WRITE);
            sqlite::Statement check(*m_database, "PRAGMA quick_check(1)");
            if (!check.step() || check.bytes(0) != "ok" ||
                pragma(*m_database, "PRAGMA application_id") != APPLICATION_ID ||
                pragma(*m_database, "PRAGMA user_version") != FORMAT) {
                TESSA_THROW(sqlite::Damaged, "'" + m_path + "' is damaged or not ours");
            }
            check.reset();
            m_database->execute(TOLD);
            m_statements = std::make_unique<Statements>(*m_database);
        } catch (const tessa::DBException& e) {
            const auto logger = tessa::Logger::get(LOGGER_NAME);
            KARST_LOG(
                logger, tessa::LOG_WARN,
                "What was remembered of the maps cannot be used and is made anew: %s. Entries "
                "that were deleted meanwhile may still be served; if so, start orrisd once "
                "with -f",
                e.what());
            m_statements.reset();
            m_database.reset();
        }
    }
    if (m_statements == nullptr) {
        create();
    }
    const std::string old =
        "DELETE FROM gone WHERE time < " + std::to_string(std::time(nullptr) - KEPT_SECONDS) +
        "; DELETE FROM server WHERE seen < " + std::to_string(std::time(nullptr) - KEPT_SECONDS) +
        "; DELETE FROM base WHERE server NOT IN (SELECT name FROM server)"
        "; DELETE FROM known WHERE base NOT IN (SELECT id FROM base)"
        "; DELETE FROM told WHERE base NOT IN (SELECT id FROM base)"
        "; DELETE FROM gone WHERE base NOT IN (SELECT id FROM base)";
    m_database->execute(old.c_str());
}

void Store::create() {
    const tessa::Lock lock(m_mutex);
    removeFiles(m_path);
    const int file = ::open(m_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                            S_IRUSR | S_IWUSR);
    if (file < 0) {
        TESSA_THROW(tessa::SystemException,
                    "cannot create '" + m_path + "': " + tessa::errorText(errno));
    }
    ::close(file);
    m_database = std::make_unique<sqlite::Database>(m_path, sqlite::Database::Access::WRITE);
    m_database->execute("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL");
    sqlite::Transaction transaction(*m_database, "BEGIN IMMEDIATE");
    m_database->execute(SCHEMA);
    m_database->execute(TOLD);
    const std::string marks = "PRAGMA application_id=" + std::to_string(APPLICATION_ID) +
                              "; PRAGMA user_version=" + std::to_string(FORMAT);
    m_database->execute(marks.c_str());
    transaction.commit();
    m_statements = std::make_unique<Statements>(*m_database);
}

// Runs one transaction. A file found damaged is replaced before the next one.
template <typename Work> auto Store::guarded(Work work) {
    const tessa::Lock lock(m_mutex);
    try {
        if (m_statements == nullptr) {
            open(false);
        }
        sqlite::Transaction transaction(*m_database, "BEGIN IMMEDIATE");
        if constexpr (std::is_void_v<decltype(work(*m_statements))>) {
            work(*m_statements);
            transaction.commit();
        } else {
            auto result = work(*m_statements);
            transaction.commit();
            return result;
        }
    } catch (const sqlite::Damaged& e) {
        m_statements.reset();
        m_database.reset();
        TESSA_THROW(tessa::IPCException,
                    std::string("what was remembered of the maps is damaged: ") + e.what());
    } catch (const tessa::DBException& e) {
        TESSA_THROW(tessa::IPCException,
                    std::string("what is known of the maps cannot be kept (disk space low?): ") +
                        e.what());
    }
}

Epoch Store::epoch(const std::string& server, const std::string& invocation, std::int64_t ownUsn,
                   const ServerState& before, bool& begun) {
    return guarded([&](Statements& s) {
        begun = false;
        const std::int64_t now = std::time(nullptr);
        Epoch epoch;
        std::int64_t usn = 0;
        std::string identity;
        s.server.bind(1, server);
        const bool isKnown = s.server.step();
        if (isKnown) {
            usn = s.server.number(1);
            epoch = {s.server.number(2), s.server.number(3)};
            identity = s.server.bytes(0);
            const bool isOther = !identity.empty() && !invocation.empty() && identity != invocation;
            begun = before.known && before.epoch.number == epoch.number &&
                    (ownUsn < before.usn || isOther);
        }
        s.server.reset();
        if (isKnown && !begun) {
            if (ownUsn != usn) {
                s.setUsn.bind(1, ownUsn).bind(2, now).bind(3, server).run();
            }
            if (identity.empty() && !invocation.empty()) {
                s.setIdentity.bind(1, invocation).bind(2, server).run();
            }
            return epoch;
        }
        if (begun) {
            epoch = {epoch.number + 1, epoch.shift + usn};
        }
        s.putServer.bind(1, server).bind(2, invocation).bind(3, ownUsn).bind(4, epoch.number);
        // Nothing is known of this epoch's objects yet: what moved before need not be looked at.
        s.putServer.bind(5, epoch.shift).bind(6, ownUsn).bind(7, now).run();
        return epoch;
    });
}

ServerState Store::state(const std::string& server) {
    return guarded([&](Statements& s) {
        s.server.bind(1, server);
        const sqlite::ScopedReset reset(s.server);
        if (!s.server.step()) {
            return ServerState();
        }
        return ServerState{true, {s.server.number(2), s.server.number(3)}, s.server.number(1)};
    });
}

void Store::raiseUsn(const std::string& server, std::int64_t ownUsn) {
    if (ownUsn > state(server).usn) {
        guarded([&](Statements& s) {
            s.setUsn.bind(1, ownUsn).bind(2, std::int64_t{std::time(nullptr)}).bind(3, server);
            s.setUsn.run();
        });
    }
}

TrackedBase Store::base(const std::string& server, const std::string& dn) {
    const std::string name = tessa::DN::normalize(dn);
    return guarded([&](Statements& s) {
        s.settle();
        for (int attempt = 0;; ++attempt) {
            s.base.bind(1, server).bind(2, name);
            const sqlite::ScopedReset reset(s.base);
            if (s.base.step()) {
                return TrackedBase{s.base.number(0), s.base.number(1), s.base.number(2),
                                   s.base.number(3), s.base.number(4)};
            }
            if (attempt > 0) {
                TESSA_THROW(tessa::DBException, "a new row is not there");
            }
            s.addBase.bind(1, server).bind(2, name).run();
        }
    });
}

void Store::add(const TrackedBase& base, const std::vector<std::string>& guids) {
    if (guids.empty()) {
        return;
    }
    guarded([&](Statements& s) {
        s.settle();
        s.nextMark.run();
        const std::int64_t mark = s.markNow();
        std::int64_t added = 0;
        for (const std::string& guid : guids) {
            added += s.isKnownIn(base.id, guid) ? 0 : 1;
            s.add.bind(1, base.id).bind(2, guid).bind(3, mark).run();
            s.dropGone.bind(1, base.id).bind(2, guid).run();
        }
        s.count.bind(1, added).bind(2, base.id).run();
    });
}

void Store::addMany(const TrackedBase& base, const std::vector<std::string>& guids) {
    guarded([&](Statements& s) {
        s.nextMark.run();
        const std::int64_t mark = s.markNow();
        for (const std::string& guid : guids) {
            s.tell.bind(1, base.id).bind(2, guid).bind(3, mark).run();
        }
    });
}

void Store::setRead(const TrackedBase& base, std::int64_t epoch, std::int64_t usn) {
    guarded([&](Statements& s) {
        s.settle();
        s.setBase.bind(1, epoch).bind(2, std::int64_t{std::time(nullptr)}).bind(3, usn);
        s.setBase.bind(4, base.id).run();
    });
}

std::int64_t Store::mark() {
    return guarded([](Statements& s) { return s.markNow(); });
}

std::size_t Store::compare(const TrackedBase& base, std::int64_t epoch, std::int64_t usn,
                           std::int64_t mark, GuidRuns& present) {
    return guarded([&](Statements& s) {
        s.settle();
        s.nextMark.run();
        const std::int64_t added = s.markNow();
        std::size_t missing = 0;
        std::int64_t fresh = 0;
        GuidBytes there{};
        bool more = present.next(there);
        const auto isPresent = [&] {
            if (!s.isKnownIn(base.id, toView(there))) {
                s.add.bind(1, base.id).bind(2, toView(there)).bind(3, added).run();
                s.dropGone.bind(1, base.id).bind(2, toView(there)).run();
                ++fresh;
            }
            more = present.next(there);
        };
        s.known.bind(1, base.id).bind(2, mark);
        const sqlite::ScopedReset reset(s.known);
        // Both in the same order. What is written meanwhile lies behind the place in the database
        // or is newer than the mark.
        while (s.known.step()) {
            const GuidBytes guid = toBytes(s.known.bytes(0));
            while (more && isBefore(there, guid)) {
                isPresent();
            }
            if (!more || there != guid) {
                s.setGone(base.id, toView(guid), usn);
                ++missing;
            }
            while (more && there == guid) {
                more = present.next(there);
            }
        }
        while (more) {
            isPresent();
        }
        s.count.bind(1, fresh).bind(2, base.id).run();
        s.setBase.bind(1, epoch).bind(2, std::int64_t{std::time(nullptr)}).bind(3, usn);
        s.setBase.bind(4, base.id).run();
        return missing;
    });
}

void Store::setPlaces(const std::string& server, const std::vector<Place>& places,
                      std::int64_t usn) {
    if (places.empty()) {
        return;
    }
    guarded([&](Statements& s) {
        s.settle();
        std::vector<std::pair<std::int64_t, std::string>> bases;
        s.bases.bind(1, server);
        while (s.bases.step()) {
            bases.emplace_back(s.bases.number(0), s.bases.bytes(1));
        }
        for (const Place& place : places) {
            const std::string parent = tessa::DN::normalize(place.parent);
            for (const auto& [id, dn] : bases) {
                if (dn != parent && s.isKnownIn(id, place.guid)) {
                    s.setGone(id, place.guid, usn);
                }
            }
        }
    });
}

std::vector<GoneObject> Store::gone(const TrackedBase& base, std::int64_t fromUsn,
                                    const std::string& after, std::size_t limit) {
    return guarded([&](Statements& s) {
        s.settle();
        std::vector<GoneObject> objects;
        s.gone.bind(1, base.id).bind(2, after).bind(3, fromUsn);
        s.gone.bind(4, static_cast<std::int64_t>(limit));
        while (s.gone.step()) {
            objects.push_back({std::string(s.gone.bytes(0)), s.gone.number(1)});
        }
        return objects;
    });
}

std::vector<bool> Store::areGone(const TrackedBase& base, std::int64_t fromUsn,
                                 const std::vector<std::string>& guids) {
    return guarded([&](Statements& s) {
        s.settle();
        std::vector<bool> found;
        found.reserve(guids.size());
        for (const std::string& guid : guids) {
            s.isGone.bind(1, base.id).bind(2, guid).bind(3, fromUsn);
            const sqlite::ScopedReset reset(s.isGone);
            found.push_back(s.isGone.step());
        }
        return found;
    });
}

std::int64_t Store::movesSeen(const std::string& server, const Epoch& epoch,
                              std::int64_t otherwise) {
    return guarded([&](Statements& s) {
        s.server.bind(1, server);
        const sqlite::ScopedReset reset(s.server);
        return s.server.step() && s.server.number(2) == epoch.number ? s.server.number(4)
                                                                     : otherwise;
    });
}

void Store::setMovesSeen(const std::string& server, const Epoch& epoch, std::int64_t ownUsn) {
    guarded([&](Statements& s) {
        s.setMoves.bind(1, ownUsn).bind(2, server).bind(3, epoch.number).run();
    });
}

void Store::lowerMovesSeen(const std::string& server, const Epoch& epoch, std::int64_t ownUsn) {
    if (ownUsn < movesSeen(server, epoch, ownUsn)) {
        setMovesSeen(server, epoch, ownUsn);
    }
}

} // namespace quorad::ldap
