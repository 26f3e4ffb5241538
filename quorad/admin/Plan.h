#pragma once

#include "Format.h"

#include <string>
#include <string_view>
#include <vector>

namespace quorad::admin {

/// An entry as the directory holds it.
struct Entry {
    std::string dn;
    std::string name; ///< cn
    std::string key;
    std::string value;
    bool ambiguous = false; ///< several keys: clients see the first in byte order
};

/// What an import will do to a map.
struct Plan {
    struct Addition {
        std::string name; ///< cn of the new entry
        Record record;
    };
    struct Change {
        Entry entry;
        Record record;
    };
    std::vector<Addition> additions;
    std::vector<Change> changes;
    std::vector<Entry> removals;
    std::size_t unchanged = 0;

    std::size_t size() const { return additions.size() + changes.size() + removals.size(); }
};

/// Compares what a file wants with what the directory holds. An entry with the wanted key and value
/// stays; one with the key alone gets the new value; the rest is added or removed. The result
/// depends on the contents only, not on their order. Pure.
/// @param byValue an entry with the wanted value stays whatever its key
Plan makePlan(const std::vector<Record>& wanted, const std::vector<Entry>& existing, bool byValue);

/// Keys and values that the directory cannot hold: too long, not UTF-8, or with a NUL byte. Each is
/// named with its line, and taken out of the records.
std::vector<Problem> refuseUnstorable(std::vector<Record>& records);

/// "+ key: value", "~ key: old -> new", "- key: value", one a line, for people. Long values are
/// cut.
std::string describe(const Plan& plan);

} // namespace quorad::admin
