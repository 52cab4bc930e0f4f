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

#include "config/kel_properties.h"
#include "tests/support/log_recording.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_child.h"

namespace kel::testing {
namespace {

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
    bool logOff = false;                     // the preference says no (on by default here)
    const char* scratchFolder = "scratch/";  // in the test's folder
    std::function<void()> onStart = [] {};
    std::function<void()> onCheck = [] {};
};

struct ScriptedServer : HostedServer {
    explicit ScriptedServer(const Scenario& scenario) : scenario(scenario) {}
    bool start() override {
        scenario.onStart();
        started = true;
        return scenario.serverStarts;
    }
    void stop() override { stopped = started.load(); }
    bool isBusy() const override {
        scenario.onCheck();
        return checks.fetch_add(1) < scenario.busyChecks;
    }

    const Scenario scenario;
    mutable std::atomic<int> checks{0};
    std::atomic<bool> started{false}, stopped{false};
};

// What one life of the daemon left behind.
struct Life {
    std::string systemLog;
    std::vector<std::string> records;  // the texts the log server's writers got
    std::shared_ptr<ScriptedServer> server;
};

class LifecycleTest : public ::testing::Test {
  protected:
    // The preferences are read from a folder of the suite's, named before the
    // process's first read, and no device description says that this is
    // anything but a carrier build, where the log file is on by default.
    static void SetUpTestSuite() {
        setenv("KEL_PREFERENCES_DIR", sPreferences.path().c_str(), 1);
        setenv("KEL_DEVICE_DESCRIPTION", sPreferences.file("none").c_str(), 1);
    }

    Life live(const Scenario& scenario) {
        Life life;
        const CapturedSystemLog systemLog;
        const auto writer = std::make_shared<RecordingWriter>();
        const std::string scratch = dir_.file(scenario.scratchFolder);
        const std::string store = sPreferences.file(KELProperties::kDomain + std::string(".json"));
        std::ofstream(store) << (scenario.logOff ? R"({"kel.enabled": "no"})" : "{}");
        systemlog::setEnabled(systemlog::Level::kDefault, scenario.mirrorsOn);
        lum::setMinimumLevel(scenario.recordsOn ? lum::LogLevel::kDebug : lum::LogLevel::kNotice);
        const DaemonParts parts{
            .makeLogServer =
                [&] {
                    auto server = scenario.logServer ? lum::LogServer::create("kel-test") : nullptr;
                    if (server) {
                        server->addWriter(writer);
                    }
                    return server;
                },
            .mayHost = [&] { return scenario.mayHost; },
            .makeServer = [&](std::shared_ptr<lum::LogServer>) -> std::shared_ptr<HostedServer> {
                return life.server = scenario.serverMade
                                         ? std::make_shared<ScriptedServer>(scenario)
                                         : nullptr;
            },
            .scratchFolder = scratch.c_str(),
            // Checks every millisecond, so that a run that ends by idleness is quick.
            .idleWatch = {1'000'000, 1'000'000, 0},
        };
        EXPECT_EQ(runDaemon(parts), 0);
        systemlog::setEnabled(systemlog::Level::kDefault, true);
        lum::setMinimumLevel(lum::LogLevel::kDebug);
        life.systemLog = systemLog.text();
        for (const lum::LogMessage& message : writer->messages()) {
            life.records.push_back(message.secondText);
        }
        return life;
    }

    static inline TempDir sPreferences;
    TempDir dir_;
};

enum class LogFile { kKept, kNone, kNothingMade };

// Every way through the daemon's life ends with status 0 and the server, if it
// was started, stopped. Each message reaches the system log and the log server
// in order, and none without a log server; either way can be off on its own.
// The log file, named after the scratch folder and the program, glued, holds
// the run's records; with the log off or without the folder's parent no
// folder is made. A link another user put in the file's place is never
// written through: the daemon says why once and runs on without a file.
TEST_F(LifecycleTest, EndsInOrderOnEveryPath) {
    const std::string program = program_invocation_short_name;
    const struct {
        const char* name;
        Scenario scenario;
        std::vector<std::string> messages;
        LogFile logFile = LogFile::kKept;
        const char* error = "";  // a pattern of the error line said first
        bool linkAtLog = false;  // to a file of another run's
    } kCases[] = {
        {"may not host, the system log off: records alone",
         {.mayHost = false, .mirrorsOn = false},
         {kNotAllowed, kExit}},
        {"no server could be made, records filtered out: mirrors alone",
         {.serverMade = false, .recordsOn = false},
         {kNotAllowed, kExit}},
        {"busy at two checks, then idle", {.busyChecks = 2}, {kBusy, kBusy, kIdle, kExit}},
        {"no log server, busy, then idle",
         {.logServer = false, .busyChecks = 2},
         {},
         LogFile::kNone},
        {"no log server, refused", {.logServer = false, .mayHost = false}, {}, LogFile::kNone},
        {"the server cannot start",
         {.serverStarts = false},
         {kExit},
         LogFile::kKept,
         "<3>cannot start the helper server; ending\n"},
        {"the log glued to a folder without a trailing slash",
         {.mayHost = false, .scratchFolder = "scratch"},
         {kNotAllowed, kExit}},
        {"the log switched off",
         {.mayHost = false, .logOff = true},
         {kNotAllowed, kExit},
         LogFile::kNothingMade},
        {"no log without the scratch folder's parent",
         {.mayHost = false, .scratchFolder = "missing/scratch/"},
         {kNotAllowed, kExit},
         LogFile::kNothingMade},
        {"a link in the log file's place",
         {.mayHost = false},
         {kNotAllowed, kExit},
         LogFile::kNone,
         "<3>not keeping a log file: .* is a symbolic link\n",
         true},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(dir_.path());
        std::filesystem::create_directory(dir_.path());
        const std::string log = dir_.file(c.scenario.scratchFolder) + program + ".log";
        if (c.linkAtLog) {
            std::filesystem::create_directory(dir_.file("scratch"));
            std::ofstream(dir_.file("victim")) << "precious";
            std::filesystem::create_symlink(dir_.file("victim"), log);
        }
        const Life life = live(c.scenario);
        if (life.server) {
            EXPECT_TRUE(life.server->started && life.server->stopped);
        }
        // Patterns of the system log's lines and of the log file.
        std::string systemLog = c.error, file;
        for (const std::string& message : c.messages) {
            if (c.scenario.mirrorsOn) {
                systemLog += "<5>#I " + message + "\n";
            }
            if (c.logFile == LogFile::kKept && c.scenario.recordsOn) {
                file += "[0-9]+\\.[0-9]{3}:Info:" + program + ":" + message + "\n";
            }
        }
        EXPECT_THAT(life.systemLog, ::testing::MatchesRegex(systemLog));
        EXPECT_EQ(life.records, c.scenario.recordsOn ? c.messages : std::vector<std::string>{});
        EXPECT_THAT(c.linkAtLog ? "" : readFile(log), ::testing::MatchesRegex(file));
        EXPECT_EQ(std::filesystem::is_empty(dir_.path()), c.logFile == LogFile::kNothingMade);
        if (c.linkAtLog) {
            EXPECT_EQ(readFile(dir_.file("victim")), "precious");
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

}  // namespace
}  // namespace kel::testing
