// Runs of the real daemon binary for what crosses the process boundary:
// signals, its standard descriptors, its limits, the service manager's socket
// and clients in other processes. Every path is in a scratch folder.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/daemon/daemon_process.h"
#include "tests/support/outside_probes.h"
#include "tests/support/temp_dir.h"

namespace kel::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using Clock = std::chrono::steady_clock;
using platform::UniqueFd;

constexpr auto kQuick = 10s;

const std::string kSignal = "<5>#I Signal received";
const std::string kExit = "<5>#I Exit!";

// The lines of `daemon` once it has ended with status 0, within `timeout`.
std::vector<std::string> exitedCleanly(DaemonProcess& daemon, std::chrono::milliseconds timeout) {
    EXPECT_EQ(daemon.waitForExit(timeout), std::optional<int>(0)) << "not ended with status 0";
    return daemon.lines();
}

class SignalsSocketsAndLimitsTest : public ::testing::Test {
  protected:
    std::string socketPath() const { return dir_.file("helper-server.sock"); }
    // The test's folder is the daemon's runtime folder, so that its scratch
    // folder can be made there at start-up and it keeps its log file.
    std::vector<std::string> environment() const { return isolatedEnvironment(dir_.path()); }

    TempDir dir_;
};

enum class Stderr { kRead, kFull, kReaderGone, kClosed };

// However many signals arrive and whatever holds the daemon up, one is
// reported and the exit is orderly, within a bound; the log file gets the
// records and nothing else, also when the daemon was started with standard
// error closed. systemd-socket-activate stands in for a service manager that
// starts the daemon at the first connection and hands its listening socket
// over: the daemon serves on it and leaves it in place, the manager's.
TEST_F(SignalsSocketsAndLimitsTest, SigtermEndsItInOrderWithinABound) {
    const struct {
        const char* name;
        int signals = 1;
        int flatOutClients = 0;
        Stderr stderrIs = Stderr::kRead;  // else nobody reads it
        std::chrono::milliseconds bound = kQuick;
        bool activated = false;
    } kCases[] = {
        {.name = "a storm of signals", .signals = 1000},
        {.name = "64 clients writing flat out", .flatOutClients = 64, .bound = 1s},
        {.name = "a full standard error", .stderrIs = Stderr::kFull, .bound = 2s},
        {.name = "a standard error with no reader", .stderrIs = Stderr::kReaderGone, .bound = 2s},
        {.name = "standard error closed", .stderrIs = Stderr::kClosed},
        {.name = "started through a service manager's socket", .activated = true},
    };
    const std::vector<std::string> activation = {
        "--listen=" + socketPath(),     "--setenv=KEL_HELPER_RUNTIME_DIR",
        "--setenv=KEL_PREFERENCES_DIR", "--setenv=KEL_DEVICE_DESCRIPTION",
        "--setenv=JOURNAL_STREAM",      KEL_DAEMON};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        int fds[2];
        ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
        UniqueFd reader(fds[0]);
        UniqueFd writer(fds[1]);
        static const char kFiller[4096] = {};
        while (c.stderrIs == Stderr::kFull && write(writer.get(), kFiller, sizeof kFiller) > 0) {
        }
        fcntl(writer.get(), F_SETFL, 0);  // a blocking standard error, as usual
        const int stderrFd = c.stderrIs == Stderr::kRead     ? kCaptureStderr
                             : c.stderrIs == Stderr::kClosed ? kCloseStderr
                                                             : writer.get();
        DaemonProcess daemon(c.activated ? KEL_SOCKET_ACTIVATE : KEL_DAEMON, environment(),
                             stderrFd, c.activated ? activation : std::vector<std::string>{});
        writer.reset();
        if (c.stderrIs == Stderr::kReaderGone) {
            reader.reset();
        }
        UniqueFd client;  // the first, which starts a daemon that a manager starts
        const auto connects = [&] {
            client.reset(unixSocketAt(socketPath()));
            return client.valid();
        };
        ASSERT_TRUE(!c.activated || eventually(connects, kQuick));
        ASSERT_TRUE(daemon.waitUntilSigtermIgnored(kQuick));
        // Else whatever the daemon opened first would take its lines.
        const std::string fd2 = "/proc/" + std::to_string(daemon.pid()) + "/fd/2";
        EXPECT_TRUE(c.stderrIs != Stderr::kClosed ||
                    std::filesystem::read_symlink(fd2) == "/dev/null");
        const auto clients = writeFlatOut(socketPath(), c.flatOutClients);
        std::this_thread::sleep_for(c.flatOutClients > 0 ? 300ms : 0ms);
        for (int i = 0; i < c.signals; ++i) {
            daemon.sendSignal(SIGTERM);
        }
        const std::vector<std::string> expected = {kSignal, kExit};
        std::vector<std::string> lines = exitedCleanly(daemon, c.bound);
        // The manager's own lines carry no priority.
        std::erase_if(lines, [](const std::string& line) { return !line.starts_with("<"); });
        EXPECT_EQ(lines, c.stderrIs == Stderr::kRead ? expected : std::vector<std::string>{});
        EXPECT_EQ(access(socketPath().c_str(), F_OK) == 0, c.activated);
        EXPECT_THAT(readFile(dir_.file("scratch/kelhelperd.log")),
                    ::testing::MatchesRegex("[0-9.]+:Info:kelhelperd:Signal received\n"
                                            "[0-9.]+:Info:kelhelperd:Exit!\n"));
    }
}

// Too few descriptors for whatever the daemon needs at some step of its
// start: at every limit it either ends by itself at once, in order and with
// status 0, or runs with both of its watches in place and ends at SIGTERM as
// promptly as ever.
TEST_F(SignalsSocketsAndLimitsTest, EveryDescriptorLimitEndsInOrderOrRuns) {
#if defined(__has_feature)
    if (__has_feature(address_sanitizer) || __has_feature(thread_sanitizer)) {
        GTEST_SKIP() << "the sanitizers' own checks need descriptors (UBSan tests memory "
                        "through a pipe), so a sanitized daemon fails at limits it handles";
    }
#endif
    for (int limit = 5; limit <= 14; ++limit) {
        SCOPED_TRACE(limit);
        const std::string nofile = "--nofile=" + std::to_string(limit);
        DaemonProcess daemon(KEL_PRLIMIT, environment(), kCaptureStderr, {nofile, KEL_DAEMON});
        const std::string fds = "/proc/" + std::to_string(daemon.pid()) + "/fd";
        const auto watched = [&] {
            bool timer = false;
            std::error_code gone;
            for (auto it = std::filesystem::directory_iterator(fds, gone);
                 it != std::filesystem::directory_iterator(); it.increment(gone)) {
                timer = timer || std::filesystem::read_symlink(*it, gone) == "anon_inode:[timerfd]";
            }
            return timer && daemon.waitUntilSigtermIgnored(0ms);
        };
        bool exited = false;
        // Well before the first idle check at 8 s, which would end a daemon
        // that runs without its SIGTERM watch.
        ASSERT_TRUE(eventually(
            [&] { return (exited = daemon.waitForExit(0ms).has_value()) || watched(); }, 5s))
            << "neither ended nor running with both watches";
        if (exited) {
            const std::vector<std::string> lines = exitedCleanly(daemon, 0ms);
            EXPECT_TRUE(lines.empty() || lines.back() == kExit) << ::testing::PrintToString(lines);
            continue;
        }
        daemon.sendSignal(SIGTERM);
        EXPECT_THAT(exitedCleanly(daemon, 1s), ElementsAre(kSignal, kExit));
    }
}

// A daemon started right after one was killed hosts: the socket left behind
// is replaced and the lock went with the dead one. Clients that come and go as
// fast as they can leave it holding no descriptors of theirs; more clients
// than its descriptor limit allows are said once and cost it no CPU.
TEST_F(SignalsSocketsAndLimitsTest, ARestartAfterAKillServesChurnAndShortageFrugally) {
    {
        DaemonProcess killed(KEL_DAEMON, environment());
        ASSERT_TRUE(killed.waitUntilSigtermIgnored(kQuick));
        killed.sendSignal(SIGKILL);
        ASSERT_TRUE(killed.waitForExit(kQuick));
    }
    DaemonProcess daemon(KEL_DAEMON, environment());
    ASSERT_TRUE(daemon.waitUntilSigtermIgnored(kQuick)) << "a refused daemon ends unwatched";
    const long atRest = openDescriptors(daemon.pid());
    long most = atRest;
    {
        const std::jthread churn([&](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                close(unixSocketAt(socketPath()));
            }
        });
        for (const auto end = Clock::now() + 1s; Clock::now() < end;) {
            most = std::max(most, openDescriptors(daemon.pid()));
        }
    }
    EXPECT_LE(most, atRest + 2);  // the one client, and one it has just left

    const rlimit limit{32, 32};
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
    std::vector<UniqueFd> clients;
    while (clients.size() < 100) {
        clients.emplace_back(unixSocketAt(socketPath()));
    }
    std::this_thread::sleep_for(200ms);
    const double cpuBefore = cpuSeconds(daemon.pid());
    std::this_thread::sleep_for(1s);
    EXPECT_LT(cpuSeconds(daemon.pid()) - cpuBefore, 0.1);
    daemon.sendSignal(SIGTERM);
    EXPECT_THAT(
        exitedCleanly(daemon, kQuick),
        ElementsAre(::testing::StartsWith("<3>cannot accept more clients on "), kSignal, kExit));
}

}  // namespace
}  // namespace kel::testing
