// The daemon's process-wide state for test programs, with a terminate() that a test can see.
#include "common/Globals.h"

#include <boost/smart_ptr/atomic_shared_ptr.hpp>

#include <cstdio>
#include <cstdlib>

namespace nis {

boost::shared_ptr<tessa::Logger> logger = tessa::Logger::get(ORRISD_LOGGER_NAME);
boost::shared_ptr<tessa::Properties> gConfig = boost::make_shared<tessa::Properties>();
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

boost::shared_ptr<tessa::Properties> getConfig() { return boost::atomic_load(&gConfig); }
void setConfig(boost::shared_ptr<tessa::Properties> config) {
    boost::atomic_store(&gConfig, std::move(config));
}
boost::shared_ptr<ADNisServer> getNisServer() { return boost::atomic_load(&gServer); }
void setNisServer(boost::shared_ptr<ADNisServer> server) {
    boost::atomic_store(&gServer, std::move(server));
}
boost::shared_ptr<ADInterface> getADInterface() { return boost::atomic_load(&gDirectory); }
void setADInterface(boost::shared_ptr<ADInterface> directory) {
    boost::atomic_store(&gDirectory, std::move(directory));
}

const char* exitCodeText(int) { return "test"; }

[[noreturn]] void terminate(ExitCode code) {
    std::fprintf(stderr, "terminate(%d)\n", static_cast<int>(code));
    std::exit(code);
}

} // namespace nis
