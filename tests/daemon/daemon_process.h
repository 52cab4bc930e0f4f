// A daemon binary run as a child process for end-to-end tests and benchmarks.
// Every wait is bounded (the exit is awaited through a pidfd), and a process
// still running when its owner goes is killed.
#pragma once

#include <signal.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "platform/posix/unique_fd.h"

namespace kel::testing {

// What becomes of a child's standard error, when it is not a given descriptor.
inline constexpr int kCaptureStderr = -1;
inline constexpr int kCloseStderr = -2;

class DaemonProcess {
  public:
    // Starts `binary` with `arguments`, default signal dispositions, no signal
    // blocked, standard input /dev/null, and the current environment with
    // `extraEnvironment` ("NAME=value" entries) in front, overriding it. Its
    // standard error is collected in a file in memory (named as the journal's
    // stream, so that its lines carry their priority), or is `stderrFd`, or is
    // closed.
    DaemonProcess(const std::string& binary, const std::vector<std::string>& extraEnvironment,
                  int stderrFd = kCaptureStderr, const std::vector<std::string>& arguments = {});
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    pid_t pid() const { return pid_; }
    std::chrono::steady_clock::time_point startTime() const { return start_; }
    void sendSignal(int signal) { kill(pid_, signal); }

    // Waits for the process to end; its wait status, or nothing when it is
    // still running after `timeout`.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout);

    // The lines of its collected standard error, once it has ended.
    const std::vector<std::string>& lines() const { return lines_; }

    // Waits until SIGTERM is ignored as a signal by the process, which it is
    // once the termination watch is installed. There is no event for that, so
    // this reads /proc/PID/status every millisecond, up to `timeout`.
    bool waitUntilSigtermIgnored(std::chrono::milliseconds timeout);

  private:
    pid_t pid_ = -1;
    platform::UniqueFd pidfd_;
    platform::UniqueFd stderr_;
    std::chrono::steady_clock::time_point start_;
    std::vector<std::string> lines_;
    std::optional<int> status_;
};

// The environment that keeps every path of a daemon under `dir`: socket, lock
// and trace folders, the preferences store, and the device description
// (<dir>/device.json; absent unless the test writes one). A daemon built with
// ThreadSanitizer would otherwise wait a second before it exits.
inline std::vector<std::string> isolatedEnvironment(const std::string& dir) {
    return {"KEL_HELPER_RUNTIME_DIR=" + dir, "KEL_PREFERENCES_DIR=" + dir,
            "KEL_DEVICE_DESCRIPTION=" + dir + "/device.json",
            "TSAN_OPTIONS=halt_on_error=1:atexit_sleep_ms=0"};
}

}  // namespace kel::testing
