#pragma once

namespace nis {

/// Creates the UDP and the TCP socket and binds them as the configuration says; without that they
/// stay unbound. Ends the process (status 4) when there are no sockets to be had.
void PrepareSocket();

/// Binds a socket that is still unbound to a free reserved port.
/// @return false, with errno set, when that fails
bool bindToReservedPort(int socket);

/// Port that a socket is bound to, 0 when it is not.
unsigned boundPort(int socket);

} // namespace nis
