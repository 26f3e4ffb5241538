#pragma once

#include <karst/Logger.h>
#include <karst/Mutex.h>
#include <karst/Properties.h>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <atomic>
#include <ctime>

/// Process-wide state of the daemon. Declared here for every folder, defined in daemon/Globals.cpp;
/// test programs bring a definition of their own.
namespace nis {

class ADInterface;
class ADNisServer;

inline constexpr const char* ORRISD_LOGGER_NAME = "orrisd";
inline constexpr const char* ORRISD_NETGROUP_LOG_NAME = "orrisd.netgroup";
inline constexpr const char* ORRISD_NETGROUP_SYNTAX_LOG_NAME = "orrisd.netgroup.syntax";
inline constexpr const char* ORRISD_NETGROUP_INVERSION_LOG_NAME = "orrisd.netgroup.inv";

extern boost::shared_ptr<tessa::Logger> logger;

/// The configuration; replaced as a whole when it is read again. Other threads use getConfig().
extern boost::shared_ptr<tessa::Properties> gConfig;
boost::shared_ptr<tessa::Properties> getConfig();
void setConfig(boost::shared_ptr<tessa::Properties> config);

/// Seconds since the epoch by which start-up must be considered complete.
extern std::atomic<std::time_t> initializedBy;

// Raised by signal handlers, acted on by the update loop.
extern std::atomic<bool> gShutdownNow;
extern std::atomic<bool> gReconfigureNow;
extern std::atomic<bool> gRebuildMapNow;
extern std::atomic<bool> gRefreshMapNow;
/// Whether clients can be answered from maps.
extern std::atomic<bool> gInitialized;

/// Calls being executed, and the lock that also wakes the wait for the last of them.
extern tessa::Mutex gActiveRequestsProtect;
extern int gActiveRequests KARST_GUARDED_BY(gActiveRequestsProtect);
extern tessa::Mutex gUpdateModeProtect;
extern tessa::Mutex gStartupSafety;

extern int gUdpSocket;
extern int gTcpSocket;
extern unsigned gTcpPort; ///< configured port, 0: none
extern unsigned gUdpPort; ///< configured port, 0: none

/// The one server facade and the one way into the directory; null before and after service.
/// Requests use a copy, so that shutdown never destroys what a request still works with.
extern boost::shared_ptr<ADNisServer> gServer;
boost::shared_ptr<ADNisServer> getNisServer();
void setNisServer(boost::shared_ptr<ADNisServer> server);
boost::shared_ptr<ADInterface> getADInterface();
void setADInterface(boost::shared_ptr<ADInterface> directory);

/// How the process ends.
enum ExitCode : int {
    EXIT_OK = 0,
    EXIT_USAGE = 1,
    EXIT_FILE_SYSTEM = 2,
    EXIT_OPERATING_SYSTEM = 3,
    EXIT_NETWORK = 4,
    EXIT_QUORAD = 5,
    EXIT_RPC = 6,
    EXIT_UNKNOWN = 7,
};
/// Text of an exit code; "unknown status code" for any that has none.
const char* exitCodeText(int code);
/// Ends the process: marks threads inactive, logs and prints "Terminating orrisd with exit(...)"
/// unless the code is 0, and exits with the code. Never returns.
[[noreturn]] void terminate(ExitCode code);

} // namespace nis
