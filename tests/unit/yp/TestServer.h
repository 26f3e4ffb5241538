#pragma once

#include "common/NisException.h"
#include "server/NisServer.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace test {

/// A server of the domain "company" whose maps are ordered containers in memory. `fail`, when set,
/// is called first by every operation.
class TestServer : public nis::NisServer {
public:
    using Map = std::map<std::string, std::string>;

    std::map<std::string, Map> maps;
    std::function<void()> fail;
    /// Called before a whole-map iterator delivers the entry with that index.
    std::function<void(unsigned)> atEntry;
    mutable int iteratorsAlive = 0;
    /// How many entries behind the current one a whole-map iterator has in memory.
    std::size_t inMemory = 0;

    bool isDomainSupported(const char* domain) const override {
        begin();
        check(domain != nullptr, "domain argument is zero");
        return std::string(domain) == "company";
    }
    nis::MapEntry match(const char* domain, const char* map,
                        const std::string& key) const override {
        const Map& entries = find(domain, map);
        const auto entry = entries.find(key);
        if (entry == entries.end()) {
            NIS_THROW(nis::UnknownKey, key);
        }
        return {entry->first, entry->second};
    }
    nis::MapEntry getFirst(const char* domain, const char* map) const override {
        const Map& entries = find(domain, map);
        return at(entries, entries.begin());
    }
    nis::MapEntry getNext(const char* domain, const char* map,
                          const std::string& key) const override {
        const Map& entries = find(domain, map);
        const auto entry = entries.find(key);
        if (entry == entries.end()) {
            NIS_THROW(nis::UnknownKey, key);
        }
        return at(entries, std::next(entry));
    }
    boost::shared_ptr<nis::MapIterator> getAll(const char* domain, const char* map) const override {
        return boost::make_shared<Iterator>(*this, find(domain, map), map);
    }
    std::string getMaster(const char* domain, const char* map) const override {
        find(domain, map);
        return "master.example.com";
    }
    std::uint32_t getOrder(const char* domain, const char* map) const override {
        find(domain, map);
        return 4'000'000'000U;
    }
    nis::MapNames getMapList(const char* domain) const override {
        begin();
        check(domain != nullptr, "domain argument is zero");
        checkDomain(domain);
        auto names = boost::make_shared<std::vector<std::string>>();
        for (const auto& map : maps) {
            names->push_back(map.first);
        }
        return names;
    }

private:
    class Iterator : public nis::MapIterator {
    public:
        Iterator(const TestServer& server, const Map& entries, std::string name)
            : m_server(server), m_entries(entries), m_current(entries.begin()),
              m_name(std::move(name)) {
            ++m_server.iteratorsAlive;
        }
        ~Iterator() override { --m_server.iteratorsAlive; }
        nis::MapIterator& operator++() override {
            if (m_current != m_entries.end()) {
                ++m_current;
                ++m_index;
            }
            return *this;
        }
        nis::MapEntry operator*() override {
            if (m_server.atEntry) {
                m_server.atEntry(m_index);
            }
            return at(m_entries, m_current);
        }
        std::string getMapName() const override { return m_name; }
        std::size_t peek(std::span<View> entries) noexcept override {
            std::size_t count = 0;
            for (auto place = m_current; place != m_entries.end() && ++place != m_entries.end() &&
                                         count < std::min(entries.size(), m_server.inMemory);
                 ++count) {
                entries[count] = {place->first, place->second};
            }
            return count;
        }
        void skipTo(const View& entry) noexcept override {
            while (m_current->first.data() != entry.key.data()) {
                ++*this;
            }
        }

    private:
        const TestServer& m_server;
        const Map& m_entries;
        Map::const_iterator m_current;
        std::string m_name;
        unsigned m_index = 0;
    };

    static nis::MapEntry at(const Map& entries, Map::const_iterator place) {
        return place == entries.end() ? nis::MapEntry::NOT_FOUND
                                      : nis::MapEntry{place->first, place->second};
    }
    static void check(bool condition, const char* message) {
        if (!condition) {
            NIS_THROW(nis::ZeroPointer, message);
        }
    }
    static void checkDomain(const char* domain) {
        if (std::string(domain) != "company") {
            NIS_THROW(nis::WrongDomain, domain);
        }
    }
    void begin() const {
        if (fail) {
            fail();
        }
    }
    const Map& find(const char* domain, const char* map) const {
        begin();
        check(domain != nullptr, "domain argument is zero");
        check(map != nullptr, "map argument is zero");
        checkDomain(domain);
        const auto found = maps.find(map);
        if (found == maps.end()) {
            NIS_THROW(nis::UnknownMap, map);
        }
        return found->second;
    }
};

} // namespace test
