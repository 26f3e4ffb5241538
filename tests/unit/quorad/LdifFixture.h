#pragma once

#include "ldif/LdifDirectory.h"
#include "support/TempFolder.h"

#include <karst/Exceptions.h>
#include <karst/Guid.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace test {

inline const std::string BASE = "DC=example,DC=com";
inline const std::string MAP = "CN=hosts,CN=nismaps,CN=zoneA,CN=Zones," + BASE;

/// An LDIF file in a folder of its own, with the directory over it.
class LdifFixture : public testing::Test {
protected:
    void SetUp() override {
        addContainer(BASE);
        addContainer("CN=Zones," + BASE);
        addContainer("CN=zoneA,CN=Zones," + BASE);
        addContainer("CN=nismaps,CN=zoneA,CN=Zones," + BASE);
        addContainer(MAP);
        server = "DC1.Example.com";
    }

    /// Record texts by DN, in the order in which they will be written.
    std::vector<std::pair<std::string, std::string>> records;
    std::string server;

    void put(const std::string& dn, const std::string& attributes) {
        for (auto& record : records) {
            if (record.first == dn) {
                record.second = attributes;
                return;
            }
        }
        records.emplace_back(dn, attributes);
    }
    void drop(const std::string& dn) {
        records.erase(std::remove_if(records.begin(), records.end(),
                                     [&](const auto& record) { return record.first == dn; }),
                      records.end());
    }
    void addContainer(const std::string& dn) { put(dn, "objectClass: container\n"); }
    std::string entryName(const std::string& cn) const { return "CN=" + cn + "," + MAP; }
    void entry(const std::string& cn, const std::string& key, const std::string& value,
               const std::string& more = "") {
        put(entryName(cn), "objectClass: container\ndescription: " + key +
                               "\nadminDescription: " + value + "\n" + more);
    }

    std::string text() const {
        std::string all = "version: 1\n\ndn:\ndnsHostName: " + server + "\n";
        for (const auto& [dn, attributes] : records) {
            all += "\ndn: " + dn + "\n" + attributes;
        }
        return all;
    }

    std::string file() const { return (m_folder.path() / "directory.ldif").string(); }
    std::string state() const { return m_folder.path().string(); }
    std::string index() const { return state() + "/ldif.db"; }

    /// Replaces the file as a whole, so that it is taken over at the next look.
    void writeFile(const std::string& content) const {
        test::writeFile(file() + ".new", content);
        std::filesystem::rename(file() + ".new", file());
    }
    void save() const { writeFile(text()); }

    void open(bool discard = false) {
        directory.reset();
        directory = quorad::makeLdifDirectory(file(), state(), discard);
    }
    void load() {
        save();
        if (directory == nullptr) {
            open();
        }
        directory->maintain();
    }
    /// What the log says during `work`.
    template <typename Work> std::string logOf(Work work) {
        testing::internal::CaptureStderr();
        work();
        return testing::internal::GetCapturedStderr();
    }

    std::int64_t highUsn() {
        return directory->fetch("", "", {"highestCommittedUSN"}, false)["highestCommittedUSN"]
            .asInt64()
            .value();
    }
    tessa::ADObject fetch(const std::string& dn) {
        return directory->fetch("example.com", dn, {}, true);
    }
    bool exists(const std::string& dn) {
        try {
            fetch(dn);
            return true;
        } catch (const tessa::NotFoundException&) {
            return false;
        }
    }
    std::int64_t usnOf(const std::string& dn) { return fetch(dn)["uSNChanged"].asInt64().value(); }
    std::string guidOf(const std::string& dn) { return fetch(dn).guid(); }

    std::vector<tessa::ADObject> search(const std::string& filter, const std::string& base = MAP,
                                        int scope = tessa::SCOPE_ONE_LEVEL, std::size_t page = 100,
                                        unsigned sizeLimit = 0) {
        quorad::SearchRequest request;
        request.domain = "example.com";
        request.filter = filter;
        request.base = base;
        request.attributes = {"cn", "description", "adminDescription"};
        request.scope = scope;
        request.sizeLimit = sizeLimit;
        const auto cursor = directory->search(request);
        std::vector<tessa::ADObject> objects;
        for (bool more = true; more;) {
            const std::size_t before = objects.size();
            more = cursor->nextPage(objects, page);
            EXPECT_LE(objects.size() - before, page);
        }
        return objects;
    }
    /// The entries that a refresh from one number to another reads.
    std::vector<tessa::ADObject> range(std::int64_t from, std::int64_t to,
                                       const std::string& base = MAP) {
        return search("(&(usnchanged>=" + std::to_string(from + 1) +
                          ")(usnchanged<=" + std::to_string(to) + "))",
                      base);
    }

    static std::vector<std::string> names(const std::vector<tessa::ADObject>& objects) {
        std::vector<std::string> all;
        for (const auto& object : objects) {
            all.push_back(object["cn"]);
        }
        return all;
    }

    /// An incremental reader, as the server is one: what it believes the map to hold.
    struct Follower {
        std::int64_t usn = 0;
        std::map<std::string, std::string> keyByGuid;
        std::map<std::string, std::string> values; ///< by key
    };
    void follow(Follower& follower, const std::string& base = MAP) {
        const std::int64_t high = highUsn();
        const std::string upper = "(usnchanged<=" + std::to_string(high) + ")";
        const auto objects =
            follower.usn == 0
                ? search(upper, base)
                : search("(&(usnchanged>=" + std::to_string(follower.usn + 1) + ")" + upper + ")",
                         base);
        std::vector<tessa::ADObject> present;
        for (const auto& object : objects) {
            const auto known = follower.keyByGuid.find(object.guid());
            if (known != follower.keyByGuid.end()) {
                follower.values.erase(known->second);
                follower.keyByGuid.erase(known);
            }
            if (object["cn"].asString().substr(0, 1) != "\x01") {
                present.push_back(object);
            }
        }
        for (const auto& object : present) {
            follower.keyByGuid[object.guid()] = object["description"];
            follower.values[object["description"]] = object["adminDescription"];
        }
        follower.usn = high;
    }

    static std::string guidLine(char fill) {
        return "objectGUID:: " + std::string(20, fill) + "Ag==\n"; // 16 bytes
    }

    std::unique_ptr<quorad::Directory> directory;

private:
    TempFolder m_folder;
};

} // namespace test
