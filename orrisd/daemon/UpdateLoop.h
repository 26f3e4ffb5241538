#pragma once

namespace nis {

// Signal handlers: each only raises its flag.
void InitiateShutdown(int signalNumber);
void InitiateReconfigure(int signalNumber);
void InitiateRebuildMap(int signalNumber);
void InitiateRefreshMap(int signalNumber);

/// Why the update loop came back.
enum class LoopEnd { Shutdown, Reconfigured };

/// Refreshes the maps at their interval and acts on the signal flags, until shutdown, or until the
/// configuration was read again (the caller then looks at the thread count and calls again). Runs
/// on the main thread.
LoopEnd UpdateLoop();

/// One update with its log lines; never throws.
/// @return 0, or the number of the failure
int Update(bool rebuild, bool refresh);

} // namespace nis
