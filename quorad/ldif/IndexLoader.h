#pragma once

#include "../Accounts.h"
#include "Body.h"
#include "LdifReader.h"
#include "Sqlite.h"

#include <karst/Logger.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quorad::ldif {

/// What a load did.
struct LoadSummary {
    std::size_t objects = 0;
    std::size_t added = 0;
    std::size_t changed = 0;
    std::size_t deleted = 0;
};

/// Brings the index to what a file says, record by record, within a transaction of the caller.
///
/// An object keeps its GUID by its name, or, when the file states GUIDs, wherever it goes. Every
/// new or changed object gets the next sequence number; one that is gone, or has left its
/// container, is kept as a tombstone there. Memory does not grow with the file but for one bit an
/// object.
class IndexLoader {
public:
    /// Tombstones are kept for so long, and at most so many: who refreshes less often than that has
    /// to read everything again.
    static constexpr std::int64_t TOMBSTONE_SECONDS = 60 * 86400;
    static constexpr std::int64_t MAX_TOMBSTONES = 1'000'000;

    /// @param now seconds since 1970
    IndexLoader(sqlite::Database& writer, std::int64_t now);

    /// @throws tessa::BadDataException saying what is wrong with the record
    void add(const LdifRecord& record);
    bool hasObjects() const { return m_summary.objects > 0; }
    /// Call it when all records were added.
    /// @param source names the file in the index
    LoadSummary finish(const std::string& source);
    /// Warnings about objects that are in the directory but not of use; to be logged when the
    /// transaction has been committed.
    const std::vector<std::string>& warnings() const { return m_warnings; }

private:
    struct Stored {
        std::int64_t id = 0;
        bool isObject = false;
        std::string guid;
        std::int64_t usn = 0;
        std::string body;
    };
    struct Parent {
        std::string text; ///< as written; the next record's is likely to be the same
        std::int64_t node = 0;
        bool known = false;
    };

    void addRoot(const LdifRecord& record);
    void collect(const LdifRecord& record, std::string_view component);
    void addNamingAttribute(std::string_view component);
    std::int64_t parentNode(std::string_view dn, unsigned depth);
    std::int64_t makeNode(std::int64_t parent, std::string_view component);
    bool findNode(std::int64_t parent, std::string_view component, Stored& stored);
    static bool isMarked(const std::vector<bool>& marks, std::int64_t id);
    void mark(std::vector<bool>& marks, std::int64_t id) const;

    void place(const LdifRecord& record, std::int64_t parent, Stored& stored);
    void takeFromElsewhere(std::int64_t id, std::string_view guid);
    void store(const LdifRecord& record, std::int64_t parent, Stored& stored);
    void storeAccount(std::int64_t id, std::string_view guid, std::string_view dn);
    std::string freshGuid();
    std::int64_t nextUsn() { return ++m_counter; }
    std::int64_t usnOfRecord();

    void bury(std::int64_t id);
    void entomb(std::int64_t id);
    void removeVanished();
    void pruneTombstones();
    void pruneNodes();
    void warnOfOrphans();
    void warnOfDuplicates(AccountKind kind, const char* column, const char* what);
    void warn(std::string text);
    void writeMeta(const char* name, std::int64_t value);
    void writeMeta(const char* name, std::string_view value);

    sqlite::Database& m_database;
    const std::int64_t m_now;
    LoadSummary m_summary;
    std::vector<std::string> m_warnings;
    std::size_t m_moreWarnings = 0;
    std::int64_t m_counter = 0;
    std::int64_t m_nextId = 0;
    bool m_accountsChanged = false;

    std::vector<bool> m_seen;   ///< by node: has a record
    std::vector<bool> m_stated; ///< by node: the record has a GUID
    Parent m_parent;
    bool m_hasRoot = false;
    std::string m_server;
    std::string m_root;
    std::string m_guidPrefix;

    // Of the record in hand.
    Stored m_stored;
    std::vector<NameAndValue> m_attributes;
    std::string m_body;
    std::string m_component; ///< normalised
    std::string m_namingValue;
    std::string_view m_fileGuid;
    std::int64_t m_fileUsn = 0;
    bool m_mayBeAccount = false;

    sqlite::Statement m_find;
    sqlite::Statement m_findGuid;
    sqlite::Statement m_row;
    sqlite::Statement m_insert;
    sqlite::Statement m_update;
    sqlite::Statement m_strip;
    sqlite::Statement m_identify;
    sqlite::Statement m_bury;
    sqlite::Statement m_unbury;
    sqlite::Statement m_insertAccount;
    sqlite::Statement m_deleteAccount;
    sqlite::Statement m_setMeta;
};

} // namespace quorad::ldif
