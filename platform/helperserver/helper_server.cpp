#include "platform/helperserver/helper_server.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>

#include "platform/helperserver/runtime_paths.h"
#include "platform/logserver/log.h"
#include "platform/posix/eintr.h"
#include "platform/posix/thread.h"
#include "platform/posix/unique_fd.h"
#include "platform/strings/format.h"

namespace kel {

namespace {

constexpr const char* kLoggerName = "HelperServer";

using platform::UniqueFd;

}  // namespace

struct HelperServer::Impl {
    // Reports through the log server, or the system log when there is none.
    void report(lum::LogLevel level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    bool watch(int fd, uint32_t events) const;
    void run();
    void acceptClients();
    // Reads and discards what a client sent; false once it has hung up.
    bool drainClient(int fd) const;

    std::shared_ptr<lum::LogServer> logServer;
    std::string socketPath;
    UniqueFd listenFd;
    UniqueFd epollFd;
    UniqueFd stopFd;  // an eventfd: readable once stop() wants the thread gone

    std::atomic<int> clientCount{0};
    // Client connections by descriptor; only the server thread touches them.
    std::unordered_map<int, UniqueFd> clients;

    std::mutex lifecycleMutex;
    bool started = false;  // guarded by lifecycleMutex
    bool stopped = false;  // guarded by lifecycleMutex
    std::thread thread;    // guarded by lifecycleMutex
};

void HelperServer::Impl::report(lum::LogLevel level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = platform::stringPrintfV(format, args);
    va_end(args);
    if (logServer) {
        logServer->submit(level, kLoggerName, std::move(text));
    } else {
        systemlog::write(systemlog::create(lum::kTelephonySubsystem, kLoggerName),
                         systemlog::Level::kError, "%s", text.c_str());
    }
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
            platform::retryOnEintr([&] { return epoll_wait(epollFd.get(), events, 16, -1); });
        if (ready < 0) {
            report(lum::LogLevel::kError, "epoll_wait: %s", strerror(errno));
            break;
        }
        bool stopRequested = false;
        for (int i = 0; i < ready; ++i) {
            const int fd = events[i].data.fd;
            if (fd == stopFd.get()) {
                stopRequested = true;
            } else if (fd == listenFd.get()) {
                acceptClients();
            } else if ((events[i].events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0 ||
                       !drainClient(fd)) {
                clients.erase(fd);  // closing also takes it out of the epoll set
                clientCount.fetch_sub(1, std::memory_order_release);
            }
        }
        if (stopRequested) {
            break;
        }
    }
    clients.clear();
    clientCount.store(0, std::memory_order_release);
}

void HelperServer::Impl::acceptClients() {
    for (;;) {
        UniqueFd client(platform::retryOnEintr([&] {
            return accept4(listenFd.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        }));
        if (!client.valid()) {
            // EAGAIN: the backlog is empty. ECONNABORTED concerns one client
            // only; the listening socket stays usable.
            const int error = errno;
            if (error == ECONNABORTED) {
                continue;
            }
            if (error != EAGAIN) {
                report(lum::LogLevel::kError, "accept: %s", strerror(error));
            }
            return;
        }
        if (!watch(client.get(), EPOLLIN | EPOLLRDHUP)) {
            report(lum::LogLevel::kError, "epoll_ctl: %s", strerror(errno));
            continue;
        }
        const int fd = client.get();
        clients.emplace(fd, std::move(client));
        clientCount.fetch_add(1, std::memory_order_release);
    }
}

bool HelperServer::Impl::drainClient(int fd) const {
    char buffer[512];
    for (;;) {
        const ssize_t got = platform::retryOnEintr([&] { return read(fd, buffer, sizeof buffer); });
        if (got <= 0) {
            return got < 0 && errno == EAGAIN;
        }
    }
}

HelperServer::HelperServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

// Only the holder of the hosting lock makes a server, so a socket file already
// at the path is a leftover of a holder that died: it is unlinked, not shared.
std::shared_ptr<HelperServer> HelperServer::create(std::shared_ptr<lum::LogServer> logServer) {
    auto impl = std::make_unique<Impl>();
    impl->logServer = std::move(logServer);
    impl->socketPath = runtime_paths::socketPath();

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (impl->socketPath.size() >= sizeof address.sun_path) {
        impl->report(lum::LogLevel::kError, "socket path too long: %s", impl->socketPath.c_str());
        return nullptr;
    }
    memcpy(address.sun_path, impl->socketPath.c_str(), impl->socketPath.size() + 1);
    if (!runtime_paths::ensureRuntimeDir()) {
        impl->report(lum::LogLevel::kError, "cannot make the runtime folder: %s", strerror(errno));
        return nullptr;
    }

    impl->listenFd.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!impl->listenFd.valid()) {
        impl->report(lum::LogLevel::kError, "socket: %s", strerror(errno));
        return nullptr;
    }
    unlink(impl->socketPath.c_str());
    if (bind(impl->listenFd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
            0 ||
        listen(impl->listenFd.get(), SOMAXCONN) != 0) {
        impl->report(lum::LogLevel::kError, "cannot listen on %s: %s", impl->socketPath.c_str(),
                     strerror(errno));
        unlink(impl->socketPath.c_str());
        return nullptr;
    }
    impl->epollFd.reset(epoll_create1(EPOLL_CLOEXEC));
    impl->stopFd.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!impl->epollFd.valid() || !impl->stopFd.valid() ||
        !impl->watch(impl->listenFd.get(), EPOLLIN) || !impl->watch(impl->stopFd.get(), EPOLLIN)) {
        impl->report(lum::LogLevel::kError, "cannot set up the event loop: %s", strerror(errno));
        unlink(impl->socketPath.c_str());
        return nullptr;
    }
    return std::shared_ptr<HelperServer>(new HelperServer(std::move(impl)));
}

HelperServer::~HelperServer() {
    stop();
}

void HelperServer::start() {
    std::lock_guard lock(impl_->lifecycleMutex);
    if (impl_->started || impl_->stopped) {
        return;
    }
    impl_->started = true;
    std::optional<std::thread> thread =
        platform::startThread("kel-helper", [impl = impl_.get()] { impl->run(); });
    if (thread) {
        impl_->thread = std::move(*thread);
    } else {
        impl_->report(lum::LogLevel::kError, "cannot start the server thread");
    }
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
    unlink(impl_->socketPath.c_str());
}

bool HelperServer::isBusy() const {
    return impl_->clientCount.load(std::memory_order_acquire) > 0;
}

}  // namespace kel
