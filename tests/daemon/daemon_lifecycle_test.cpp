// End-to-end runs of the real daemon binary, and of the same daemon linked
// against a double in place of one platform library.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/daemon/daemon_process.h"
#include "tests/support/outside_probes.h"

namespace kel::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

constexpr auto kQuick = 10s;

std::vector<std::string> texts(const std::vector<OutputLine>& lines) {
    std::vector<std::string> result;
    for (const OutputLine& line : lines) {
        result.push_back(line.text);
    }
    return result;
}

double seconds(std::chrono::steady_clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

class DaemonTest : public ::testing::Test {
  protected:
    std::vector<std::string> environment() const { return isolatedEnvironment(runtime_.path()); }
    std::string socketPath() const { return runtime_.path() + "/helper-server.sock"; }

    TempDir runtime_;
};

// Every way of being refused ends the same: two messages, status 0, at once.
struct RefusalCase {
    const char* name;
    const char* binary;
};

class RefusedStartTest : public DaemonTest, public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(RefusedStartTest, ReportsAndExitsWithoutRunning) {
    DaemonProcess daemon(GetParam().binary, environment());
    const auto status = daemon.waitForExit(kQuick);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(status->exited);
    EXPECT_EQ(status->code, 0);
    EXPECT_THAT(texts(daemon.lines()),
                ElementsAre(defaultLevelLine("Not allowed to host kel helper server!"),
                            defaultLevelLine("Exit!")));
    // No run loop: the exit comes well before the first idle check.
    EXPECT_LT(seconds(daemon.lines().back().sinceStart), 2.0);
}

INSTANTIATE_TEST_SUITE_P(Refusals, RefusedStartTest,
                         ::testing::Values(RefusalCase{"HostingAnswersNo", KEL_DAEMON_REFUSING},
                                           RefusalCase{"CreateYieldsNothing", KEL_DAEMON_NOCREATE},
                                           RefusalCase{"HostingFunctionAbsent", KEL_DAEMON_NOWEAK}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(DaemonTest, SigtermEndsTheDaemonInOrder) {
    DaemonProcess daemon(KEL_DAEMON_REAL, environment());
    ASSERT_TRUE(daemon.waitUntilSigtermIgnored(kQuick));
    daemon.sendSignal(SIGTERM);
    daemon.sendSignal(SIGTERM);
    const auto status = daemon.waitForExit(kQuick);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(status->exited);
    EXPECT_EQ(status->code, 0);
    EXPECT_THAT(texts(daemon.lines()),
                ElementsAre(defaultLevelLine("Signal received"), defaultLevelLine("Exit!")));
}

TEST_F(DaemonTest, SigtermStormGivesOneOrderlyExit) {
    for (int run = 0; run < 10; ++run) {
        DaemonProcess daemon(KEL_DAEMON_REAL, environment());
        ASSERT_TRUE(daemon.waitUntilSigtermIgnored(kQuick));
        for (int i = 0; i < 1000; ++i) {
            daemon.sendSignal(SIGTERM);
        }
        const auto status = daemon.waitForExit(kQuick);
        ASSERT_TRUE(status.has_value()) << "run " << run;
        EXPECT_TRUE(status->exited) << "run " << run;
        EXPECT_EQ(status->code, 0) << "run " << run;
        EXPECT_THAT(texts(daemon.lines()),
                    ElementsAre(defaultLevelLine("Signal received"), defaultLevelLine("Exit!")))
            << "run " << run;
    }
}

TEST_F(DaemonTest, SigtermBeforeTheWatchKillsTheProcess) {
    // The gated double blocks in HelperServer::start until the test opens the
    // gate, so the signal arrives before the termination watch exists.
    const std::string gate = runtime_.path() + "/start-gate";
    ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
    std::vector<std::string> env = environment();
    env.push_back("KEL_TEST_START_GATE=" + gate);
    DaemonProcess daemon(KEL_DAEMON_GATED, env);
    // Opening the FIFO for writing returns once the daemon has opened it for
    // reading, that is, once it is inside start().
    const int gateFd = open(gate.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(gateFd, 0);
    daemon.sendSignal(SIGTERM);
    const auto status = daemon.waitForExit(kQuick);
    close(gateFd);
    ASSERT_TRUE(status.has_value());
    EXPECT_FALSE(status->exited);
    EXPECT_EQ(status->code, SIGTERM);
    EXPECT_TRUE(daemon.lines().empty());
}

TEST_F(DaemonTest, WithoutALogServerNothingIsEmittedAndSigtermStillEndsIt) {
    DaemonProcess daemon(KEL_DAEMON_NOLOGSERVER, environment());
    ASSERT_TRUE(daemon.waitUntilSigtermIgnored(kQuick));
    daemon.sendSignal(SIGTERM);
    const auto status = daemon.waitForExit(kQuick);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(status->exited);
    EXPECT_EQ(status->code, 0);
    EXPECT_TRUE(daemon.lines().empty());
}

TEST_F(DaemonTest, ASecondDaemonBesideARunningOneIsRefused) {
    DaemonProcess first(KEL_DAEMON_REAL, environment());
    ASSERT_TRUE(first.waitUntilSigtermIgnored(kQuick));

    DaemonProcess second(KEL_DAEMON_REAL, environment());
    const auto secondStatus = second.waitForExit(kQuick);
    ASSERT_TRUE(secondStatus.has_value());
    EXPECT_EQ(secondStatus->code, 0);
    EXPECT_THAT(texts(second.lines()),
                ElementsAre(defaultLevelLine("Not allowed to host kel helper server!"),
                            defaultLevelLine("Exit!")));

    first.sendSignal(SIGTERM);
    const auto firstStatus = first.waitForExit(kQuick);
    ASSERT_TRUE(firstStatus.has_value());
    EXPECT_EQ(firstStatus->code, 0);
}

TEST_F(DaemonTest, IdleAtTheFirstCheckEndsTheDaemon) {
    DaemonProcess daemon(KEL_DAEMON_REAL, environment());
    const auto status = daemon.waitForExit(20s);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(status->exited);
    EXPECT_EQ(status->code, 0);
    ASSERT_THAT(texts(daemon.lines()),
                ElementsAre(defaultLevelLine("Server is idle"), defaultLevelLine("Exit!")));
    const double idleAt = seconds(daemon.lines()[0].sinceStart);
    EXPECT_GE(idleAt, 7.9);
    EXPECT_LE(idleAt, 10.5);
}

// A real client keeps the helper server busy for 20 s; the checks at about 8
// and 16 s find it busy, the one at about 24 s idle.
TEST_F(DaemonTest, BusyForTwentySecondsThenIdle) {
    DaemonProcess daemon(KEL_DAEMON_REAL, environment());
    ASSERT_TRUE(daemon.waitUntilSigtermIgnored(kQuick));

    const int client = unixSocketAt(socketPath());
    ASSERT_GE(client, 0);

    daemon.collectUntil(daemon.startTime() + 20s);
    close(client);

    const auto status = daemon.waitForExit(20s);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 0);
    ASSERT_THAT(texts(daemon.lines()),
                ElementsAre(defaultLevelLine("Server is busy"), defaultLevelLine("Server is busy"),
                            defaultLevelLine("Server is idle"), defaultLevelLine("Exit!")));
    const double expected[] = {8.0, 16.0, 24.0};
    for (int i = 0; i < 3; ++i) {
        const double at = seconds(daemon.lines()[i].sinceStart);
        EXPECT_GE(at, expected[i] - 0.1) << "message " << i;
        EXPECT_LE(at, expected[i] + 2.5) << "message " << i;
    }
}

// systemd-socket-activate stands in for the service manager: it listens on the
// socket and, at the first connection, becomes the daemon with the listening
// socket handed over. The manager would go on listening after the daemon's
// exit; here a second activator takes the path over, as the manager's socket
// would still be there.
TEST_F(DaemonTest, ClientsStartItThroughItsSocketAndItIdlesOutEachTime) {
    std::vector<std::string> arguments = {"--listen=" + socketPath()};
    for (const char* name :
         {"KEL_HELPER_RUNTIME_DIR", "KEL_PREFERENCES_DIR", "KEL_DEVICE_DESCRIPTION"}) {
        arguments.push_back(std::string("--setenv=") + name);
    }
    arguments.push_back(KEL_DAEMON_REAL);
    for (const bool clientStays : {true, false}) {
        DaemonProcess activator(KEL_SOCKET_ACTIVATE, environment(), /*stderrFd=*/-1, arguments);
        int client = -1;
        for (auto deadline = std::chrono::steady_clock::now() + kQuick;
             client < 0 && std::chrono::steady_clock::now() < deadline;) {
            client = unixSocketAt(socketPath());
            std::this_thread::sleep_for(1ms);
        }
        ASSERT_GE(client, 0);
        if (clientStays) {
            // Past the first idle check (8 s after the start, up to 2 s late).
            activator.collectUntil(std::chrono::steady_clock::now() + 11s);
        }
        close(client);
        const auto status = activator.waitForExit(20s);
        ASSERT_TRUE(status.has_value());
        EXPECT_TRUE(status->exited);
        EXPECT_EQ(status->code, 0);
        std::vector<std::string> messages;
        for (const std::string& line : texts(activator.lines())) {
            if (line.starts_with("<5>")) {
                messages.push_back(line);
            }
        }
        std::vector<std::string> expected = {defaultLevelLine("Server is idle"),
                                             defaultLevelLine("Exit!")};
        if (clientStays) {
            expected.insert(expected.begin(), defaultLevelLine("Server is busy"));
        }
        EXPECT_EQ(messages, expected) << (clientStays ? "first start" : "second start");
        EXPECT_EQ(access(socketPath().c_str(), F_OK), 0) << "the manager's socket was unlinked";
    }
}

}  // namespace
}  // namespace kel::testing
