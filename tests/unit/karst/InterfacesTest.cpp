#include "karst/Interfaces.h"

#include "ChildProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sched.h>

using namespace tessa;

namespace {

TEST(InterfacesTest, textOfAnAddressInNetworkOrder) {
    EXPECT_EQ(toString(0U), "0.0.0.0");
    EXPECT_EQ(toString(0xFFFFFFFFU), "255.255.255.255");
    EXPECT_EQ(toString(htonl(INADDR_LOOPBACK)), "127.0.0.1");
    EXPECT_EQ(toString(htonl(0x0A010203U)), "10.1.2.3");
}

TEST(InterfacesTest, listsTheLoopbackAddress) {
    EXPECT_THAT(GetIpAddresses(), testing::Contains(htonl(INADDR_LOOPBACK)));
}

TEST(InterfacesTest, machineWithoutAddressesHasAnEmptyList) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "a private network needs root";
    }
    EXPECT_TRUE(
        test::inChild([] { return ::unshare(CLONE_NEWNET) == 0 && GetIpAddresses().empty(); }));
}

} // namespace
