#pragma once

#include "load/Options.h"
#include "load/Report.h"

/// The works of the generator. Each client runs until its bound and reports; each baseline server
/// runs until it is ended.
namespace load {

Report udpMatch(const Options& options);
Report walk(const Options& options);
Report wholeMap(const Options& options);
Report plainStream(const Options& options);
Report connectMatch(const Options& options);
Report hostile(const Options& options);

void serveUdpEcho(const Options& options);
void serveTcpStream(const Options& options);
void serveTcpEcho(const Options& options);

} // namespace load
