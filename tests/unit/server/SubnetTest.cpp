#include "server/Subnet.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include <arpa/inet.h>

namespace {

unsigned int address(const char* text) {
    return Subnet::MakeAddr(text);
}

std::string refusal(const std::string& text) {
    try {
        Subnet subnet(text);
        return "accepted as " + subnet.toString();
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
}

struct Accepted {
    const char* text;
    const char* shown;
};

class AcceptedSubnet : public testing::TestWithParam<Accepted> {};

TEST_P(AcceptedSubnet, IsMaskedAndShown) {
    EXPECT_EQ(Subnet(std::string(GetParam().text)).toString(), GetParam().shown);
}

INSTANTIATE_TEST_SUITE_P(
    Forms, AcceptedSubnet,
    testing::Values(Accepted{"10.1.0.0/255.255.0.0", "10.1.0.0/255.255.0.0"},
                    Accepted{"10.1.2.3/255.255.0.0", "10.1.0.0/255.255.0.0"},
                    Accepted{"0.0.0.0/0", "0.0.0.0/0.0.0.0"},
                    Accepted{"10.1.2.3/0.0.0.0", "0.0.0.0/0.0.0.0"},
                    Accepted{"192.168.1.7/255.255.255.255", "192.168.1.7/255.255.255.255"},
                    Accepted{"10.1/255.0", "10.0.0.0/255.0.0.0"},
                    Accepted{"0x0a010203/0xffffff00", "10.1.2.0/255.255.255.0"},
                    Accepted{"1.2.3.4/255.255.255.254", "1.2.3.4/255.255.255.254"},
                    Accepted{"200.2.3.4/128.0.0.0", "128.0.0.0/128.0.0.0"}));

struct Refused {
    std::string text;
    std::string reason;
};

class RefusedSubnet : public testing::TestWithParam<Refused> {};

TEST_P(RefusedSubnet, SaysWhy) {
    EXPECT_EQ(refusal(GetParam().text), GetParam().reason);
}

INSTANTIATE_TEST_SUITE_P(
    Reasons, RefusedSubnet,
    testing::Values(Refused{"192.168.1.0/24", "malformed mask"},
                    Refused{"10.1.0.0/16", "malformed mask"},
                    Refused{"10.0.0.0/255.0.255.0", "malformed mask"},
                    Refused{"10.0.0.0/0.255.255.255", "malformed mask"},
                    Refused{"10.0.0.0/255.255.255.253", "malformed mask"},
                    Refused{"10.0.0.0/1", "malformed mask"},
                    Refused{"192.168.1.0", "Expected '/' in '192.168.1.0'"},
                    Refused{"", "Expected '/' in ''"}, Refused{"host/255.0.0.0", "host"},
                    Refused{"10.0.0.0/mask", "mask"}, Refused{"/255.0.0.0", ""},
                    Refused{"10.0.0.0/", ""}, Refused{"10.0.0.0/255.0.0.0/8", "255.0.0.0/8"},
                    Refused{"256.0.0.0/255.0.0.0", "256.0.0.0"},
                    Refused{"1.2.3.4.5/255.0.0.0", "1.2.3.4.5"},
                    Refused{std::string("10.0.0.0\0x/255.0.0.0", 20), std::string("10.0.0.0", 8)}));

TEST(SubnetTest, TheAddressIsLookedAtBeforeTheMask) {
    EXPECT_EQ(refusal("host/24"), "host");
}

TEST(SubnetTest, EveryMaskThatIsARunOfOnesIsValidAndNoOther) {
    for (int bits = 0; bits <= 32; ++bits) {
        const unsigned int mask = bits == 0 ? 0 : 0xFFFFFFFFU << (32 - bits);
        EXPECT_TRUE(Subnet::ValidateMask(htonl(mask))) << bits;
        for (int other = 0; other < 32; ++other) {
            // One bit changed leaves a run only at its end.
            const unsigned int changed = mask ^ (1U << other);
            const bool run = other == 32 - bits || other == 31 - bits;
            EXPECT_EQ(Subnet::ValidateMask(htonl(changed)), run) << bits << " " << other;
        }
    }
}

TEST(SubnetTest, NumbersAreCheckedLikeText) {
    EXPECT_THROW(Subnet(address("10.0.0.0"), address("255.0.255.0")), std::invalid_argument);
    EXPECT_EQ(Subnet(address("10.1.2.3"), address("255.255.0.0")).toString(),
              "10.1.0.0/255.255.0.0");
}

TEST(SubnetTest, Members) {
    const Subnet net(std::string("10.1.0.0/255.255.0.0"));
    EXPECT_TRUE(net.isMember(address("10.1.0.0")));
    EXPECT_TRUE(net.isMember(address("10.1.255.255")));
    EXPECT_FALSE(net.isMember(address("10.2.0.0")));
    EXPECT_FALSE(net.isMember(address("10.0.255.255")));
    EXPECT_TRUE(Subnet(std::string("0.0.0.0/0")).isMember(address("203.0.113.9")));
    const Subnet host(std::string("10.1.2.3/255.255.255.255"));
    EXPECT_TRUE(host.isMember(address("10.1.2.3")));
    EXPECT_FALSE(host.isMember(address("10.1.2.4")));
}

} // namespace
