#pragma once

namespace nis {

/// Tells the service manager that started the daemon about its state ("READY=1", "STOPPING=1").
/// Does nothing when there is none that listens ($NOTIFY_SOCKET is not set).
void notifySupervisor(const char* state);

} // namespace nis
