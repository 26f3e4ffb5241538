#include "server/ADNisServer.h"

#include "unit/server/ServerFixture.h"

#include <thread>

#include <arpa/inet.h>
#include <unistd.h>

namespace {

using nis::ADNisServer;

class ADNisServerTest : public test::ServerFixture {
protected:
    static unsigned int address(const char* text) { return Subnet::MakeAddr(text); }
};

TEST_F(ADNisServerTest, AnswersFromTheMaps) {
    save({"plain", "dc1", {{"a", "1"}, {"b", "2"}}});
    const ADNisServer server(DOMAIN, false);
    EXPECT_TRUE(server.isDomainSupported("dom"));
    EXPECT_FALSE(server.isDomainSupported("other"));
    EXPECT_EQ(server.match(DOMAIN, "plain", "b"), (nis::MapEntry{"b", "2"}));
    EXPECT_EQ(server.getFirst(DOMAIN, "plain"), (nis::MapEntry{"a", "1"}));
    EXPECT_EQ(server.getNext(DOMAIN, "plain", "a"), (nis::MapEntry{"b", "2"}));
    EXPECT_EQ(server.getNext(DOMAIN, "plain", "b"), nis::MapEntry::NOT_FOUND);
    EXPECT_EQ(transferOf(server, "plain"), (test::Entries{{"a", "1"}, {"b", "2"}}));
    EXPECT_GT(server.getOrder(DOMAIN, "plain"), 0U);
    EXPECT_EQ(mapList(server), (std::vector<std::string>{"plain"}));
    EXPECT_THROW(server.match(DOMAIN, "plain", "c"), nis::UnknownKey);
}

TEST_F(ADNisServerTest, ADomainThatDiffersInCaseIsAnother) {
    save({"plain"});
    const ADNisServer server(DOMAIN, false);
    for (const char* domain : {"other", "DOM", "Dom", "do", "dom ", ""}) {
        EXPECT_EQ(refusal<nis::WrongDomain>([&] { server.match(domain, "plain", "key"); }), domain)
            << domain;
        EXPECT_THROW(server.getFirst(domain, "plain"), nis::WrongDomain);
        EXPECT_THROW(server.getNext(domain, "plain", "key"), nis::WrongDomain);
        EXPECT_THROW(server.getAll(domain, "plain"), nis::WrongDomain);
        EXPECT_THROW(server.getOrder(domain, "plain"), nis::WrongDomain);
        EXPECT_THROW(server.getMaster(domain, "plain"), nis::WrongDomain);
        EXPECT_THROW(server.getMapList(domain), nis::WrongDomain);
        EXPECT_FALSE(server.isDomainSupported(domain));
    }
}

TEST_F(ADNisServerTest, ArgumentsAreCheckedInTheirOrder) {
    const ADNisServer server(DOMAIN, false);
    const auto text = [](const auto& action) { return refusal<nis::ZeroPointer>(action); };
    const char* const none = nullptr;
    EXPECT_EQ(text([&] { server.match(none, none, ""); }), "domain argument is zero");
    EXPECT_EQ(text([&] { server.match("other", none, ""); }), "map argument is zero");
    EXPECT_EQ(text([&] { server.getFirst(none, "m"); }), "domain argument is zero");
    EXPECT_EQ(text([&] { server.getFirst(DOMAIN, none); }), "map argument is zero");
    EXPECT_EQ(text([&] { server.getNext(none, none, ""); }), "domain argument is zero");
    EXPECT_EQ(text([&] { server.getNext(DOMAIN, none, ""); }), "map argument is zero");
    EXPECT_EQ(text([&] { server.getAll(none, none); }), "domain argument is zero");
    EXPECT_EQ(text([&] { server.getAll(DOMAIN, none); }), "map argument is zero");
    EXPECT_EQ(text([&] { server.getOrder(none, none); }), "domain argument is zero");
    EXPECT_EQ(text([&] { server.getOrder(DOMAIN, none); }), "map argument is zero");
    EXPECT_EQ(text([&] { server.getMaster(none, none); }), "domain argument is zero");
    EXPECT_EQ(text([&] { server.getMaster(DOMAIN, none); }), "map argument is zero");
    EXPECT_EQ(text([&] { server.getMapList(none); }), "domain argument is zero");
    EXPECT_EQ(text([&] { server.isDomainSupported(none); }), "domain argument is zero");
}

TEST_F(ADNisServerTest, TheMasterIsThisHost) {
    save({"plain", "dc1.example.com"});
    const ADNisServer server(DOMAIN, false);
    char host[256] = "";
    ASSERT_EQ(gethostname(host, sizeof host), 0);
    EXPECT_EQ(server.getMaster(DOMAIN, "plain"), host);
    EXPECT_EQ(refusal<nis::UnknownMap>([&] { server.getMaster(DOMAIN, "other"); }), "other");
}

TEST_F(ADNisServerTest, WithoutMapsTheListIsEmptyAndRequestsSayWhy) {
    const ADNisServer server(DOMAIN, false);
    EXPECT_TRUE(server.getMapList(DOMAIN)->empty());
    EXPECT_EQ(refusal<nis::UnknownMap>([&] { server.match(DOMAIN, "plain", "key"); }),
              "No maps present");
    EXPECT_EQ(refusal<nis::UnknownMap>([&] { server.getMaster(DOMAIN, "plain"); }), "plain");
}

TEST_F(ADNisServerTest, OnlyOwnAddressesAreAdmittedByDefault) {
    const ADNisServer server(DOMAIN, false);
    EXPECT_TRUE(server.allowedSubnet(address("127.0.0.1")));
    EXPECT_TRUE(server.allowedSubnet(address("127.255.255.255")));
    EXPECT_FALSE(server.allowedSubnet(address("203.0.113.9")));
    EXPECT_FALSE(server.allowedSubnet(address("0.0.0.0")));
    ASSERT_EQ(std::system("ip address add 192.0.2.5/24 dev lo"), 0);
    EXPECT_FALSE(server.allowedSubnet(address("192.0.2.5"))) << "not before a reconfiguration";
    const ADNisServer later(DOMAIN, false);
    EXPECT_TRUE(later.allowedSubnet(address("192.0.2.5")));
    EXPECT_FALSE(later.allowedSubnet(address("192.0.2.6"))) << "the host, not its network";
    ASSERT_EQ(std::system("ip address del 192.0.2.5/24 dev lo"), 0);
}

TEST_F(ADNisServerTest, ConfiguredNetsAreAddedAndBadOnesSkipped) {
    configure({{"nisd.securenets", "10.0.0.0/255.0.0.0, 192.168.1.0/24 192.168.2.0 host/255.0.0.0\t"
                                   "172.16.5.5/255.240.0.0"}});
    std::string log;
    std::unique_ptr<ADNisServer> server;
    log = logOf([&] { server = std::make_unique<ADNisServer>(DOMAIN, false); });
    EXPECT_TRUE(has(log, "invalid securenet format 192.168.1.0/24: malformed mask")) << log;
    EXPECT_TRUE(has(log, "invalid securenet format 192.168.2.0: Expected '/' in '192.168.2.0'"));
    EXPECT_TRUE(has(log, "invalid securenet format host/255.0.0.0: host"));
    EXPECT_TRUE(has(log, "Allowed subnet 127.0.0.0/255.0.0.0"));
    EXPECT_TRUE(has(log, "Allowed subnet 172.16.0.0/255.240.0.0"));
    EXPECT_TRUE(server->allowedSubnet(address("10.200.1.1")));
    EXPECT_TRUE(server->allowedSubnet(address("172.31.255.255")));
    EXPECT_TRUE(server->allowedSubnet(address("127.0.0.1")));
    EXPECT_FALSE(server->allowedSubnet(address("192.168.1.1")));
    EXPECT_FALSE(server->allowedSubnet(address("192.168.2.0")));
}

TEST_F(ADNisServerTest, AZeroMaskAdmitsEverybody) {
    configure({{"nisd.securenets", "0.0.0.0/0"}});
    const ADNisServer server(DOMAIN, false);
    EXPECT_TRUE(server.allowedSubnet(address("203.0.113.9")));
    EXPECT_TRUE(server.allowedSubnet(0));
    EXPECT_TRUE(server.allowedSubnet(0xFFFFFFFF));
}

TEST_F(ADNisServerTest, ReconfigurationSwapsTheNetsUnderRunningRequests) {
    ADNisServer server(DOMAIN, false);
    std::atomic<bool> done{false};
    std::atomic<int> refused{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 3; ++i) {
        callers.emplace_back([&] {
            while (!done) {
                refused += server.allowedSubnet(address("127.0.0.1")) ? 0 : 1;
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        configure({{"nisd.securenets", i % 2 == 0 ? "10.0.0.0/255.0.0.0" : ""}});
        server.reconfigure();
        EXPECT_EQ(server.allowedSubnet(address("10.1.1.1")), i % 2 == 0);
    }
    done = true;
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(refused, 0);
}

TEST_F(ADNisServerTest, TimesAreZeroWithoutMaps) {
    ADNisServer server(DOMAIN, false);
    EXPECT_EQ(server.getLastUpdateTime(), 0);
    EXPECT_EQ(server.getNextUpdateTime(), 0);
}

TEST_F(ADNisServerTest, AnUpdateWithoutDirectoryFailsAndServiceGoesOn) {
    save({"plain"});
    ADNisServer server(DOMAIN, false);
    EXPECT_THROW(server.update(false, true), tessa::IPCException);
    EXPECT_EQ(server.match(DOMAIN, "plain", "key").value, "value");
}

} // namespace
