// UniqueFd: sole owner of one file descriptor, closed when the owner goes.
//
// Move-only. The descriptor is closed exactly once, without retrying: on Linux
// close(2) has released the descriptor even when it reports EINTR, and a second
// close could hit a descriptor that another thread has just been given.
#pragma once

#include <unistd.h>

#include <utility>

namespace platform {

class UniqueFd {
  public:
    UniqueFd() = default;
    // Takes ownership of `fd`; a negative value means no descriptor.
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

    // Closes the owned descriptor, if any, and takes ownership of `fd`.
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }

    // Gives up ownership without closing; the caller now owns the result.
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }

  private:
    int fd_ = -1;
};

}  // namespace platform
