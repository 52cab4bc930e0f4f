#include "platform/helperserver/socket_activation.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

namespace kel {

// The manager's protocol is read here rather than through libsystemd's
// sd_listen_fds: the daemon starts at every first connection, and linking
// libsystemd would load it and the six libraries it pulls in at every start.
int handedOverSocket() {
    const char* pid = getenv("LISTEN_PID");
    const char* count = getenv("LISTEN_FDS");
    if (pid == nullptr || count == nullptr || strtol(pid, nullptr, 10) != getpid()) {
        return -1;
    }
    // The descriptors start at 3.
    const long last = 3 + strtol(count, nullptr, 10);
    for (int fd = 3; fd < last; ++fd) {
        int domain = 0;
        int type = 0;
        int listening = 0;
        socklen_t size = sizeof(int);
        if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_UNIX &&
            getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_STREAM &&
            getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening != 0) {
            fcntl(fd, F_SETFD, FD_CLOEXEC);
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
            return fd;
        }
    }
    return -1;
}

}  // namespace kel
