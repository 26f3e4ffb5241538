#pragma once

#include <string>

namespace quorad {

/// Tells the service manager about the daemon's state ("READY=1", "STOPPING=1"), if one has asked
/// to be told through the environment variable NOTIFY_SOCKET.
/// @return false when nobody asked, or could not be told
bool notifyServiceManager(const std::string& state);

} // namespace quorad
