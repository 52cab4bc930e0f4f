// Whole-process figures of the daemon, each beside its baseline:
//
//   daemon_figures idle-cost SECONDS BINARY...
//       Per binary: start it, keep a client connected to the helper server
//       socket (when there is one), let it settle, then count the voluntary
//       context switches of all its threads over SECONDS, scaled to one
//       minute, and read its resident memory (VmRSS).
//
//   daemon_figures sigterm-latency RUNS BINARY...
//       Per binary: RUNS times, start it, wait until its SIGTERM watch is in
//       place, send SIGTERM and time until the process has exited (its last
//       line written). Prints the median and the spread.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <dirent.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/daemon/daemon_process.h"
#include "tests/support/temp_dir.h"

using kel::testing::DaemonProcess;
using kel::testing::TempDir;
using namespace std::chrono_literals;

namespace {

long statusField(const std::string& path, const std::string& field) {
    std::ifstream status(path);
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field + ":", 0) == 0) {
            return std::strtol(line.c_str() + field.size() + 1, nullptr, 10);
        }
    }
    return -1;
}

long voluntarySwitches(pid_t pid) {
    const std::string taskDir = "/proc/" + std::to_string(pid) + "/task";
    long total = 0;
    DIR* dir = opendir(taskDir.c_str());
    if (dir == nullptr) {
        return -1;
    }
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') {
            total +=
                statusField(taskDir + "/" + entry->d_name + "/status", "voluntary_ctxt_switches");
        }
    }
    closedir(dir);
    return total;
}

int connectClient(const std::string& socketPath) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

void idleCost(int seconds, const std::vector<std::string>& binaries) {
    std::printf("%-40s %12s %10s %8s\n", "binary", "vcsw/min", "VmRSS KiB", "threads");
    for (const std::string& binary : binaries) {
        TempDir runtime;
        DaemonProcess process(binary, {"KEL_HELPER_RUNTIME_DIR=" + runtime.path()});
        process.waitUntilSigtermIgnored(5s);
        const int client = connectClient(runtime.path() + "/helper-server.sock");
        std::this_thread::sleep_for(3s);
        const long before = voluntarySwitches(process.pid());
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        const long after = voluntarySwitches(process.pid());
        const std::string status = "/proc/" + std::to_string(process.pid()) + "/status";
        std::printf("%-40s %12.1f %10ld %8ld%s\n", binary.c_str(),
                    static_cast<double>(after - before) * 60.0 / seconds,
                    statusField(status, "VmRSS"), statusField(status, "Threads"),
                    client < 0 ? "  (no client)" : "");
        process.sendSignal(SIGTERM);
        process.waitForExit(5s);
        if (client >= 0) {
            close(client);
        }
    }
}

void sigtermLatency(int runs, const std::vector<std::string>& binaries) {
    std::printf("%-40s %10s %10s %10s\n", "binary", "median ms", "min ms", "max ms");
    for (const std::string& binary : binaries) {
        std::vector<double> samples;
        for (int run = 0; run < runs; ++run) {
            TempDir runtime;
            DaemonProcess process(binary, {"KEL_HELPER_RUNTIME_DIR=" + runtime.path()});
            if (!process.waitUntilSigtermIgnored(5s)) {
                std::fprintf(stderr, "%s: SIGTERM watch never installed\n", binary.c_str());
                return;
            }
            // Let start-up finish so that only the shutdown is timed.
            std::this_thread::sleep_for(100ms);
            const auto start = std::chrono::steady_clock::now();
            process.sendSignal(SIGTERM);
            process.waitForExit(5s);
            samples.push_back(
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                    .count());
        }
        std::sort(samples.begin(), samples.end());
        std::printf("%-40s %10.2f %10.2f %10.2f\n", binary.c_str(), samples[samples.size() / 2],
                    samples.front(), samples.back());
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr,
                     "usage: %s idle-cost SECONDS BINARY... | sigterm-latency RUNS BINARY...\n",
                     argv[0]);
        return 2;
    }
    const std::string mode = argv[1];
    const int count = std::atoi(argv[2]);
    const std::vector<std::string> binaries(argv + 3, argv + argc);
    if (count <= 0) {
        std::fprintf(stderr, "%s: the count must be a positive number\n", argv[0]);
        return 2;
    }
    if (mode == "idle-cost") {
        idleCost(count, binaries);
    } else if (mode == "sigterm-latency") {
        sigtermLatency(count, binaries);
    } else {
        std::fprintf(stderr, "%s: unknown mode '%s'\n", argv[0], mode.c_str());
        return 2;
    }
    return 0;
}
