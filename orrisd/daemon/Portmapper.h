#pragma once

namespace nis {

/// Removes YPPROG version 2 from the portmapper; harmless when it is not there.
void unregisterService();

/// Checks with the portmapper that both registrations took effect and that no other YP server is
/// there. Ends the process (status 6) when not.
void VerifyPorts();

/// Registers again, with a warning, when the portmapper has lost a registration (it was restarted).
/// Called by the update loop while it waits; never throws, never ends the process.
void keepRegistered();

} // namespace nis
