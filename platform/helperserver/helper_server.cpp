#include "platform/helperserver/helper_server.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>

#include "platform/helperserver/report_error.h"
#include "platform/helperserver/runtime_paths.h"
#include "platform/helperserver/socket_activation.h"
#include "platform/posix/eintr.h"
#include "platform/posix/thread.h"
#include "platform/posix/unique_fd.h"

namespace kel {

namespace {

using platform::UniqueFd;

// At most this many connections are accepted per wake-up, and after a wake-up
// that found this many waiting the next ones wait kAcceptPauseMs: a client
// that connects and closes in a loop costs the server a bounded share of a
// core (16,000 connections a second at most), and the clients already
// connected are served in between.
constexpr int kAcceptsPerWake = 16;
constexpr int kAcceptPauseMs = 1;
// How long accepting pauses after it failed (descriptor shortage), unless a
// client leaves first.
constexpr int kAcceptRetryMs = 1000;
// Descriptors that clients never take: the rest of the process (a stack
// report and the debug information it reads, a log file) still gets some
// when the clients have taken all they can.
constexpr int kSpareDescriptors = 8;
// What one wake-up reads from one client: enough to keep up with a client
// that writes flat out, small enough that no client holds the thread.
constexpr size_t kReadChunk = 16 * 1024;

// Why bind found `address` in use, as a hint for the message; nullptr when
// what is there is a socket nobody accepts on any more (left by a holder that
// died), which has then been unlinked for a new bind.
const char* claimStaleSocket(const sockaddr_un& address) {
    struct stat status;
    if (lstat(address.sun_path, &status) != 0) {
        return nullptr;  // gone meanwhile
    }
    if (S_ISDIR(status.st_mode)) {
        return "a folder is in the way";
    }
    if (!S_ISSOCK(status.st_mode)) {
        return "something other than a socket is in the way; remove it";
    }
    const UniqueFd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        return "another program serves on it";
    }
    if (errno == EACCES || errno == EPERM) {
        return "a socket this user may not connect to is in the way; remove it";
    }
    if (errno != ECONNREFUSED) {
        return "another program serves on it";
    }
    unlink(address.sun_path);
    return nullptr;
}

}  // namespace

struct HelperServer::Impl {
    bool listenOnOwnSocket();
    bool watch(int fd, uint32_t events) const;
    void run();
    void serveClient(int fd, uint32_t events);
    void closeClient(int fd);
    void acceptClients();
    void pauseAccepting(int ms);
    void resumeAccepting();
    // How long the next wait for events may last.
    int waitMs() const;

    // Kept for the server's life, as its creator hands it over. Refusals and
    // failures go to the system log instead, so that they are said also when
    // there is no log server or it has not started.
    std::shared_ptr<lum::LogServer> logServer;
    std::string socketPath;
    bool ownsSocketFile = false;  // false for a socket a service manager handed over
    UniqueFd listenFd;
    UniqueFd epollFd;
    UniqueFd stopFd;  // an eventfd: readable once stop() wants the thread gone

    std::atomic<int> clientCount{0};
    // Only the server thread touches these.
    std::unordered_map<int, UniqueFd> clients;  // by descriptor
    bool acceptPaused = false;
    std::chrono::steady_clock::time_point acceptResumesAt;
    bool acceptFailureReported = false;

    std::mutex lifecycleMutex;
    bool started = false;  // guarded by lifecycleMutex
    bool stopped = false;  // guarded by lifecycleMutex
    std::thread thread;    // guarded by lifecycleMutex
};

bool HelperServer::Impl::listenOnOwnSocket() {
    const runtime_paths::RuntimeFolder folder = runtime_paths::openRuntimeFolder();
    if (!folder.fd.valid()) {
        return false;
    }
    socketPath = folder.path + "/" + runtime_paths::kSocketName;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof address.sun_path) {
        reportError("cannot bind %s: the path is longer than %zu bytes; use a shorter folder",
                    socketPath.c_str(), sizeof address.sun_path - 1);
        return false;
    }
    memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    listenFd.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listenFd.valid()) {
        reportError("cannot make a socket for %s: %s", socketPath.c_str(), strerror(errno));
        return false;
    }
    const auto* bindAddress = reinterpret_cast<const sockaddr*>(&address);
    if (bind(listenFd.get(), bindAddress, sizeof address) != 0) {
        std::string why = strerror(errno);
        const char* inTheWay = errno == EADDRINUSE ? claimStaleSocket(address) : "";
        if (inTheWay != nullptr || bind(listenFd.get(), bindAddress, sizeof address) != 0) {
            if (inTheWay == nullptr) {
                why = strerror(errno);
            } else if (inTheWay[0] != '\0') {
                why = why + " (" + inTheWay + ")";
            }
            reportError("cannot bind %s: %s", socketPath.c_str(), why.c_str());
            return false;
        }
    }
    ownsSocketFile = true;
    if (listen(listenFd.get(), SOMAXCONN) != 0) {
        reportError("cannot listen on %s: %s", socketPath.c_str(), strerror(errno));
        return false;
    }
    return true;
}

bool HelperServer::Impl::watch(int fd, uint32_t events) const {
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    return epoll_ctl(epollFd.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

void HelperServer::Impl::run() {
    epoll_event events[16];
    for (;;) {
        const int ready =
            platform::retryOnEintr([&] { return epoll_wait(epollFd.get(), events, 16, waitMs()); });
        if (ready < 0) {
            reportError("the helper server stops serving: epoll_wait: %s", strerror(errno));
            break;
        }
        if (acceptPaused && std::chrono::steady_clock::now() >= acceptResumesAt) {
            resumeAccepting();
        }
        // Hang-ups first, new clients after: a client that connects and
        // closes in a loop never makes the server hold more than a few
        // descriptors of clients that are gone.
        bool acceptReady = false;
        bool stopRequested = false;
        for (int i = 0; i < ready && !stopRequested; ++i) {
            const int fd = events[i].data.fd;
            stopRequested = fd == stopFd.get();
            if (fd == listenFd.get()) {
                acceptReady = true;
            } else if (!stopRequested) {
                serveClient(fd, events[i].events);
            }
        }
        if (stopRequested) {
            break;
        }
        if (acceptReady) {
            acceptClients();
        }
    }
    clients.clear();
    clientCount.store(0, std::memory_order_release);
}

// One read per wake-up, whatever the client has sent. A client that has
// only shut down its writing side stays connected, and busy, until it
// closes: from then on it is watched for the hang-up alone.
void HelperServer::Impl::serveClient(int fd, uint32_t events) {
    if ((events & (EPOLLHUP | EPOLLERR)) != 0) {
        closeClient(fd);
        return;
    }
    char buffer[kReadChunk];
    const ssize_t got = platform::retryOnEintr([&] { return read(fd, buffer, sizeof buffer); });
    if (got == 0) {
        epoll_event hangUpOnly{};
        hangUpOnly.data.fd = fd;
        epoll_ctl(epollFd.get(), EPOLL_CTL_MOD, fd, &hangUpOnly);
    } else if (got < 0 && errno != EAGAIN) {
        closeClient(fd);
    }
}

void HelperServer::Impl::closeClient(int fd) {
    clients.erase(fd);  // closing also takes it out of the epoll set
    clientCount.fetch_sub(1, std::memory_order_release);
    resumeAccepting();
}

// A client that has already closed again (many do, under churn) is let go
// at once, without ever being watched.
void HelperServer::Impl::acceptClients() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    // The kernel hands out the lowest free descriptor: a client would get
    // the one this probe gets.
    const UniqueFd probe(fcntl(listenFd.get(), F_DUPFD_CLOEXEC, 0));
    bool roomLeft =
        probe.valid() && static_cast<rlim_t>(probe.get() + kSpareDescriptors) < limit.rlim_cur;
    for (int accepted = 0; roomLeft && accepted < kAcceptsPerWake; ++accepted) {
        UniqueFd client(platform::retryOnEintr([&] {
            return accept4(listenFd.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        }));
        if (!client.valid() && errno == ECONNABORTED) {
            continue;  // concerns one client only
        }
        if (!client.valid() && errno == EAGAIN) {
            return;
        }
        pollfd state{client.get(), POLLIN, 0};
        if (client.valid() && poll(&state, 1, 0) == 1 && (state.revents & POLLHUP) != 0) {
            continue;
        }
        const int fd = client.get();
        roomLeft = client.valid() && watch(fd, EPOLLIN);
        if (roomLeft) {
            clients.emplace(fd, std::move(client));
            clientCount.fetch_add(1, std::memory_order_release);
            roomLeft = static_cast<rlim_t>(fd + 1 + kSpareDescriptors) < limit.rlim_cur;
        }
    }
    if (roomLeft) {
        pauseAccepting(kAcceptPauseMs);
        return;
    }
    // Out of descriptors (or memory), or nearly: the listening socket stays
    // readable, so accepting pauses until a client leaves or a while has
    // passed, instead of failing in a loop.
    if (!acceptFailureReported) {
        acceptFailureReported = true;
        reportError(
            "cannot accept more clients on %s: too many open files (at most %llu, %d of "
            "them kept for the rest of the process); new clients wait until one leaves",
            socketPath.c_str(), static_cast<unsigned long long>(limit.rlim_cur), kSpareDescriptors);
    }
    pauseAccepting(kAcceptRetryMs);
}

void HelperServer::Impl::pauseAccepting(int ms) {
    epoll_event event{};
    event.data.fd = listenFd.get();
    epoll_ctl(epollFd.get(), EPOLL_CTL_MOD, listenFd.get(), &event);
    acceptPaused = true;
    acceptResumesAt = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
}

void HelperServer::Impl::resumeAccepting() {
    if (!acceptPaused) {
        return;
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = listenFd.get();
    epoll_ctl(epollFd.get(), EPOLL_CTL_MOD, listenFd.get(), &event);
    acceptPaused = false;
}

int HelperServer::Impl::waitMs() const {
    if (!acceptPaused) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(
        acceptResumesAt - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

HelperServer::HelperServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

std::shared_ptr<HelperServer> HelperServer::create(std::shared_ptr<lum::LogServer> logServer) {
    auto impl = std::make_unique<Impl>();
    impl->logServer = std::move(logServer);
    impl->listenFd.reset(handedOverSocket());
    if (impl->listenFd.valid()) {
        sockaddr_un address{};
        socklen_t size = sizeof address;
        getsockname(impl->listenFd.get(), reinterpret_cast<sockaddr*>(&address), &size);
        impl->socketPath.assign(address.sun_path,
                                strnlen(address.sun_path, sizeof address.sun_path));
    } else if (!impl->listenOnOwnSocket()) {
        if (impl->ownsSocketFile) {
            unlink(impl->socketPath.c_str());
        }
        return nullptr;
    }
    impl->epollFd.reset(epoll_create1(EPOLL_CLOEXEC));
    impl->stopFd.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!impl->epollFd.valid() || !impl->stopFd.valid() ||
        !impl->watch(impl->listenFd.get(), EPOLLIN) || !impl->watch(impl->stopFd.get(), EPOLLIN)) {
        reportError("cannot serve on %s: %s", impl->socketPath.c_str(), strerror(errno));
        if (impl->ownsSocketFile) {
            unlink(impl->socketPath.c_str());
        }
        return nullptr;
    }
    return std::shared_ptr<HelperServer>(new HelperServer(std::move(impl)));
}

HelperServer::~HelperServer() {
    stop();
}

bool HelperServer::start() {
    std::lock_guard lock(impl_->lifecycleMutex);
    if (impl_->started || impl_->stopped) {
        return impl_->thread.joinable();
    }
    impl_->started = true;
    std::optional<std::thread> thread =
        platform::startThread("kel-helper", [impl = impl_.get()] { impl->run(); });
    if (!thread) {
        reportError("cannot start the helper server's thread: too many threads");
        return false;
    }
    impl_->thread = std::move(*thread);
    return true;
}

void HelperServer::stop() {
    std::lock_guard lock(impl_->lifecycleMutex);
    if (impl_->stopped) {
        return;
    }
    impl_->stopped = true;
    if (impl_->thread.joinable()) {
        eventfd_write(impl_->stopFd.get(), 1);
        impl_->thread.join();
    }
    impl_->listenFd.reset();
    impl_->stopFd.reset();
    impl_->epollFd.reset();
    if (impl_->ownsSocketFile) {
        unlink(impl_->socketPath.c_str());
    }
}

bool HelperServer::isBusy() const {
    return impl_->clientCount.load(std::memory_order_acquire) > 0;
}

}  // namespace kel
