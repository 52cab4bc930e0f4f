#include "platform/helperserver/socket_activation.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>

namespace kel {

int handedOverSocket() {
    // Leaves the variables set: the helper server may be made again, and each
    // time must find the same socket.
    const int count = sd_listen_fds(0);
    for (int fd = SD_LISTEN_FDS_START; fd < SD_LISTEN_FDS_START + count; ++fd) {
        if (sd_is_socket_unix(fd, SOCK_STREAM, /*listening=*/1, nullptr, 0) > 0) {
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
            return fd;
        }
    }
    return -1;
}

}  // namespace kel
