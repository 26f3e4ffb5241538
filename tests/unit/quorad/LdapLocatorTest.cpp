#include "ldap/Locator.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace {

using namespace quorad::ldap;

std::string number(unsigned value) {
    return {static_cast<char>(value >> 8U), static_cast<char>(value & 0xffU)};
}

std::string name(const std::string& text) {
    std::string wire;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t end = std::min(text.find('.', begin), text.size());
        wire += static_cast<char>(end - begin);
        wire += text.substr(begin, end - begin);
        begin = end + 1;
    }
    return wire + '\0';
}

std::string record(unsigned type, const std::string& data) {
    return name("q.example") + number(type) + number(1) + number(0) + number(300) +
           number(static_cast<unsigned>(data.size())) + data;
}

std::string service(unsigned priority, unsigned weight, unsigned port, const std::string& host) {
    return record(33, number(priority) + number(weight) + number(port) + name(host));
}

std::string answer(unsigned count, const std::string& records) {
    return number(1) + number(0x8180) + number(1) + number(count) + number(0) + number(0) +
           name("q.example") + number(33) + number(1) + records;
}

TEST(LdapLocator, ReadsServiceRecords) {
    const auto found = Locator::fromAnswer(answer(3, service(10, 60, 389, "DC1.Example.com") +
                                                         record(1, std::string(4, '\x7f')) +
                                                         service(0, 100, 3389, "dc2.example.com")),
                                           false);
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[0].endpoint.uri(), "ldap://dc1.example.com:389");
    EXPECT_EQ(found[0].priority, 10U);
    EXPECT_EQ(found[0].weight, 60U);
    EXPECT_EQ(found[1].endpoint.uri(), "ldap://dc2.example.com:3389");
}

TEST(LdapLocator, WithTlsTheOtherPort) {
    const auto found = Locator::fromAnswer(answer(1, service(0, 0, 389, "dc1.x")), true);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].endpoint.uri(), "ldaps://dc1.x:636");
}

TEST(LdapLocator, MalformedAnswersGiveNone) {
    const std::string whole = answer(1, service(0, 100, 389, "dc1.example.com"));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_TRUE(Locator::fromAnswer(whole.substr(0, size), false).empty()) << size;
    }
    EXPECT_TRUE(Locator::fromAnswer(answer(1, service(0, 0, 0, "dc1.x")), false).empty());
    EXPECT_TRUE(Locator::fromAnswer(answer(1, service(0, 0, 389, "")), false).empty());
    EXPECT_TRUE(Locator::fromAnswer(answer(1, record(33, "short")), false).empty());
}

Candidate candidate(const std::string& host, unsigned priority, unsigned weight) {
    return {{host, 389, false}, priority, weight};
}

TEST(LdapLocator, PriorityComesFirst) {
    for (int round = 0; round < 100; ++round) {
        std::vector<Candidate> all{candidate("c", 20, 100), candidate("a", 0, 1),
                                   candidate("b", 10, 50), candidate("d", 20, 0)};
        Locator::order(all);
        EXPECT_EQ(all[0].endpoint.host, "a");
        EXPECT_EQ(all[1].endpoint.host, "b");
        EXPECT_EQ(all.size(), 4U);
    }
}

TEST(LdapLocator, WithinAPriorityWeightDraws) {
    std::map<std::string, int> first;
    for (int round = 0; round < 4000; ++round) {
        std::vector<Candidate> all{candidate("heavy", 0, 90), candidate("light", 0, 10)};
        Locator::order(all);
        ++first[all.front().endpoint.host];
    }
    EXPECT_GT(first["heavy"], first["light"]);
    EXPECT_GT(first["light"], 0);
}

TEST(LdapLocator, ConfiguredControllersKeepTheirOrder) {
    Settings settings;
    settings.servers = {{"z", 389, false}, {"a", 636, true}};
    const auto found = Locator::candidates(settings);
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[0].endpoint.host, "z");
    EXPECT_LT(found[0].priority, found[1].priority);
}

TEST(LdapLocator, NameOfTheServiceRecords) {
    EXPECT_EQ(Locator::serviceName("example.com"), "_ldap._tcp.dc._msdcs.example.com");
}

} // namespace
