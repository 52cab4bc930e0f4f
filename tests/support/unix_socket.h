// A client of a Unix-domain stream socket, for tests of servers.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "platform/posix/unique_fd.h"

namespace kel::testing {

// A connection to the socket at `path`; invalid when nothing accepts there.
inline platform::UniqueFd connectUnixSocket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    platform::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fd.reset();
    }
    return fd;
}

}  // namespace kel::testing
