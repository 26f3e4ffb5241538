#pragma once

namespace nis {

inline constexpr const char* CONFIG_FILE = "/etc/velmorix/velmorix.conf";

// Keys of the configuration file. docs/configuration.md says what each does.
inline constexpr const char* PROP_THREADS = "nisd.threads";
inline constexpr const char* PROP_UPDATE = "nisd.update.interval";
inline constexpr const char* PROP_MAPS = "nisd.maps";
inline constexpr const char* PROP_EXCLUDE_MAPS = "nisd.exclude.maps";
inline constexpr const char* PROP_TRUSTED_NETS = "nisd.securenets";
inline constexpr const char* PROP_SERVER_SWITCH = "nisd.server.switch.delay";
inline constexpr const char* PROP_MAX_MAP_SETS = "nisd.maps.max";
inline constexpr const char* PROP_LARGEGROUP = "nisd.largegroup.suffix";
inline constexpr const char* PROP_GROUP_NAME_LENGTH = "nisd.largegroup.name.length";
inline constexpr const char* PROP_DOMAIN_NAME = "nisd.domain.name";
inline constexpr const char* PROP_STARTUP_TIME = "nisd.startup.delay";
inline constexpr const char* PROP_DATAHORDE = "nisd.datahorde.enable";
inline constexpr const char* PROP_EMPTY_ENUMERATION = "nisd.empty.enumeration";
inline constexpr const char* PROP_PASSWD_EXPIRED = "nisd.passwd.expired.allow";
inline constexpr const char* PROP_NET_ADDR = "nisd.net_addr";
inline constexpr const char* PROP_NET_TCP_PORT = "nisd.port.tcp";
inline constexpr const char* PROP_NET_UDP_PORT = "nisd.port.udp";
inline constexpr const char* PROP_WATCH_ENABLED = "nisd.watch.enabled";
inline constexpr const char* PROP_WATCH_CHECK_TIMEOUT = "nisd.watch.check.timeout";
inline constexpr const char* PROP_WATCH_CHECK_FREQUENCY = "nisd.watch.check.frequency";
inline constexpr const char* PROP_WATCH_DEATH_TIMEOUT = "nisd.watch.death.timeout";
inline constexpr const char* PROP_WATCH_MAX_TIMEOUT = "nisd.watch.max.timeout";
inline constexpr const char* PROP_WATCH_RETRY_MAX = "nisd.watch.retry.max";

inline constexpr int DEFAULT_THREADS = 4;
inline constexpr long DEFAULT_UPDATE_INTERVAL = 1800; ///< seconds
inline constexpr long DEFAULT_SERVER_SWITCH = 600;    ///< seconds
inline constexpr long DEFAULT_STARTUP_TIME = 180;     ///< seconds
inline constexpr long DEFAULT_MAX_MAP_SETS = 2;

inline constexpr const char* TRUE_STR = "TRUE";
inline constexpr const char* FALSE_STR = "FALSE";

} // namespace nis
