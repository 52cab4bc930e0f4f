// The listening socket that a service manager hands over when it starts the
// server at the first connection (socket activation).
#pragma once

namespace kel {

// The first listening Unix stream socket among the descriptors that the
// manager passed to this process (LISTEN_FDS, for LISTEN_PID), made
// close-on-exec and non-blocking; -1 when there is none. The socket stays the
// manager's: the server never unlinks its path.
[[nodiscard]] int handedOverSocket();

}  // namespace kel
