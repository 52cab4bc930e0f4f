// The daemon seen from outside, for tests and benchmarks: clients of its
// Unix-domain stream socket (close-on-exec), figures of its process, and
// waiting for what it shows.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace kel::testing {

// A socket connected to `path` (or, with `listening`, bound to it and
// listening), or -1.
inline int unixSocketAt(const std::string& path, bool listening = false) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const auto* raw = reinterpret_cast<const sockaddr*>(&address);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && (listening ? bind(fd, raw, sizeof address) != 0 || listen(fd, 16) != 0
                              : connect(fd, raw, sizeof address) != 0)) {
        close(fd);
        return -1;
    }
    return fd;
}

// `count` clients, a thread each, that write to `path` as fast as they can
// until the server hangs up on them; the threads end then.
inline std::vector<std::jthread> writeFlatOut(const std::string& path, int count) {
    std::vector<std::jthread> clients;
    for (int i = 0; i < count; ++i) {
        clients.emplace_back([path] {
            static const char kChunk[64 * 1024] = {};
            const int fd = unixSocketAt(path);
            while (fd >= 0 && send(fd, kChunk, sizeof kChunk, MSG_NOSIGNAL) > 0) {
            }
            close(fd);
        });
    }
    return clients;
}

// Whether `condition` comes to hold within `timeout`, asked every millisecond:
// for a state of another thread or process that has no event to wait on.
inline bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    for (; !condition(); std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
    }
    return true;
}

inline long openDescriptors(pid_t pid) {
    return std::distance(
        std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd"), {});
}

// The processor time all threads of `pid` have used so far, in seconds.
inline double cpuSeconds(pid_t pid) {
    clockid_t clock;
    timespec used{};
    clock_getcpuclockid(pid, &clock);
    clock_gettime(clock, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

}  // namespace kel::testing
