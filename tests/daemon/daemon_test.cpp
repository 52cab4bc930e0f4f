// End-to-end runs of the real daemon binary, and of the same daemon linked
// against a double in place of one platform library, with every path in a
// scratch folder: refusals, signals, idle checks, its own log file, and the
// conditions an adversary or a broken machine sets up.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
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
using ::testing::StartsWith;
using Clock = std::chrono::steady_clock;
using platform::UniqueFd;

constexpr auto kQuick = 10s;

// The daemon's lines on standard error.
const std::string kNotAllowed = "<5>#I Not allowed to host kel helper server!";
const std::string kSignal = "<5>#I Signal received";
const std::string kBusy = "<5>#I Server is busy";
const std::string kIdle = "<5>#I Server is idle";
const std::string kExit = "<5>#I Exit!";

// The lines of `daemon` once it has ended with status 0, within `timeout`.
std::vector<std::string> exitedCleanly(DaemonProcess& daemon, std::chrono::milliseconds timeout) {
    const std::optional<int> status = daemon.waitForExit(timeout);
    EXPECT_TRUE(status && ::testing::ExitedWithCode(0)(*status)) << status.value_or(-1);
    std::vector<std::string> texts;
    for (const OutputLine& line : daemon.lines()) {
        texts.push_back(line.text);
    }
    return texts;
}

double secondsAt(const DaemonProcess& daemon, size_t line) {
    return std::chrono::duration<double>(daemon.lines().at(line).sinceStart).count();
}

class DaemonTest : public ::testing::Test {
  protected:
    // The daemons of a test that share a runtime folder share the hosting
    // lock, the socket, the preferences and the device description. Unless
    // the test makes it, the folder is not there yet: the first daemon does.
    std::vector<std::string> environment(const std::string& folder = "run") const {
        return isolatedEnvironment(dir_.file(folder));
    }
    std::string socketPath(const std::string& folder = "run") const {
        return dir_.file(folder + "/helper-server.sock");
    }

    TempDir dir_;
};

enum class Thing { kNothing, kFolder, kFile, kListeningSocket };

// Every way of being refused ends the same, with status 0 long before an idle
// check could come: a diagnostic first when something is in the way, then two
// lines. A daemon that hosts meanwhile, with a client connected, is not
// disturbed, still ends in order and removes its socket.
TEST_F(DaemonTest, RefusedStartsReportAndExitAtOnce) {
    DaemonProcess host(KEL_DAEMON_REAL, environment());
    ASSERT_TRUE(host.waitUntilSigtermIgnored(kQuick));
    const UniqueFd client(unixSocketAt(socketPath()));
    ASSERT_TRUE(client.valid());
    const struct {
        const char* refusal;
        std::string folder;  // the runtime folder, under the test's folder
        const char* binary = KEL_DAEMON_REAL;
        Thing thing = Thing::kNothing;
        std::string thingAt = "";   // under the test's folder
        const char* why = nullptr;  // what the first line says, when something is in the way
    } kCases[] = {
        {.refusal = "another daemon hosts", .folder = "run"},
        // Away from the host's lock, which would refuse it anyway.
        {.refusal = "the hosting check is absent", .folder = "a", .binary = KEL_DAEMON_NOWEAK},
        {.refusal = "a folder at the socket",
         .folder = "f",
         .thing = Thing::kFolder,
         .thingAt = "f/helper-server.sock",
         .why = "(a folder is in the way)"},
        {.refusal = "a file at the socket",
         .folder = "g",
         .thing = Thing::kFile,
         .thingAt = "g/helper-server.sock",
         .why = "other than a socket is in the way"},
        {.refusal = "another program at the socket",
         .folder = "p",
         .thing = Thing::kListeningSocket,
         .thingAt = "p/helper-server.sock",
         .why = "another program"},
        {.refusal = "a folder at the lock",
         .folder = "l",
         .thing = Thing::kFolder,
         .thingAt = "l/helper-server.lock",
         .why = "Is a directory"},
        {.refusal = "the runtime folder under a file",
         .folder = "file/run",
         .thing = Thing::kFile,
         .thingAt = "file",
         .why = "Not a dir"},
        {.refusal = "a socket path longer than an address holds",
         .folder = std::string(100, 'n'),
         .why = "longer than 107 bytes"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.refusal);
        const std::filesystem::path at = dir_.file(c.thingAt);
        std::filesystem::create_directories(at.parent_path());
        UniqueFd keep;
        if (c.thing == Thing::kFolder) {
            mkdir(at.c_str(), 0755);
        } else if (c.thing == Thing::kFile) {
            keep.reset(creat(at.c_str(), 0600));
        } else if (c.thing == Thing::kListeningSocket) {
            keep.reset(unixSocketAt(at, /*listening=*/true));
        }
        DaemonProcess daemon(c.binary, environment(c.folder));
        std::vector<std::string> lines = exitedCleanly(daemon, kQuick);
        if (c.why != nullptr && !lines.empty()) {
            EXPECT_THAT(lines[0], StartsWith("<3>cannot "));
            EXPECT_THAT(lines[0], ::testing::HasSubstr(c.why));
            lines.erase(lines.begin());
        }
        ASSERT_THAT(lines, ElementsAre(kNotAllowed, kExit));
        EXPECT_LT(secondsAt(daemon, daemon.lines().size() - 1), 2.0);
    }
    host.sendSignal(SIGTERM);
    std::vector<std::string> hostLines = exitedCleanly(host, kQuick);
    std::erase(hostLines, kBusy);  // an idle check may have come meanwhile
    EXPECT_THAT(hostLines, ElementsAre(kSignal, kExit));
    EXPECT_NE(access(socketPath().c_str(), F_OK), 0);
}

enum class Stderr { kRead, kFull, kReaderGone };

// However many signals arrive and whatever holds the daemon up, one is
// reported and the exit is orderly, within a bound, the socket removed. A
// daemon without a log server ends the same way in silence.
TEST_F(DaemonTest, SigtermEndsItInOrderWithinABound) {
    const struct {
        const char* name;
        int runs = 1;
        int signals = 1;
        const char* binary = KEL_DAEMON_REAL;
        int flatOutClients = 0;
        Stderr stderrIs = Stderr::kRead;  // else nobody reads it
        std::chrono::milliseconds bound = kQuick;
    } kCases[] = {
        {.name = "a storm of signals", .runs = 10, .signals = 1000},
        {.name = "a storm, no log server", .signals = 1000, .binary = KEL_DAEMON_NOLOGSERVER},
        {.name = "64 clients writing flat out", .flatOutClients = 64, .bound = 200ms},
        {.name = "a full standard error", .stderrIs = Stderr::kFull, .bound = 2s},
        {.name = "a standard error with no reader", .stderrIs = Stderr::kReaderGone, .bound = 2s},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        for (int run = 0; run < c.runs; ++run) {
            int fds[2];
            ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
            UniqueFd reader(fds[0]);
            UniqueFd writer(fds[1]);
            static const char kFiller[4096] = {};
            while (c.stderrIs == Stderr::kFull &&
                   write(writer.get(), kFiller, sizeof kFiller) > 0) {
            }
            fcntl(writer.get(), F_SETFL, 0);  // a blocking standard error, as usual
            std::vector<std::string> env = environment();
            // ThreadSanitizer would otherwise wait a second before every exit.
            env.push_back("TSAN_OPTIONS=halt_on_error=1:atexit_sleep_ms=0");
            DaemonProcess daemon(c.binary, env, c.stderrIs == Stderr::kRead ? -1 : writer.get());
            writer.reset();
            reader.reset(c.stderrIs == Stderr::kReaderGone ? -1 : reader.release());
            ASSERT_TRUE(daemon.waitUntilSigtermIgnored(kQuick));
            const auto clients = writeFlatOut(socketPath(), c.flatOutClients);
            std::this_thread::sleep_for(c.flatOutClients > 0 ? 300ms : 0ms);
            for (int i = 0; i < c.signals; ++i) {
                daemon.sendSignal(SIGTERM);
            }
            const bool told =
                c.stderrIs == Stderr::kRead && c.binary == std::string(KEL_DAEMON_REAL);
            const std::vector<std::string> expected = {kSignal, kExit};
            EXPECT_EQ(exitedCleanly(daemon, c.bound), told ? expected : std::vector<std::string>{});
            EXPECT_NE(access(socketPath().c_str(), F_OK), 0);
        }
    }
}

TEST_F(DaemonTest, SigtermBeforeTheWatchKillsTheProcess) {
    // The gated double blocks in HelperServer::start until the test has opened
    // and closed the gate, so the signal arrives before the termination watch
    // exists.
    const std::string gate = dir_.file("start-gate");
    ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
    std::vector<std::string> gated = environment();
    gated.push_back("KEL_TEST_START_GATE=" + gate);
    DaemonProcess daemon(KEL_DAEMON_GATED, gated);
    // Opening the FIFO for writing returns once the daemon has opened it for
    // reading, that is, once it is inside start().
    const UniqueFd gateFd(open(gate.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(gateFd.valid());
    daemon.sendSignal(SIGTERM);
    const std::optional<int> status = daemon.waitForExit(kQuick);
    EXPECT_TRUE(status && ::testing::KilledBySignal(SIGTERM)(*status)) << status.value_or(-1);
    EXPECT_TRUE(daemon.lines().empty());
}

// A real client keeps the helper server busy for 20 s, even though it shuts
// down its writing side at once (it may still be waiting for an answer); the
// checks at about 8 and 16 s find it busy, the one at about 24 s idle. Beside
// it a daemon with no client is idle at the first check, and a daemon without
// a log server, kept busy the same way, checks in silence and ends as well.
TEST_F(DaemonTest, BusyWhileAClientStaysThenIdle) {
    DaemonProcess daemon(KEL_DAEMON_REAL, environment());
    DaemonProcess alone(KEL_DAEMON_REAL, environment("alone"));
    DaemonProcess silent(KEL_DAEMON_NOLOGSERVER, environment("silent"));
    ASSERT_TRUE(daemon.waitUntilSigtermIgnored(kQuick) && silent.waitUntilSigtermIgnored(kQuick));
    UniqueFd client(unixSocketAt(socketPath()));
    UniqueFd silentClient(unixSocketAt(socketPath("silent")));
    ASSERT_TRUE(client.valid() && silentClient.valid());
    ASSERT_EQ(shutdown(client.get(), SHUT_WR), 0);
    ASSERT_THAT(exitedCleanly(alone, 20s), ElementsAre(kIdle, kExit));
    EXPECT_GE(secondsAt(alone, 0), 7.9);
    EXPECT_LE(secondsAt(alone, 0), 10.5);
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
    ASSERT_TRUE(std::filesystem::create_directory(dir_.file("run")));
    const std::vector<std::string> arguments = {
        "--listen=" + socketPath(), "--setenv=KEL_HELPER_RUNTIME_DIR",
        "--setenv=KEL_PREFERENCES_DIR", "--setenv=KEL_DEVICE_DESCRIPTION", KEL_DAEMON_REAL};
    for (const bool clientStays : {true, false}) {
        SCOPED_TRACE(clientStays ? "first start" : "second start");
        DaemonProcess activator(KEL_SOCKET_ACTIVATE, environment(), /*stderrFd=*/-1, arguments);
        UniqueFd client;
        for (auto deadline = Clock::now() + kQuick; !client.valid() && Clock::now() < deadline;) {
            client.reset(unixSocketAt(socketPath()));
            std::this_thread::sleep_for(1ms);
        }
        ASSERT_TRUE(client.valid());
        if (clientStays) {
            // Past the first idle check (8 s after the start, up to 2 s late).
            activator.collectUntil(Clock::now() + 11s);
        }
        client.reset();
        std::vector<std::string> messages = exitedCleanly(activator, 20s);
        std::erase_if(messages, [](const std::string& line) { return !line.starts_with("<5>"); });
        EXPECT_EQ(messages,
                  (clientStays ? std::vector{kBusy, kIdle, kExit} : std::vector{kIdle, kExit}));
        EXPECT_EQ(access(socketPath().c_str(), F_OK), 0) << "the manager's socket was unlinked";
    }
}

// A socket left by a daemon that died, which nobody accepts on, is replaced;
// then clients come and go as fast as they can.
TEST_F(DaemonTest, ConnectionChurnHoldsNoDescriptorsOfGoneClients) {
    ASSERT_TRUE(std::filesystem::create_directory(dir_.file("run")));
    close(unixSocketAt(socketPath(), /*listening=*/true));
    DaemonProcess daemon(KEL_DAEMON_REAL, environment());
    ASSERT_TRUE(daemon.waitUntilSigtermIgnored(kQuick));
    const long atRest = openDescriptors(daemon.pid());
    long most = atRest;
    std::atomic<bool> stop{false};
    std::jthread churn([&] {
        while (!stop) {
            close(unixSocketAt(socketPath()));
        }
    });
    for (const auto end = Clock::now() + 1s; Clock::now() < end;) {
        most = std::max(most, openDescriptors(daemon.pid()));
    }
    stop = true;
    EXPECT_LE(most, atRest + 2);  // the one client, and one it has just left
}

TEST_F(DaemonTest, DescriptorShortageIsSaidOnceAndCostsNoCpu) {
    DaemonProcess daemon(KEL_DAEMON_REAL, environment());
    ASSERT_TRUE(daemon.waitUntilSigtermIgnored(kQuick));
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
    EXPECT_THAT(exitedCleanly(daemon, kQuick),
                ElementsAre(StartsWith("<3>cannot accept more clients on "), kSignal, kExit));
}

enum class Outcome {
    kWritten,       // the file holds the run's records, and only them
    kLeftoverKept,  // the earlier run's file is as it was
    kNothingMade,   // no folder, no file: the runtime folder holds what the test put there
};

struct LogFileCase {
    const char* name;
    const char* binary;
    Outcome outcome;
    const char* scratch = "scratch/";  // the scratch folder, under the runtime folder
    const char* storedEnabled = nullptr;
    bool carrierBuild = true;
    bool leftover = false;  // a log file of an earlier run is in place
    bool refused = false;   // the daemon may not host and ends by itself; else SIGTERM ends it
    bool mirrored = true;   // the system log's default level is on, and it mirrors the records
};

class LogFileTest : public DaemonTest, public ::testing::WithParamInterface<LogFileCase> {};

TEST_P(LogFileTest, KeepsTheRunsRecordsOnlyWhenEnabled) {
    constexpr char kLeftover[] = "a line from an earlier run\n";
    const LogFileCase& run = GetParam();
    const std::string runtime = dir_.file("run");
    ASSERT_TRUE(std::filesystem::create_directory(runtime));
    const std::string scratch = runtime + "/" + run.scratch;
    const std::string program = std::filesystem::path(run.binary).filename();
    const std::string logPath = scratch + program + ".log";
    std::set<std::string> placed = {"device.json", "helper-server.lock"};
    std::ofstream(runtime + "/device.json")
        << (run.carrierBuild ? "{}" : R"({"carrierBuild": false})");
    if (run.storedEnabled != nullptr) {
        std::ofstream(runtime + "/org.kel.basebandmanager.json")
            << R"({"kel.enabled": ")" << run.storedEnabled << "\"}";
        placed.insert("org.kel.basebandmanager.json");
    }
    if (run.leftover) {
        ASSERT_EQ(mkdir(scratch.c_str(), 0755), 0);
        std::ofstream(logPath) << kLeftover;
    }

    std::vector<std::string> env = environment();
    env.push_back("KEL_TEST_SCRATCH_FOLDER=" + scratch);
    DaemonProcess daemon(run.binary, env);
    if (!run.refused) {
        ASSERT_TRUE(daemon.waitUntilSigtermIgnored(kQuick));
        daemon.sendSignal(SIGTERM);
    }
    // The other runs check the lines themselves; here only that there are some.
    EXPECT_EQ(exitedCleanly(daemon, kQuick).empty(), !run.mirrored);
    std::string records;
    for (const std::string message :
         {run.refused ? "Not allowed to host kel helper server!" : "Signal received", "Exit!"}) {
        records += "[0-9]+\\.[0-9]{3}:Info:" + program + ":" + message + "\n";
    }
    if (run.outcome == Outcome::kWritten) {
        EXPECT_THAT(readFile(logPath), ::testing::MatchesRegex(records));
    } else if (run.outcome == Outcome::kLeftoverKept) {
        EXPECT_EQ(readFile(logPath), kLeftover);
    } else {
        std::set<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(runtime)) {
            found.insert(entry.path().filename());
        }
        EXPECT_EQ(found, placed);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Runs, LogFileTest,
    ::testing::Values(LogFileCase{.name = "OnByDefaultOnACarrierBuildTruncatesTheLastRunsFile",
                                  .binary = KEL_DAEMON_REAL,
                                  .outcome = Outcome::kWritten,
                                  .leftover = true},
                      LogFileCase{.name = "RefusedStartLogsBothRecords",
                                  .binary = KEL_DAEMON_REFUSING,
                                  .outcome = Outcome::kWritten,
                                  .refused = true},
                      LogFileCase{.name = "FileGetsEveryRecordWithTheSystemLogOff",
                                  .binary = KEL_DAEMON_QUIET,
                                  .outcome = Outcome::kWritten,
                                  .mirrored = false},
                      LogFileCase{.name = "FolderWithoutTrailingSlashGetsTheNameGlued",
                                  .binary = KEL_DAEMON_SCRATCH_ENV,
                                  .outcome = Outcome::kWritten,
                                  .scratch = "scratch"},
                      LogFileCase{.name = "StoredNoLeavesTheLastRunsFileAlone",
                                  .binary = KEL_DAEMON_REAL,
                                  .outcome = Outcome::kLeftoverKept,
                                  .storedEnabled = "no",
                                  .leftover = true},
                      LogFileCase{.name = "OffByDefaultOffCarrierBuilds",
                                  .binary = KEL_DAEMON_REAL,
                                  .outcome = Outcome::kNothingMade,
                                  .carrierBuild = false},
                      LogFileCase{.name = "MissingParentFolderMeansNoFileAndNoComplaint",
                                  .binary = KEL_DAEMON_SCRATCH_ENV,
                                  .outcome = Outcome::kNothingMade,
                                  .scratch = "missing/scratch/"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kel::testing
