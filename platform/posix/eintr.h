// retryOnEintr: repeats a system call that a signal interrupted.
//
// For calls whose failure is -1 with errno, that may simply be restarted after
// EINTR (read, write, accept4, epoll_wait, flock, fcntl(F_SETLKW), ...). Never
// wrap close(2) in it: see unique_fd.h.
#pragma once

#include <errno.h>

#include <utility>

namespace platform {

// Calls `call()` until it returns anything but -1 with errno EINTR, and returns
// that result; errno is that of the last call.
template <typename Call>
auto retryOnEintr(Call&& call) {
    for (;;) {
        auto result = call();
        if (!(result == -1 && errno == EINTR)) {
            return result;
        }
    }
}

}  // namespace platform
