// The baseline for the daemon's whole-process figures: the least a program of
// the daemon's shape can do. The main thread sleeps in epoll in 2 s slices,
// accepts clients on a Unix socket at the helper server's place under
// KEL_HELPER_RUNTIME_DIR and ends on SIGTERM read through signalfd; one thread
// wakes on an 8 s timerfd; two more threads sleep for good, standing in for
// the log server's and the helper server's threads. "Exit!" goes to standard
// error with one write, as the daemon's last line does.
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

void timerThread() {
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    itimerspec schedule{};
    schedule.it_value.tv_sec = 8;
    schedule.it_interval.tv_sec = 8;
    timerfd_settime(timer, 0, &schedule, nullptr);
    uint64_t expirations;
    while (read(timer, &expirations, sizeof expirations) > 0) {
    }
}

void sleeperThread() {
    pause();
}

int listenAtHelperServerPath() {
    const char* runtime = getenv("KEL_HELPER_RUNTIME_DIR");
    const std::string path =
        std::string(runtime != nullptr ? runtime : "/tmp") + "/helper-server.sock";
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path.c_str());
    bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    listen(fd, SOMAXCONN);
    return fd;
}

}  // namespace

int main() {
    sigset_t all;
    sigfillset(&all);
    sigset_t previous;
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    std::thread(timerThread).detach();
    std::thread(sleeperThread).detach();
    std::thread(sleeperThread).detach();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);

    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, nullptr);
    const int signals = signalfd(-1, &term, SFD_CLOEXEC);
    signal(SIGTERM, SIG_IGN);

    const int listening = listenAtHelperServerPath();
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = signals;
    epoll_ctl(epoll, EPOLL_CTL_ADD, signals, &event);
    event.data.fd = listening;
    epoll_ctl(epoll, EPOLL_CTL_ADD, listening, &event);
    for (;;) {
        epoll_event ready;
        if (epoll_wait(epoll, &ready, 1, 2000) != 1) {
            continue;
        }
        if (ready.data.fd == signals) {
            break;
        }
        const int client = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
        if (client >= 0) {
            close(client);
        }
    }
    static const char kExit[] = "<5>#I Exit!\n";
    if (write(STDERR_FILENO, kExit, sizeof kExit - 1) < 0) {
        return 1;
    }
    return 0;
}
