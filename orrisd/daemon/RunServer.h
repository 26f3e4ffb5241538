#pragma once

namespace nis {

/// Serves until a shutdown is requested: directory, server facade, sockets, registration, listener
/// threads, update loop.
/// @param flush discard the caches at start
/// @return the process's exit status
int RunServer(bool flush);

} // namespace nis
