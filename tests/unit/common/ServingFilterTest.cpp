#include "common/ServingFilter.h"

#include "common/ConfigKeys.h"
#include "common/Globals.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using nis::ServingFilter;

namespace {

class ServingFilterTest : public testing::Test {
protected:
    ~ServingFilterTest() override { configure("", ""); }

    static void configure(const std::string& permitted, const std::string& excluded) {
        auto config = boost::make_shared<tessa::Properties>();
        if (!permitted.empty()) {
            config->set(nis::PROP_MAPS, permitted);
        }
        if (!excluded.empty()) {
            config->set(nis::PROP_EXCLUDE_MAPS, excluded);
        }
        nis::setConfig(config);
        ServingFilter::reset();
    }
};

TEST_F(ServingFilterTest, EmptyListsPermitEveryMap) {
    configure("", "");
    EXPECT_TRUE(ServingFilter::canServeToClients("passwd.byname"));
    EXPECT_TRUE(ServingFilter::canServeToClients(""));
}

TEST_F(ServingFilterTest, OnlyPermittedMapsWhenThereIsAList) {
    configure("hosts.byname, hosts.byaddr\tgroup", "");
    EXPECT_TRUE(ServingFilter::canServeToClients("hosts.byaddr"));
    EXPECT_TRUE(ServingFilter::canServeToClients("group"));
    EXPECT_FALSE(ServingFilter::canServeToClients("passwd"));
    EXPECT_FALSE(ServingFilter::canServeToClients("hosts"));
}

TEST_F(ServingFilterTest, ExclusionGoesBeforePermission) {
    configure("a b", "b c");
    EXPECT_TRUE(ServingFilter::canServeToClients("a"));
    EXPECT_FALSE(ServingFilter::canServeToClients("b"));
    EXPECT_FALSE(ServingFilter::canServeToClients("c"));
    configure("", "b");
    EXPECT_TRUE(ServingFilter::canServeToClients("a"));
    EXPECT_FALSE(ServingFilter::canServeToClients("b"));
}

TEST_F(ServingFilterTest, CaseMatters) {
    configure("auto.Home", "Secret");
    EXPECT_TRUE(ServingFilter::canServeToClients("auto.Home"));
    EXPECT_FALSE(ServingFilter::canServeToClients("auto.home"));
    configure("", "Secret");
    EXPECT_TRUE(ServingFilter::canServeToClients("secret"));
}

TEST_F(ServingFilterTest, ConfigurationIsReadOnceUntilReset) {
    configure("a", "");
    EXPECT_FALSE(ServingFilter::canServeToClients("b"));
    auto config = boost::make_shared<tessa::Properties>();
    config->set(nis::PROP_MAPS, "b");
    nis::setConfig(config);
    EXPECT_FALSE(ServingFilter::canServeToClients("b"));
    ServingFilter::reset();
    EXPECT_TRUE(ServingFilter::canServeToClients("b"));
    EXPECT_FALSE(ServingFilter::canServeToClients("a"));
}

TEST_F(ServingFilterTest, SettingsAreLoggedWhenRead) {
    configure("a b", "c");
    nis::logger->setThreshold(tessa::LOG_DEBUGGING);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(ServingFilter::canServeToClients("a"));
    EXPECT_TRUE(ServingFilter::canServeToClients("b"));
    const std::string log = testing::internal::GetCapturedStderr();
    nis::logger->setThreshold(tessa::LOG_INFORMATION);
    const std::size_t first = log.find("canServeToClients: nisd.maps=a b");
    EXPECT_NE(std::string::npos, first) << log;
    EXPECT_NE(std::string::npos, log.find("canServeToClients: nisd.exclude.maps=c")) << log;
    EXPECT_EQ(std::string::npos, log.find("nisd.maps=", first + 25)) << log;
}

TEST_F(ServingFilterTest, DerivedMapsAreNeverDownloaded) {
    EXPECT_FALSE(ServingFilter::neverDownloadMapFromAD("derived.test"));
    ServingFilter::addDerivedMap("derived.test");
    ServingFilter::addDerivedMap("derived.test");
    EXPECT_TRUE(ServingFilter::neverDownloadMapFromAD("derived.test"));
    EXPECT_FALSE(ServingFilter::neverDownloadMapFromAD("derived"));
    ServingFilter::reset();
    EXPECT_TRUE(ServingFilter::neverDownloadMapFromAD("derived.test"));
}

TEST_F(ServingFilterTest, ThreadsMayAskWhileTheConfigurationChanges) {
    configure("a", "b");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 500; ++i) {
                EXPECT_TRUE(ServingFilter::canServeToClients("a"));
                EXPECT_FALSE(ServingFilter::canServeToClients("b"));
                ServingFilter::addDerivedMap("d" + std::to_string(i % 7));
                EXPECT_FALSE(ServingFilter::neverDownloadMapFromAD("a"));
                if (t == 0) {
                    ServingFilter::reset();
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace
