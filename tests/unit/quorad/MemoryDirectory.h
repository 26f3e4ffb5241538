#pragma once

#include "Directory.h"

#include <karst/Exceptions.h>
#include <karst/Text.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace quorad::testing {

/// Delivers a vector, page by page; can be told to fail.
template <typename Item> class VectorCursor : public Cursor<Item> {
public:
    VectorCursor(std::vector<Item> items, std::atomic<int>& pagesBeforeFailure,
                 std::atomic<int>& openCursors)
        : m_items(std::move(items)), m_pagesBeforeFailure(pagesBeforeFailure),
          m_openCursors(openCursors) {
        ++m_openCursors;
    }
    ~VectorCursor() override { --m_openCursors; }
    VectorCursor(const VectorCursor&) = delete;
    VectorCursor& operator=(const VectorCursor&) = delete;

    bool nextPage(std::vector<Item>& items, std::size_t limit) override {
        if (m_pagesBeforeFailure >= 0 && m_pagesBeforeFailure-- == 0) {
            TESSA_THROW(tessa::IPCException, "controller away in the middle");
        }
        for (std::size_t count = 0; count < limit && m_at < m_items.size(); ++count) {
            items.push_back(m_items[m_at++]);
        }
        return m_at < m_items.size();
    }

private:
    const std::vector<Item> m_items;
    std::size_t m_at = 0;
    std::atomic<int>& m_pagesBeforeFailure;
    std::atomic<int>& m_openCursors;
};

/// A directory that holds what a test puts into it. Every search finds all objects.
class MemoryDirectory : public Directory {
public:
    std::map<std::string, tessa::ADObject> byName; ///< for fetch
    std::vector<tessa::ADObject> objects;          ///< for search
    std::vector<tessa::UserRecord> userRecords;
    std::vector<tessa::GroupRecord> groupRecords;
    std::atomic<bool> away{false};
    std::atomic<int> pagesBeforeFailure{-1}; ///< -1: cursors never fail
    std::atomic<int> openCursors{0};
    std::atomic<int> maintained{0};
    SearchRequest lastSearch;
    std::vector<std::string> lastAttributes;
    unsigned lastFlags = 0;

    tessa::ADObject fetch(const std::string&, const std::string& dn,
                          const std::vector<std::string>& attributes, bool) override {
        refuseWhenAway();
        lastAttributes = attributes;
        const auto found = byName.find(dn);
        if (found == byName.end()) {
            TESSA_THROW(tessa::NotFoundException, "there is no '" + dn + "'");
        }
        return found->second;
    }
    std::unique_ptr<ObjectCursor> search(const SearchRequest& request) override {
        refuseWhenAway();
        if (request.filter == "(") {
            TESSA_THROW(tessa::BadDataException, "malformed filter '('");
        }
        lastSearch = request;
        return cursor(objects);
    }
    std::unique_ptr<UserCursor> users(unsigned flags) override {
        refuseWhenAway();
        lastFlags = flags;
        return cursor(userRecords);
    }
    std::unique_ptr<GroupCursor> groups(unsigned flags) override {
        refuseWhenAway();
        lastFlags = flags;
        return cursor(groupRecords);
    }
    tessa::UserRecord user(const std::string& name) override { return one(userRecords, name); }
    tessa::GroupRecord group(const std::string& name) override { return one(groupRecords, name); }
    void maintain() override {
        ++maintained;
        refuseWhenAway();
    }

private:
    void refuseWhenAway() const {
        if (away) {
            TESSA_THROW(tessa::IPCException, "controller away");
        }
    }
    template <typename Item> std::unique_ptr<Cursor<Item>> cursor(const std::vector<Item>& items) {
        return std::make_unique<VectorCursor<Item>>(items, pagesBeforeFailure, openCursors);
    }
    template <typename Item> Item one(const std::vector<Item>& items, const std::string& name) {
        refuseWhenAway();
        for (const Item& item : items) {
            if (item.name == name) {
                return item;
            }
        }
        TESSA_THROW(tessa::NotFoundException, "there is no account '" + name + "'");
    }
};

} // namespace quorad::testing
