#include "tests/daemon/daemon_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <thread>

#include "tests/support/log_recording.h"
#include "tests/support/temp_dir.h"

extern char** environ;

namespace kel::testing {

using Clock = std::chrono::steady_clock;

DaemonProcess::DaemonProcess(const std::string& binary,
                             const std::vector<std::string>& extraEnvironment, int stderrFd,
                             const std::vector<std::string>& arguments) {
    platform::UniqueFd writeEnd;
    std::string journalStream = "JOURNAL_STREAM=";
    if (stderrFd == kCaptureStderr) {
        int pipeFds[2];
        if (pipe2(pipeFds, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe2 failed");
        }
        stderr_.reset(pipeFds[0]);
        writeEnd.reset(pipeFds[1]);
        journalStream += journalStreamOf(writeEnd.get());
    }

    // The extra entries first: getenv takes the first entry of a name.
    std::vector<char*> envp = {journalStream.data()};
    for (const std::string& entry : extraEnvironment) {
        envp.push_back(const_cast<char*>(entry.c_str()));
    }
    for (char** entry = environ; *entry != nullptr; ++entry) {
        envp.push_back(*entry);
    }
    envp.push_back(nullptr);
    endOfOutput_ = stderrFd != kCaptureStderr;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stderrFd == kCloseStderr) {
        posix_spawn_file_actions_addclose(&actions, STDERR_FILENO);
    } else {
        posix_spawn_file_actions_adddup2(
            &actions, stderrFd == kCaptureStderr ? writeEnd.get() : stderrFd, STDERR_FILENO);
    }
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);
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
    if (error != 0) {
        throw std::runtime_error("posix_spawn failed for " + binary);
    }
    pidfd_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
}

DaemonProcess::~DaemonProcess() {
    if (!status_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

void DaemonProcess::collectUntil(Clock::time_point deadline) {
    while (!endOfOutput_) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd pfd{stderr_.get(), POLLIN, 0};
        if (left.count() <= 0 || poll(&pfd, 1, static_cast<int>(left.count())) <= 0) {
            return;
        }
        char chunk[4096];
        const ssize_t got = read(stderr_.get(), chunk, sizeof chunk);
        endOfOutput_ = got <= 0;
        buffer_.append(chunk, got > 0 ? static_cast<size_t>(got) : 0);
        for (size_t newline; (newline = buffer_.find('\n')) != std::string::npos;) {
            lines_.push_back({buffer_.substr(0, newline), Clock::now() - start_});
            buffer_.erase(0, newline + 1);
        }
    }
}

std::optional<int> DaemonProcess::waitForExit(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    collectUntil(deadline);
    // The pidfd polls readable once the process has ended.
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd pfd{pidfd_.get(), POLLIN, 0};
    int status = 0;
    if (!status_ && poll(&pfd, 1, std::max<int>(0, static_cast<int>(left.count()))) > 0 &&
        waitpid(pid_, &status, 0) == pid_) {
        status_ = status;
    }
    return status_;
}

bool DaemonProcess::waitUntilSigtermIgnored(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    const std::string statusPath = "/proc/" + std::to_string(pid_) + "/status";
    do {
        const std::string status = readFile(statusPath);
        const size_t ignored = status.find("SigIgn:");
        if (ignored != std::string::npos &&
            (std::stoull(status.substr(ignored + 7), nullptr, 16) >> (SIGTERM - 1) & 1) != 0) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    } while (Clock::now() < deadline);
    return false;
}

}  // namespace kel::testing
