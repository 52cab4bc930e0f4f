#include "tests/daemon/daemon_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace kel::testing {

namespace {

using Clock = std::chrono::steady_clock;

int remainingMs(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

}  // namespace

DaemonProcess::DaemonProcess(const std::string& binary,
                             const std::vector<std::string>& extraEnvironment, int stderrFd,
                             const std::vector<std::string>& arguments) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        environment.emplace_back(*entry);
    }
    environment.insert(environment.end(), extraEnvironment.begin(), extraEnvironment.end());
    std::vector<char*> envp;
    for (std::string& entry : environment) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);

    int pipeFds[2] = {-1, stderrFd};
    if (stderrFd < 0 && pipe2(pipeFds, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2 failed");
    }
    endOfOutput_ = stderrFd >= 0;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);

    // The child starts with default signal dispositions and an empty mask,
    // whatever the test process has set for itself.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t empty;
    sigemptyset(&empty);
    sigset_t all;
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &empty);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<char*> argv = {const_cast<char*>(binary.c_str())};
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    start_ = Clock::now();
    const int error =
        posix_spawn(&pid_, binary.c_str(), &actions, &attributes, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (stderrFd < 0) {
        close(pipeFds[1]);
    }
    if (error != 0) {
        close(pipeFds[0]);
        throw std::runtime_error("posix_spawn failed for " + binary);
    }
    stderrFd_ = pipeFds[0];
    pidfd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    if (pidfd_ < 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        close(stderrFd_);
        throw std::runtime_error("pidfd_open failed");
    }
}

DaemonProcess::~DaemonProcess() {
    if (!status_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close(pidfd_);
    close(stderrFd_);
}

bool DaemonProcess::readMore(Clock::time_point deadline) {
    if (endOfOutput_) {
        return false;
    }
    pollfd pfd{stderrFd_, POLLIN, 0};
    const int ready = poll(&pfd, 1, remainingMs(deadline));
    if (ready <= 0) {
        return false;
    }
    char chunk[4096];
    const ssize_t got = read(stderrFd_, chunk, sizeof chunk);
    if (got <= 0) {
        endOfOutput_ = true;
        return false;
    }
    const auto now = Clock::now();
    buffer_.append(chunk, static_cast<size_t>(got));
    size_t newline;
    while ((newline = buffer_.find('\n')) != std::string::npos) {
        lines_.push_back({buffer_.substr(0, newline), now - start_});
        buffer_.erase(0, newline + 1);
    }
    return true;
}

void DaemonProcess::collectUntil(Clock::time_point deadline) {
    while (!endOfOutput_ && Clock::now() < deadline) {
        readMore(deadline);
    }
}

std::optional<ExitStatus> DaemonProcess::waitForExit(std::chrono::milliseconds timeout) {
    if (status_) {
        return status_;
    }
    const auto deadline = Clock::now() + timeout;
    pollfd pfd{pidfd_, POLLIN, 0};
    if (poll(&pfd, 1, remainingMs(deadline)) <= 0) {
        return std::nullopt;
    }
    int raw = 0;
    waitpid(pid_, &raw, 0);
    ExitStatus status;
    status.exited = WIFEXITED(raw);
    status.code = status.exited ? WEXITSTATUS(raw) : WTERMSIG(raw);
    status_ = status;
    // The write end is gone with the process: read to the end of the stream.
    while (readMore(deadline)) {
    }
    return status_;
}

bool DaemonProcess::waitUntilSigtermIgnored(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    const std::string statusPath = "/proc/" + std::to_string(pid_) + "/status";
    const unsigned long long sigtermBit = 1ull << (SIGTERM - 1);
    while (Clock::now() < deadline) {
        std::ifstream status(statusPath);
        std::string line;
        while (std::getline(status, line)) {
            if (line.rfind("SigIgn:", 0) == 0 &&
                (std::stoull(line.substr(7), nullptr, 16) & sigtermBit) != 0) {
                return true;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

void DaemonProcess::sendSignal(int signal) {
    kill(pid_, signal);
}

}  // namespace kel::testing
