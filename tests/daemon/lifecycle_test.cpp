// The daemon's whole life run in the test's process through runDaemon, with a
// scripted server in place of the helper server and the idle watch on
// millisecond timing: the hosting decision, the idle watch, the ordered
// shutdown, the two ways each message goes out, and the daemon's own log
// file, on and off and under attack.
#include "daemon/daemon.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/doubles/fake_device.h"
#include "tests/support/log_recording.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_child.h"

namespace kel::testing {
namespace {

using ::testing::HasSubstr;

constexpr const char* kNotAllowed = "Not allowed to host kel helper server!";
constexpr const char* kBusy = "Server is busy";
constexpr const char* kIdle = "Server is idle";
constexpr const char* kExit = "Exit!";

struct Scenario {
    bool logServer = true;
    bool mayHost = true;
    bool serverMade = true;
    bool serverStarts = true;
    int busyChecks = 0;                      // the server is busy at so many checks, then idle
    bool mirrorsOn = true;                   // the system log's default level
    bool recordsOn = true;                   // the level filter lets the records through
    const char* scratchFolder = "scratch/";  // in the test's folder
    std::function<void()> onStart = [] {};
    std::function<void()> onCheck = [] {};
};

class ScriptedServer : public HostedServer {
  public:
    explicit ScriptedServer(Scenario scenario) : scenario_(std::move(scenario)) {}
    bool start() override {
        scenario_.onStart();
        started = true;
        return scenario_.serverStarts;
    }
    void stop() override { stopped = started.load(); }
    bool isBusy() const override {
        scenario_.onCheck();
        return checks_.fetch_add(1) < scenario_.busyChecks;
    }

    std::atomic<bool> started{false};
    std::atomic<bool> stopped{false};

  private:
    const Scenario scenario_;
    mutable std::atomic<int> checks_{0};
};

// What one life of the daemon left behind.
struct Life {
    int status = -1;
    std::vector<std::string> systemLog;
    std::vector<std::string> records;  // the texts the log server's writers got
    std::shared_ptr<ScriptedServer> server;
};

class LifecycleTest : public ::testing::Test {
  protected:
    // The preferences are read from an empty folder of the suite's, named
    // before the process's first read.
    static void SetUpTestSuite() { setenv("KEL_PREFERENCES_DIR", sPreferences.path().c_str(), 1); }

    Life live(const Scenario& scenario) {
        Life result;
        const CapturedSystemLog systemLog;
        const auto writer = std::make_shared<RecordingWriter>();
        const std::string scratch = dir_.file(scenario.scratchFolder);
        const DaemonParts parts{
            .makeLogServer = [&]() -> std::shared_ptr<lum::LogServer> {
                if (!scenario.logServer) {
                    return nullptr;
                }
                auto server = lum::LogServer::create("kel-test");
                server->addWriter(writer);
                return server;
            },
            .mayHost = [&] { return scenario.mayHost; },
            .makeServer = [&](std::shared_ptr<lum::LogServer>) -> std::shared_ptr<HostedServer> {
                return result.server = scenario.serverMade
                                           ? std::make_shared<ScriptedServer>(scenario)
                                           : nullptr;
            },
            .scratchFolder = scratch.c_str(),
            // Checks every millisecond, so that a run that ends by idleness is quick.
            .idleWatch = {1'000'000, 1'000'000, 0},
        };
        systemlog::setEnabled(systemlog::Level::kDefault, scenario.mirrorsOn);
        lum::setMinimumLevel(scenario.recordsOn ? lum::LogLevel::kDebug : lum::LogLevel::kNotice);
        result.status = runDaemon(parts);
        systemlog::setEnabled(systemlog::Level::kDefault, true);
        lum::setMinimumLevel(lum::LogLevel::kDebug);
        result.systemLog = systemLog.lines();
        for (const lum::LogMessage& message : writer->messages()) {
            result.records.push_back(message.secondText);
        }
        return result;
    }

    static inline TempDir sPreferences;
    TempDir dir_;
};

// Every way through the daemon's life ends with status 0 and the server, if
// it was started, stopped; each message reaches the system log and the log
// server in order, and none without a log server. Either way can be off on
// its own, and the other goes on as it was.
TEST_F(LifecycleTest, EndsInOrderOnEveryPath) {
    const struct {
        const char* name;
        Scenario scenario;
        std::vector<std::string> messages;
        const char* error = nullptr;  // the error line said first
    } kCases[] = {
        {"may not host", {.mayHost = false}, {kNotAllowed, kExit}},
        {"no server could be made", {.serverMade = false}, {kNotAllowed, kExit}},
        {"busy at two checks, then idle", {.busyChecks = 2}, {kBusy, kBusy, kIdle, kExit}},
        {"no log server, busy, then idle", {.logServer = false, .busyChecks = 2}, {}},
        {"no log server, refused", {.logServer = false, .mayHost = false}, {}},
        {"the system log off: records alone",
         {.busyChecks = 1, .mirrorsOn = false},
         {kBusy, kIdle, kExit}},
        {"records filtered out: mirrors alone",
         {.busyChecks = 1, .recordsOn = false},
         {kBusy, kIdle, kExit}},
        {"the server cannot start",
         {.serverStarts = false},
         {kExit},
         "<3>cannot start the helper server; ending"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        const Life life = live(c.scenario);
        EXPECT_EQ(life.status, 0);
        std::vector<std::string> lines;
        if (c.error != nullptr) {
            lines.push_back(c.error);
        }
        for (const std::string& message : c.messages) {
            lines.push_back("<5>#I " + message);
        }
        EXPECT_EQ(life.systemLog, c.scenario.mirrorsOn ? lines : std::vector<std::string>{});
        EXPECT_EQ(life.records, c.scenario.recordsOn ? c.messages : std::vector<std::string>{});
        if (life.server) {
            EXPECT_TRUE(life.server->started && life.server->stopped);
        }
    }
}

// SIGTERM has its default action until the termination watch is in place, and
// ends the daemon in order after, in silence without a log server. Each case
// runs in a child of its own: the daemons run before in this process have left
// SIGTERM watched and ignored here.
TEST_F(LifecycleTest, SigtermKillsUntilWatchedThenEndsInOrder) {
    const auto sigterm = [] { kill(getpid(), SIGTERM); };
    if (const char* which = childArgument()) {
        signal(SIGTERM, SIG_DFL);  // as a daemon starts: neither ignored nor blocked
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
        const Life life = std::string(which) == "before"
                              ? live({.onStart = sigterm})
                              : live({.logServer = false, .busyChecks = 1000, .onCheck = sigterm});
        EXPECT_EQ(std::string(which), "watched") << "still running after SIGTERM";
        EXPECT_TRUE(life.systemLog.empty() && life.records.empty());
        return;
    }
    int status = runTestAgain("before");
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    status = runTestAgain("watched");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

// Whether there is a log file is the enabling preference's call (on by
// default on a carrier build that is not internal); its path is the scratch
// folder and the program name, glued. Each start truncates it, and a refused
// one writes both its records. A link another user put in its place (see the
// writer's own tests for every kind of hostile file) is never written through:
// the daemon says why once and runs on without a file.
TEST_F(LifecycleTest, KeepsItsOwnLogFileOnlyWhereItIsSafe) {
    constexpr char kLeftover[] = "an earlier run's line\n";
    const std::string program = program_invocation_short_name;
    const struct {
        const char* name;
        const char* scratchFolder;
        bool carrierBuild = true;
        bool written = false;      // else nothing is made, and a link's target stays
        bool linkInPlace = false;  // to an earlier run's file
    } kCases[] = {
        {.name = "on on a carrier build, glued to a folder without a trailing slash",
         .scratchFolder = "scratch",
         .written = true},
        {.name = "off off carrier builds", .scratchFolder = "scratch/", .carrierBuild = false},
        {.name = "no file and no complaint without the folder's parent",
         .scratchFolder = "missing/scratch/"},
        {.name = "a link in the file's place", .scratchFolder = "scratch/", .linkInPlace = true},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(dir_.path());
        std::filesystem::create_directory(dir_.path());
        const std::string log = dir_.file(c.scratchFolder) + program + ".log";
        if (c.linkInPlace) {
            std::filesystem::create_directory(dir_.file("scratch"));
            std::ofstream(dir_.file("victim")) << kLeftover;
            std::filesystem::create_symlink(dir_.file("victim"), log);
        }
        if (c.written) {
            std::ofstream(log) << kLeftover;
        }
        fakeDevice().carrierBuild = c.carrierBuild;
        const Life life = live({.mayHost = false, .scratchFolder = c.scratchFolder});

        if (c.written) {
            const std::string record = "[0-9]+\\.[0-9]{3}:Info:" + program + ":";
            EXPECT_THAT(readFile(log), ::testing::MatchesRegex(record + kNotAllowed + "\n" +
                                                               record + kExit + "\n"));
        } else if (c.linkInPlace) {
            EXPECT_EQ(readFile(dir_.file("victim")), kLeftover);
        } else {
            EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
        }
        // Before the two records' mirrors, only why there is no file.
        ASSERT_EQ(life.systemLog.size(), c.linkInPlace ? 3u : 2u);
        if (c.linkInPlace) {
            EXPECT_THAT(life.systemLog[0],
                        ::testing::AllOf(HasSubstr("<3>not keeping a log file: "),
                                         HasSubstr("symbolic link")));
        }
    }
}

}  // namespace
}  // namespace kel::testing
