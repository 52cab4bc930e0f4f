// End-to-end runs of the real daemon binary, and of the same daemon linked
// against a double in place of one platform library.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
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

constexpr auto kQuick = 10s;

// The daemon's lines on standard error.
const std::string kNotAllowed = "<5>#I Not allowed to host kel helper server!";
const std::string kSignal = "<5>#I Signal received";
const std::string kBusy = "<5>#I Server is busy";
const std::string kIdle = "<5>#I Server is idle";
const std::string kExit = "<5>#I Exit!";

// The lines of `daemon` once it has ended with status 0.
std::vector<std::string> exitedCleanly(DaemonProcess& daemon, std::chrono::seconds timeout) {
    const std::optional<int> status = daemon.waitForExit(timeout);
    EXPECT_TRUE(status && ::testing::ExitedWithCode(0)(*status)) << status.value_or(-1);
    std::vector<std::string> texts;
    for (const OutputLine& line : daemon.lines()) {
        texts.push_back(line.text);
    }
    return texts;
}

// A connection to the helper server's socket at `path`; invalid when nothing
// accepts there.
platform::UniqueFd connectUnixSocket(const std::string& path) {
    return platform::UniqueFd(unixSocketAt(path));
}

double secondsAt(const DaemonProcess& daemon, size_t line) {
    return std::chrono::duration<double>(daemon.lines().at(line).sinceStart).count();
}

class DaemonTest : public ::testing::Test {
  protected:
    // The daemons of a test that share a runtime folder share the hosting
    // lock, the socket, the preferences and the device description. The folder
    // is not there yet: the first daemon makes it.
    std::vector<std::string> environment(const std::string& folder = "run") const {
        return isolatedEnvironment(runtime_.file(folder));
    }

    TempDir runtime_;
};

// Every way of being refused ends the same: two lines and status 0, long
// before an idle check could come. A daemon that hosts meanwhile, with a
// client connected, is not disturbed, still ends in order and removes its
// socket.
TEST_F(DaemonTest, RefusedStartsReportAndExitAtOnce) {
    DaemonProcess host(KEL_DAEMON_REAL, environment());
    ASSERT_TRUE(host.waitUntilSigtermIgnored(kQuick));
    const std::string socket = runtime_.file("run/helper-server.sock");
    const platform::UniqueFd client = connectUnixSocket(socket);
    ASSERT_TRUE(client.valid());
    const struct {
        const char* refusal;
        const char* binary;
        std::string folder;
    } kCases[] = {
        {"another daemon hosts", KEL_DAEMON_REAL, "run"},
        {"the hosting check answers no", KEL_DAEMON_REFUSING, "run"},
        {"the server cannot be made", KEL_DAEMON_NOCREATE, "run"},
        // Away from the host's lock, which would refuse it anyway.
        {"the hosting check is absent", KEL_DAEMON_NOWEAK, "alone"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.refusal);
        DaemonProcess daemon(c.binary, environment(c.folder));
        ASSERT_THAT(exitedCleanly(daemon, kQuick), ElementsAre(kNotAllowed, kExit));
        EXPECT_LT(secondsAt(daemon, 1), 2.0);
    }
    host.sendSignal(SIGTERM);
    EXPECT_THAT(exitedCleanly(host, kQuick), ElementsAre(kSignal, kExit));
    EXPECT_NE(access(socket.c_str(), F_OK), 0);
}

// However many signals arrive, one is reported and the exit is orderly; the
// last run, without a log server, ends the same way in silence.
TEST_F(DaemonTest, SigtermStormGivesOneOrderlyExit) {
    for (int run = 0; run <= 10; ++run) {
        SCOPED_TRACE(run);
        const bool silent = run == 10;
        DaemonProcess daemon(silent ? KEL_DAEMON_NOLOGSERVER : KEL_DAEMON_REAL, environment());
        ASSERT_TRUE(daemon.waitUntilSigtermIgnored(kQuick));
        for (int i = 0; i < 1000; ++i) {
            daemon.sendSignal(SIGTERM);
        }
        const std::vector<std::string> expected = {kSignal, kExit};
        EXPECT_EQ(exitedCleanly(daemon, kQuick), silent ? std::vector<std::string>{} : expected);
    }
}

TEST_F(DaemonTest, SigtermBeforeTheWatchKillsTheProcess) {
    // The gated double blocks in HelperServer::start until the test has opened
    // and closed the gate, so the signal arrives before the termination watch
    // exists.
    const std::string gate = runtime_.file("start-gate");
    ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
    std::vector<std::string> gated = environment();
    gated.push_back("KEL_TEST_START_GATE=" + gate);
    DaemonProcess daemon(KEL_DAEMON_GATED, gated);
    // Opening the FIFO for writing returns once the daemon has opened it for
    // reading, that is, once it is inside start().
    const platform::UniqueFd gateFd(open(gate.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(gateFd.valid());
    daemon.sendSignal(SIGTERM);
    const std::optional<int> status = daemon.waitForExit(kQuick);
    EXPECT_TRUE(status && ::testing::KilledBySignal(SIGTERM)(*status)) << status.value_or(-1);
    EXPECT_TRUE(daemon.lines().empty());
}

TEST_F(DaemonTest, IdleAtTheFirstCheckEndsTheDaemon) {
    DaemonProcess daemon(KEL_DAEMON_REAL, environment());
    ASSERT_THAT(exitedCleanly(daemon, 20s), ElementsAre(kIdle, kExit));
    EXPECT_GE(secondsAt(daemon, 0), 7.9);
    EXPECT_LE(secondsAt(daemon, 0), 10.5);
}

// A real client keeps the helper server busy for 20 s; the checks at about 8
// and 16 s find it busy, the one at about 24 s idle. Beside it a daemon without
// a log server, kept busy the same way, checks in silence and ends as well.
TEST_F(DaemonTest, BusyWhileAClientStaysThenIdle) {
    // A socket left by a daemon that died, which nobody accepts on, is
    // replaced.
    ASSERT_TRUE(std::filesystem::create_directory(runtime_.file("silent")));
    ASSERT_GE(close(unixSocketAt(runtime_.file("silent/helper-server.sock"), /*listening=*/true)),
              0);
    DaemonProcess daemon(KEL_DAEMON_REAL, environment());
    DaemonProcess silent(KEL_DAEMON_NOLOGSERVER, environment("silent"));
    ASSERT_TRUE(daemon.waitUntilSigtermIgnored(kQuick) && silent.waitUntilSigtermIgnored(kQuick));
    platform::UniqueFd client = connectUnixSocket(runtime_.file("run/helper-server.sock"));
    platform::UniqueFd silentClient = connectUnixSocket(runtime_.file("silent/helper-server.sock"));
    ASSERT_TRUE(client.valid() && silentClient.valid());
    daemon.collectUntil(daemon.startTime() + 20s);
    client.reset();
    silentClient.reset();

    ASSERT_THAT(exitedCleanly(daemon, 20s), ElementsAre(kBusy, kBusy, kIdle, kExit));
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_GE(secondsAt(daemon, i), 8.0 * (i + 1) - 0.1) << i;
        EXPECT_LE(secondsAt(daemon, i), 8.0 * (i + 1) + 2.5) << i;
    }
    EXPECT_TRUE(exitedCleanly(silent, kQuick).empty());
}

// systemd-socket-activate stands in for the service manager: it listens on the
// socket and, at the first connection, becomes the daemon with the listening
// socket handed over. The manager would go on listening after the daemon's
// exit; here a second activator takes the path over, as the manager's socket
// would still be there.
TEST_F(DaemonTest, ClientsStartItThroughItsSocketAndItIdlesOutEachTime) {
    const std::string socket = runtime_.file("run/helper-server.sock");
    ASSERT_TRUE(std::filesystem::create_directory(runtime_.file("run")));
    std::vector<std::string> arguments = {"--listen=" + socket};
    for (const char* name :
         {"KEL_HELPER_RUNTIME_DIR", "KEL_PREFERENCES_DIR", "KEL_DEVICE_DESCRIPTION"}) {
        arguments.push_back(std::string("--setenv=") + name);
    }
    arguments.push_back(KEL_DAEMON_REAL);
    for (const bool clientStays : {true, false}) {
        SCOPED_TRACE(clientStays ? "first start" : "second start");
        DaemonProcess activator(KEL_SOCKET_ACTIVATE, environment(), /*stderrFd=*/-1, arguments);
        platform::UniqueFd client;
        for (auto deadline = std::chrono::steady_clock::now() + kQuick;
             !client.valid() && std::chrono::steady_clock::now() < deadline;) {
            client = connectUnixSocket(socket);
            std::this_thread::sleep_for(1ms);
        }
        ASSERT_TRUE(client.valid());
        if (clientStays) {
            // Past the first idle check (8 s after the start, up to 2 s late).
            activator.collectUntil(std::chrono::steady_clock::now() + 11s);
        }
        client.reset();
        std::vector<std::string> messages;
        for (const std::string& line : exitedCleanly(activator, 20s)) {
            if (line.starts_with("<5>")) {
                messages.push_back(line);
            }
        }
        std::vector<std::string> expected = {kIdle, kExit};
        if (clientStays) {
            expected.insert(expected.begin(), kBusy);
        }
        EXPECT_EQ(messages, expected);
        EXPECT_EQ(access(socket.c_str(), F_OK), 0) << "the manager's socket was unlinked";
    }
}

}  // namespace
}  // namespace kel::testing
