// The baseline for the daemon's whole-process figures: the least a program of
// the daemon's shape can do. The main thread sleeps in epoll in 2 s slices
// and ends on SIGTERM read through signalfd; one thread wakes on an 8 s
// timerfd; two more threads sleep for good, standing in for the log server's
// and the helper server's threads. "Exit!" goes to standard error with one
// write, as the daemon's last line does.
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdint>
#include <thread>

namespace {

void timerThread() {
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    itimerspec spec{};
    spec.it_value.tv_sec = 8;
    spec.it_interval.tv_sec = 8;
    timerfd_settime(timer, 0, &spec, nullptr);
    uint64_t expirations;
    while (read(timer, &expirations, sizeof expirations) > 0) {
    }
}

void sleeperThread() {
    pause();
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

    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    epoll_ctl(epoll, EPOLL_CTL_ADD, signals, &event);
    for (;;) {
        epoll_event ready;
        if (epoll_wait(epoll, &ready, 1, 2000) == 1) {
            break;
        }
    }
    static const char kExit[] = "<5>#I Exit!\n";
    if (write(STDERR_FILENO, kExit, sizeof kExit - 1) < 0) {
        return 1;
    }
    return 0;
}
