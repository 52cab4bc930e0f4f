#include "tests/daemon/daemon_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "tests/support/log_recording.h"
#include "tests/support/outside_probes.h"
#include "tests/support/temp_dir.h"

extern char** environ;

namespace kel::testing {

using Clock = std::chrono::steady_clock;

DaemonProcess::DaemonProcess(const std::string& binary,
                             const std::vector<std::string>& extraEnvironment, int stderrFd,
                             const std::vector<std::string>& arguments) {
    std::string journalStream = "JOURNAL_STREAM=";
    if (stderrFd == kCaptureStderr) {
        stderr_.reset(memfd_create("stderr", MFD_CLOEXEC));
        stderrFd = stderr_.get();
        journalStream += journalStreamOf(stderrFd);
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
    std::vector<char*> argv = {const_cast<char*>(binary.c_str())};
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);

    start_ = Clock::now();
    pid_ = fork();
    if (pid_ < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid_ == 0) {
        // Only async-signal-safe calls up to exec: the test may run threads.
        struct sigaction defaults {};
        defaults.sa_handler = SIG_DFL;
        for (int signal = 1; signal < NSIG; ++signal) {
            sigaction(signal, &defaults, nullptr);
        }
        sigprocmask(SIG_SETMASK, &defaults.sa_mask, nullptr);  // an empty set
        dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        if (stderrFd == kCloseStderr) {
            close(STDERR_FILENO);
        } else {
            dup2(stderrFd, STDERR_FILENO);
        }
        execve(binary.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    pidfd_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
}

DaemonProcess::~DaemonProcess() {
    if (!status_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

std::optional<int> DaemonProcess::waitForExit(std::chrono::milliseconds timeout) {
    // The pidfd polls readable once the process has ended.
    pollfd pfd{pidfd_.get(), POLLIN, 0};
    int status = 0;
    if (status_ || poll(&pfd, 1, static_cast<int>(timeout.count())) <= 0 ||
        waitpid(pid_, &status, 0) != pid_) {
        return status_;
    }
    status_ = status;
    if (stderr_.valid()) {
        lines_ = linesOf(readFile("/proc/self/fd/" + std::to_string(stderr_.get())));
    }
    return status_;
}

bool DaemonProcess::waitUntilSigtermIgnored(std::chrono::milliseconds timeout) {
    const std::string statusPath = "/proc/" + std::to_string(pid_) + "/status";
    return eventually(
        [&] {
            const std::string status = readFile(statusPath);
            const size_t ignored = status.find("SigIgn:");
            return ignored != std::string::npos &&
                   (std::stoull(status.substr(ignored + 7), nullptr, 16) >> (SIGTERM - 1) & 1) != 0;
        },
        timeout);
}

}  // namespace kel::testing
