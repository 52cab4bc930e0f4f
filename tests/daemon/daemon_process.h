// A daemon binary run as a child process for end-to-end tests: its standard
// error is captured line by line with arrival times, and its exit is awaited
// through a pidfd. Every wait is bounded.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/temp_dir.h"

namespace kel::testing {

struct OutputLine {
    std::string text;
    std::chrono::steady_clock::duration sinceStart;
};

struct ExitStatus {
    bool exited = false;  // false: killed by a signal
    int code = 0;         // exit code, or the signal number
};

class DaemonProcess {
  public:
    // Starts `binary` with `arguments`, and with the current environment plus
    // `extraEnvironment` ("NAME=value" entries). With `stderrFd`, the child's
    // standard error is that descriptor instead, and no output is collected.
    DaemonProcess(const std::string& binary, const std::vector<std::string>& extraEnvironment,
                  int stderrFd = -1, const std::vector<std::string>& arguments = {});
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    pid_t pid() const { return pid_; }
    std::chrono::steady_clock::time_point startTime() const { return start_; }

    // Collects output until `deadline`, stamping each line as it arrives.
    void collectUntil(std::chrono::steady_clock::time_point deadline);

    // Waits for the process to end, collecting the rest of its output.
    std::optional<ExitStatus> waitForExit(std::chrono::milliseconds timeout);

    // Every line read so far.
    const std::vector<OutputLine>& lines() const { return lines_; }

    // Waits until SIGTERM is ignored as a signal by the process, which it is
    // once the termination watch is installed. There is no event for that, so
    // this reads /proc/PID/status every millisecond, up to `timeout`.
    bool waitUntilSigtermIgnored(std::chrono::milliseconds timeout);

    void sendSignal(int signal);

  private:
    bool readMore(std::chrono::steady_clock::time_point deadline);

    pid_t pid_ = -1;
    int pidfd_ = -1;
    int stderrFd_ = -1;
    std::chrono::steady_clock::time_point start_;
    std::string buffer_;
    std::vector<OutputLine> lines_;
    bool endOfOutput_ = false;
    std::optional<ExitStatus> status_;
};

// The environment that keeps every path of a daemon under `dir`: socket, lock
// and trace folders, the preferences store, and the device description
// (<dir>/device.json; absent unless the test writes one).
inline std::vector<std::string> isolatedEnvironment(const std::string& dir) {
    return {"KEL_HELPER_RUNTIME_DIR=" + dir, "KEL_PREFERENCES_DIR=" + dir,
            "KEL_DEVICE_DESCRIPTION=" + dir + "/device.json"};
}

// The system log's prefix for the default level, as the daemon writes it.
inline std::string defaultLevelLine(const std::string& text) {
    return "<5>#I " + text;
}

}  // namespace kel::testing
