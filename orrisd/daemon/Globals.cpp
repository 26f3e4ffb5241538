#include "common/Globals.h"

#include <boost/smart_ptr/atomic_shared_ptr.hpp>

namespace nis {

boost::shared_ptr<tessa::Logger> logger;
boost::shared_ptr<tessa::Properties> gConfig;
boost::shared_ptr<ADNisServer> gServer;

std::atomic<std::time_t> initializedBy{0};
std::atomic<bool> gShutdownNow{false};
std::atomic<bool> gReconfigureNow{false};
std::atomic<bool> gRebuildMapNow{false};
std::atomic<bool> gRefreshMapNow{false};
std::atomic<bool> gInitialized{false};

tessa::Mutex gActiveRequestsProtect;
int gActiveRequests = 0;
tessa::Mutex gUpdateModeProtect;
tessa::Mutex gStartupSafety;

int gUdpSocket = -1;
int gTcpSocket = -1;
unsigned gTcpPort = 0;
unsigned gUdpPort = 0;

namespace {

boost::shared_ptr<ADInterface> gDirectory;

} // namespace

boost::shared_ptr<tessa::Properties> getConfig() {
    return boost::atomic_load(&gConfig);
}

void setConfig(boost::shared_ptr<tessa::Properties> config) {
    boost::atomic_store(&gConfig, std::move(config));
}

boost::shared_ptr<ADNisServer> getNisServer() {
    return boost::atomic_load(&gServer);
}

void setNisServer(boost::shared_ptr<ADNisServer> server) {
    boost::atomic_store(&gServer, std::move(server));
}

boost::shared_ptr<ADInterface> getADInterface() {
    return boost::atomic_load(&gDirectory);
}

void setADInterface(boost::shared_ptr<ADInterface> directory) {
    boost::atomic_store(&gDirectory, std::move(directory));
}

} // namespace nis
