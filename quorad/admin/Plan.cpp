#include "Plan.h"

#include "EntryNames.h"

#include <karst/Text.h>

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>

namespace quorad::admin {

namespace {

using Index = std::multimap<std::string, const Entry*>;

// Takes the entry out of the index that a text finds, if there is one.
const Entry* take(Index& index, const std::string& text) {
    const auto found = index.find(text);
    if (found == index.end()) {
        return nullptr;
    }
    const Entry* const entry = found->second;
    index.erase(found);
    return entry;
}

std::string identity(const std::string& key, const std::string& value, bool byValue) {
    return byValue ? value : std::to_string(key.size()) + ":" + key + value;
}

std::string excerpt(std::string_view text) {
    constexpr std::size_t MOST = 80;
    return tessa::printable(text.substr(0, MOST)) + (text.size() > MOST ? "..." : "");
}

void nameAdditions(Plan& plan, const std::vector<Entry>& existing) {
    EntryNames names;
    std::vector<std::string> keys;
    keys.reserve(plan.additions.size());
    for (const Entry& entry : existing) {
        names.reserve(entry.name);
    }
    for (const Plan::Addition& addition : plan.additions) {
        keys.push_back(addition.record.key);
    }
    names.announce(keys);
    for (Plan::Addition& addition : plan.additions) {
        addition.name = names.choose(addition.record.key);
    }
}

std::string unstorable(const std::string& what, const std::string& text) {
    if (text.find('\0') != std::string::npos) {
        return what + " has a NUL byte";
    }
    const std::size_t length = characters(text);
    if (length == std::string::npos) {
        return what + " is not UTF-8: convert the file, for instance with iconv -f latin1 -t utf-8";
    }
    if (length > MAX_CHARACTERS) {
        return what + " has " + std::to_string(length) + " characters; the directory keeps " +
               std::to_string(MAX_CHARACTERS) + " at most";
    }
    return "";
}

} // namespace

Plan makePlan(const std::vector<Record>& wanted, const std::vector<Entry>& existing, bool byValue) {
    std::vector<const Entry*> entries;
    entries.reserve(existing.size());
    for (const Entry& entry : existing) {
        entries.push_back(&entry);
    }
    std::sort(entries.begin(), entries.end(), [](const Entry* a, const Entry* b) {
        return std::tie(a->key, a->value, a->dn) < std::tie(b->key, b->value, b->dn);
    });
    std::vector<Record> records(wanted);
    std::stable_sort(records.begin(), records.end(), [](const Record& a, const Record& b) {
        return std::tie(a.key, a.value) < std::tie(b.key, b.value);
    });

    Index exact;
    for (const Entry* entry : entries) {
        if (!entry->ambiguous) {
            exact.emplace(identity(entry->key, entry->value, byValue), entry);
        }
    }
    Plan plan;
    std::vector<const Record*> open;
    for (const Record& record : records) {
        if (take(exact, identity(record.key, record.value, byValue)) != nullptr) {
            ++plan.unchanged;
        } else {
            open.push_back(&record);
        }
    }
    Index left;
    for (const auto& [text, entry] : exact) {
        left.emplace(entry->key, entry);
    }
    for (const Entry* entry : entries) {
        if (entry->ambiguous) {
            left.emplace(entry->key, entry);
        }
    }
    for (const Record* record : open) {
        if (const Entry* entry = take(left, record->key); entry != nullptr) {
            plan.changes.push_back({*entry, *record});
        } else {
            plan.additions.push_back({"", *record});
        }
    }
    for (const auto& [key, entry] : left) {
        plan.removals.push_back(*entry);
    }
    nameAdditions(plan, existing);
    return plan;
}

std::vector<Problem> refuseUnstorable(std::vector<Record>& records) {
    std::vector<Problem> problems;
    const auto refused = [&](const Record& record) {
        std::string text = unstorable("the key", record.key);
        if (text.empty()) {
            text = unstorable("the value", record.value);
        }
        if (record.key.empty()) {
            text = "there is no key";
        }
        if (text.empty()) {
            return false;
        }
        problems.push_back({record.line, "'" + excerpt(record.key) + "': " + text});
        return true;
    };
    records.erase(std::remove_if(records.begin(), records.end(), refused), records.end());
    return problems;
}

std::string describe(const Plan& plan) {
    std::string text;
    for (const Plan::Addition& addition : plan.additions) {
        text += "+ " + excerpt(addition.record.key) + ": " + excerpt(addition.record.value) + "\n";
    }
    for (const Plan::Change& change : plan.changes) {
        text += "~ " + excerpt(change.record.key) + ": " + excerpt(change.entry.value) + " -> " +
                excerpt(change.record.value) + "\n";
    }
    for (const Entry& entry : plan.removals) {
        text += "- " + excerpt(entry.key) + ": " + excerpt(entry.value) + "\n";
    }
    return text;
}

} // namespace quorad::admin
