#pragma once

#include "IndexReader.h"
#include "Sqlite.h"

#include <karst/Mutex.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace quorad::ldif {

/// The database file that holds the objects of an LDIF file in a form to be searched, with what
/// must survive a restart: GUIDs, update sequence numbers and deletions.
///
/// Tables:
///  - node: the tree of names, each row a component below its parent. A row with a GUID is an
///    object; one without is only a part of other names.
///  - account: of the nodes, those that are users and groups with numbers.
///  - tombstone: objects that are no longer where they were.
///  - meta: single values (see Meta).
///
/// There is one writer at a time; readers see the state of the last commit meanwhile. Update
/// sequence numbers begin with the time, so that they rise even when the file is lost. Thread-safe.
class Index : public std::enable_shared_from_this<Index> {
public:
    /// Gives the reader back when it ends.
    struct Return {
        std::shared_ptr<Index> index;
        void operator()(IndexReader* reader) const;
    };
    using Lease = std::unique_ptr<IndexReader, Return>;

    /// Opens the file after a check of its structure, or makes an empty one.
    /// @throws sqlite::Damaged, tessa::DBException, tessa::SystemException
    explicit Index(std::string path);
    /// Removes the file and what belongs to it. Those who have it open keep what they have.
    /// @throws tessa::SystemException
    static void remove(const std::string& path);

    /// A connection to read with, for one thread at a time.
    Lease reader();
    /// A connection to write with.
    std::unique_ptr<sqlite::Database> writer();
    /// Moves what the writer has committed from the log into the file, as far as readers let it.
    static void settle(sqlite::Database& writer);

    /// Somebody has met damage: the index must be made anew.
    void reportDamage() { m_damaged = true; }
    bool damaged() const { return m_damaged; }

private:
    void create();
    void verify();

    const std::string m_path;
    std::atomic<bool> m_damaged{false};
    tessa::Mutex m_mutex;
    std::vector<std::unique_ptr<IndexReader>> m_idle KARST_GUARDED_BY(m_mutex);
};

/// Names of single values.
namespace meta {
inline constexpr const char* COUNTER = "counter"; ///< the highest sequence number in use
inline constexpr const char* NEXT_ID = "nextid";  ///< of the table node
inline constexpr const char* SERVER = "server";   ///< lower-cased
inline constexpr const char* ROOT = "root";       ///< packed root object
inline constexpr const char* SOURCE = "source";   ///< path and identity of the file that was loaded
} // namespace meta

} // namespace quorad::ldif
