#pragma once

namespace nis {

inline constexpr const char* ADNIS_LOCKFILE = "/var/run/orrisd.lock";
inline constexpr const char* ADNIS_PIDFILE = "/var/run/orrisd.pid";
inline constexpr const char* WORKING_DIR = "/var/velmorix/";
/// Below the working directory; the daemon's current directory while it runs.
inline constexpr const char* NIS_CACHE_DIR = "nis";
inline constexpr const char* WATCHDOG_PROGRAM = "/usr/share/velmorix/sbin/orrisguard";

} // namespace nis
