#pragma once

namespace nis {

/// Registers YPPROG version 2 for a protocol.
/// @param protocol IPPROTO_UDP or IPPROTO_TCP
/// @return false when the portmapper refuses or is not there; rpcFailureText() says why
bool registerService(int protocol, unsigned port);

/// Removes YPPROG version 2 from the portmapper; harmless when it is not there.
void unregisterService();

/// Checks with the portmapper that both registrations took effect and that no other YP server is
/// there. Ends the process (status 6) when not.
void VerifyPorts();

/// Registers again, with a warning, when the portmapper has lost a registration (it was restarted).
/// Called by the update loop while it waits; never throws, never ends the process. Asks at most
/// every 15 seconds and gives up soon when there is no answer. For one thread.
void keepRegistered();

/// The same at once, without regard to when it last asked.
void restoreRegistrations();

/// The RPC library's text for its last failure on this thread.
const char* rpcFailureText();

} // namespace nis
