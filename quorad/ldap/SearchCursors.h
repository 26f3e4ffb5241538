#pragma once

#include "../Directory.h"
#include "Query.h"
#include "Tombstones.h"

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quorad::ldap {

/// A search that is passed on to the controller as it is. Attributes of which the controller
/// delivers a part are completed one object at a time.
class PlainCursor : public ObjectCursor {
public:
    /// Reads the first page.
    PlainCursor(Controllers& controllers, const SearchRequest& request,
                Controllers::Deadline deadline);
    bool nextPage(std::vector<tessa::ADObject>& items, std::size_t limit) override;

private:
    void readPage();
    void complete(tessa::ADObject& object);

    Query m_query;
    const std::vector<std::string> m_attributes; ///< asked for
    std::deque<tessa::ADObject> m_ready;
    bool m_more = true;
};

/// Bounds of a search for the entries of a map, as the client sees numbers.
struct EntryRange {
    std::int64_t lower = 0;
    std::int64_t upper = 0;
    bool hasLower = false;
    bool hasUpper = false;
};

/// A search for the entries of a map by the numbers of their changes. With a lower bound it also
/// finds what is not in the map any more, before the entries, since keys may have passed on:
///  - changed objects of the domain, the deleted ones among them, are looked up among those that
///    clients know, and taken for gone where they lie elsewhere now;
///  - where deleted objects cannot be read, or only from time to time where they can, what the map
///    holds is compared with what clients know;
///  - deleted objects name the map they were in, and are delivered whether they are known or not.
/// All of it is asked of one controller over one connection. A call works for a limited time and
/// may deliver nothing yet.
class EntryCursor : public ObjectCursor {
public:
    EntryCursor(Controllers& controllers, Store& store, Tombstones& tombstones,
                const SearchRequest& request, const EntryRange& range,
                Controllers::Deadline deadline);
    bool nextPage(std::vector<tessa::ADObject>& items, std::size_t limit) override;

private:
    enum class Phase { MOVES, COMPARE, GONE, DELETED, ENTRIES, DONE };

    void prepare();
    void step();
    void begin(Phase phase);
    void moves();
    void compare();
    void finishCompare();
    void gone();
    void deleted();
    void entries();
    bool compareIsDue();
    std::int64_t own(std::int64_t presented) const;

    Controllers& m_controllers;
    Store& m_store;
    Tombstones& m_tombstones;
    const SearchRequest m_request;
    const EntryRange m_range;
    Query m_query;
    std::string m_baseDn; ///< as the controller writes it
    TrackedBase m_base;
    RootObject m_root; ///< when the search began
    bool m_readable = false;
    Phase m_phase = Phase::ENTRIES;
    std::int64_t m_mark = 0;
    std::optional<GuidRuns> m_present; ///< while comparing
    std::string m_lastGone;
    std::deque<tessa::ADObject> m_ready;
    std::size_t m_left;
};

} // namespace quorad::ldap
