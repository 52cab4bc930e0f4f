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
//       line written). Prints the median and the spread, first with no
//       client, then with 64 clients that write to the helper server socket
//       as fast as they can.
//
//   daemon_figures churn SECONDS BINARY...
//       Per binary: one client connects and closes in a loop for SECONDS while
//       the binary's open descriptors are counted every millisecond. Prints
//       the connections made, the descriptors open before the churn and the
//       most seen during it, and the binary's CPU time as a share of one core.
//
//   daemon_figures start-latency RUNS BINARY...
//       Per binary: RUNS times, start it and time until a client's connect to
//       the helper server socket succeeds, trying every 100 us. Prints the
//       median and the spread.
//
// Every run has its paths in a scratch folder and the daemon's own log file
// turned on there.
#include <linux/close_range.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <dirent.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/daemon/daemon_process.h"
#include "tests/support/outside_probes.h"
#include "tests/support/temp_dir.h"

using kel::testing::cpuSeconds;
using kel::testing::DaemonProcess;
using kel::testing::isolatedEnvironment;
using kel::testing::openDescriptors;
using kel::testing::TempDir;
using kel::testing::unixSocketAt;
using kel::testing::writeFlatOut;
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

// A process of `binary` with every path under `runtime` and its log file on.
std::unique_ptr<DaemonProcess> startWithLogFile(const std::string& binary, const TempDir& runtime) {
    std::ofstream(runtime.file("org.kel.basebandmanager.json")) << R"({"kel.enabled": "yes"})";
    return std::make_unique<DaemonProcess>(binary, isolatedEnvironment(runtime.path()));
}

void idleCost(int seconds, const std::vector<std::string>& binaries) {
    std::printf("%-40s %12s %10s %8s\n", "binary", "vcsw/min", "VmRSS KiB", "threads");
    for (const std::string& binary : binaries) {
        TempDir runtime;
        const auto started = startWithLogFile(binary, runtime);
        DaemonProcess& process = *started;
        process.waitUntilSigtermIgnored(5s);
        const int client = unixSocketAt(runtime.path() + "/helper-server.sock");
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

// Runs `measure` RUNS times per binary, each on a fresh process, and prints
// the median and the spread of what it returns, in milliseconds.
void timeRuns(int runs, const std::vector<std::string>& binaries, const char* label,
              const std::function<double(DaemonProcess&, const TempDir&)>& measure) {
    std::printf("%-40s %12s %10s %10s %10s\n", "binary", "", "median ms", "min ms", "max ms");
    for (const std::string& binary : binaries) {
        std::vector<double> samples;
        for (int run = 0; run < runs; ++run) {
            TempDir runtime;
            const auto process = startWithLogFile(binary, runtime);
            const double sample = measure(*process, runtime);
            if (sample < 0) {
                std::fprintf(stderr, "%s: run %d failed\n", binary.c_str(), run);
                return;
            }
            samples.push_back(sample);
        }
        std::sort(samples.begin(), samples.end());
        std::printf("%-40s %12s %10.2f %10.2f %10.2f\n", binary.c_str(), label,
                    samples[samples.size() / 2], samples.front(), samples.back());
    }
}

double millisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

// SIGTERM to exit, with `clients` writing to the socket flat out meanwhile.
double sigtermToExit(DaemonProcess& process, const TempDir& runtime, int clients) {
    if (!process.waitUntilSigtermIgnored(5s)) {
        return -1;
    }
    const auto writers = writeFlatOut(runtime.path() + "/helper-server.sock", clients);
    // Let start-up finish, and the writers get going, so that only the
    // shutdown is timed.
    std::this_thread::sleep_for(clients > 0 ? 300ms : 100ms);
    const auto start = std::chrono::steady_clock::now();
    process.sendSignal(SIGTERM);
    process.waitForExit(10s);
    return millisecondsSince(start);
}

void churn(int seconds, const std::vector<std::string>& binaries) {
    std::printf("%-40s %12s %8s %8s %8s\n", "binary", "connections", "fds", "max fds", "CPU %");
    for (const std::string& binary : binaries) {
        TempDir runtime;
        const auto started = startWithLogFile(binary, runtime);
        DaemonProcess& process = *started;
        process.waitUntilSigtermIgnored(5s);
        const std::string socketPath = runtime.path() + "/helper-server.sock";
        const long fdsBefore = openDescriptors(process.pid());
        std::atomic<bool> stop{false};
        std::atomic<long> connections{0};
        std::thread client([&] {
            while (!stop.load(std::memory_order_relaxed)) {
                const int fd = unixSocketAt(socketPath);
                connections.fetch_add(fd >= 0, std::memory_order_relaxed);
                close(fd);
            }
        });
        const double cpuBefore = cpuSeconds(process.pid());
        const auto start = std::chrono::steady_clock::now();
        const auto end = start + std::chrono::seconds(seconds);
        long maxFds = 0;
        while (std::chrono::steady_clock::now() < end) {
            maxFds = std::max(maxFds, openDescriptors(process.pid()));
            std::this_thread::sleep_for(1ms);
        }
        const double elapsed =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const double cpu = cpuSeconds(process.pid()) - cpuBefore;
        stop = true;
        client.join();
        std::printf("%-40s %12ld %8ld %8ld %8.1f\n", binary.c_str(), connections.load(), fdsBefore,
                    maxFds, 100.0 * cpu / elapsed);
        process.sendSignal(SIGTERM);
        process.waitForExit(5s);
    }
}

double startToFirstClient(DaemonProcess& process, const TempDir& runtime) {
    const auto deadline = process.startTime() + 5s;
    int client;
    while ((client = unixSocketAt(runtime.path() + "/helper-server.sock")) < 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            return -1;
        }
        std::this_thread::sleep_for(100us);
    }
    const double elapsed = millisecondsSince(process.startTime());
    close(client);
    process.waitUntilSigtermIgnored(5s);
    process.sendSignal(SIGTERM);
    process.waitForExit(5s);
    return elapsed;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr,
                     "usage: %s idle-cost SECONDS BINARY... | sigterm-latency RUNS BINARY..."
                     " | start-latency RUNS BINARY... | churn SECONDS BINARY...\n",
                     argv[0]);
        return 2;
    }
    // The binaries measured inherit no descriptor of whoever started this.
    close_range(3, ~0u, CLOSE_RANGE_CLOEXEC);
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
        for (const int clients : {0, 64}) {
            timeRuns(count, binaries, clients == 0 ? "no client" : "64 clients",
                     [clients](DaemonProcess& process, const TempDir& runtime) {
                         return sigtermToExit(process, runtime, clients);
                     });
        }
    } else if (mode == "start-latency") {
        timeRuns(count, binaries, "", startToFirstClient);
    } else if (mode == "churn") {
        churn(count, binaries);
    } else {
        std::fprintf(stderr, "%s: unknown mode '%s'\n", argv[0], mode.c_str());
        return 2;
    }
    return 0;
}
