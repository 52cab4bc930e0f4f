// The daemon's whole life run in the test's process through runDaemon, with a
// scripted server in place of the helper server and the idle watch on
// millisecond timing: the hosting decision, the idle watch, the ordered
// shutdown and the daemon's own log file, on and off and under attack.
#include "daemon/daemon.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
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

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* kNotAllowed = "Not allowed to host kel helper server!";
constexpr const char* kBusy = "Server is busy";
constexpr const char* kIdle = "Server is idle";
constexpr const char* kExit = "Exit!";

// Checks every millisecond, so that a run that ends by idleness is quick.
constexpr IdleWatchTiming kQuickChecks{1'000'000, 1'000'000, 0};

struct Scenario {
    bool logServer = true;
    bool mayHost = true;
    bool serverMade = true;
    bool serverStarts = true;
    int busyChecks = 0;              // the server is busy at so many checks, then idle
    std::string scratchFolder = {};  // empty: the test's own
    std::function<void()> onStart = {};
    std::function<void()> onCheck = {};
};

class ScriptedServer : public HostedServer {
  public:
    explicit ScriptedServer(Scenario scenario) : scenario_(std::move(scenario)) {}
    bool start() override {
        if (scenario_.onStart) {
            scenario_.onStart();
        }
        started = true;
        return scenario_.serverStarts;
    }
    void stop() override { stopped = started.load(); }
    bool isBusy() const override {
        if (scenario_.onCheck) {
            scenario_.onCheck();
        }
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
    // The preferences are read from a folder of the suite's, named before the
    // process's first read.
    static void SetUpTestSuite() { setenv("KEL_PREFERENCES_DIR", sPreferences.path().c_str(), 1); }

    void SetUp() override {
        fakeDevice() = FakeDevice{};
        std::filesystem::remove(preferencesFile());
    }

    static std::string preferencesFile() {
        return sPreferences.file("org.kel.basebandmanager.json");
    }

    Life live(const Scenario& scenario) {
        Life result;
        const CapturedSystemLog systemLog;
        const auto writer = std::make_shared<RecordingWriter>();
        const std::string scratch =
            scenario.scratchFolder.empty() ? dir_.file("scratch/") : scenario.scratchFolder;
        DaemonParts parts;
        parts.makeLogServer = [&]() -> std::shared_ptr<lum::LogServer> {
            if (!scenario.logServer) {
                return nullptr;
            }
            auto server = lum::LogServer::create("kel-test");
            server->addWriter(writer);
            return server;
        };
        parts.mayHost = [&] { return scenario.mayHost; };
        parts.makeServer = [&](std::shared_ptr<lum::LogServer>) -> std::shared_ptr<HostedServer> {
            if (scenario.serverMade) {
                result.server = std::make_shared<ScriptedServer>(scenario);
            }
            return result.server;
        };
        parts.scratchFolder = scratch.c_str();
        parts.idleWatch = kQuickChecks;
        result.status = runDaemon(parts);
        result.systemLog = systemLog.lines();
        for (const lum::LogMessage& message : writer->messages()) {
            result.records.push_back(message.secondText);
        }
        return result;
    }

    std::string logFile(const std::string& scratch = "scratch/") const {
        return dir_.file(scratch) + program_invocation_short_name + ".log";
    }

    static inline TempDir sPreferences;
    TempDir dir_;
};

std::vector<std::string> mirrored(const std::vector<std::string>& messages) {
    std::vector<std::string> lines;
    for (const std::string& message : messages) {
        lines.push_back("<5>#I " + message);
    }
    return lines;
}

// Every way through the daemon's life ends with status 0 and the server, if
// it was started, stopped; each message reaches the system log and the log
// server in order, and none without a log server.
TEST_F(LifecycleTest, EndsInOrderOnEveryPath) {
    const struct {
        const char* name;
        Scenario scenario;
        std::vector<std::string> messages;
        const char* error = nullptr;  // the error line said first
    } kCases[] = {
        {"may not host", {.mayHost = false}, {kNotAllowed, kExit}},
        {"no server could be made", {.serverMade = false}, {kNotAllowed, kExit}},
        {"idle at the first check", {}, {kIdle, kExit}},
        {"busy at two checks, then idle", {.busyChecks = 2}, {kBusy, kBusy, kIdle, kExit}},
        {"no log server, busy, then idle", {.logServer = false, .busyChecks = 2}, {}},
        {"no log server, refused", {.logServer = false, .mayHost = false}, {}},
        {"the server cannot start",
         {.serverStarts = false},
         {kExit},
         "<3>cannot start the helper server; ending"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        const Life life = live(c.scenario);
        EXPECT_EQ(life.status, 0);
        std::vector<std::string> lines = mirrored(c.messages);
        if (c.error != nullptr) {
            lines.insert(lines.begin(), c.error);
        }
        EXPECT_THAT(life.systemLog, ElementsAreArray(lines));
        EXPECT_THAT(life.records, ElementsAreArray(c.messages));
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
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGTERM);
        pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
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

enum Outcome {
    kWritten,       // the file holds the run's records, and only them
    kLeftoverKept,  // what was at the log file's path is as it was
    kNothingMade,   // no folder, no file
};

// Whether there is a log file is the enabling preference's call (on by
// default on a carrier build that is not internal); its path is the scratch
// folder and the program name, glued. What another user or another daemon put
// in its place (see the writer's own tests for every kind) is never written or
// truncated: the daemon says why once and runs on without a file.
TEST_F(LifecycleTest, KeepsItsOwnLogFileOnlyWhereItIsSafe) {
    constexpr char kLeftover[] = "an earlier run's line\n";
    const std::string log = logFile();
    platform::UniqueFd held;
    const struct {
        const char* name;
        Outcome outcome;
        Scenario scenario = {};
        bool carrierBuild = true;
        const char* stored = nullptr;  // kel.enabled
        bool systemLogOff = false;
        std::function<void()> place = {};  // what is in the way
        const char* says = nullptr;        // the error line, when something is
    } kCases[] = {
        {.name = "on on a carrier build: the last run's file truncated", .outcome = kWritten},
        {.name = "a refused start logs both records",
         .outcome = kWritten,
         .scenario = {.mayHost = false}},
        {.name = "every record with the system log off", .outcome = kWritten, .systemLogOff = true},
        {.name = "a folder without a trailing slash gets the name glued",
         .outcome = kWritten,
         .scenario = {.scratchFolder = dir_.file("scratch")}},
        {.name = "a stored no leaves the last run's file",
         .outcome = kLeftoverKept,
         .stored = "no"},
        {.name = "off off carrier builds", .outcome = kNothingMade, .carrierBuild = false},
        {.name = "no file and no complaint without the folder's parent",
         .outcome = kNothingMade,
         .scenario = {.scratchFolder = dir_.file("missing/scratch/")}},
        {.name = "a link in the file's place",
         .outcome = kLeftoverKept,
         .place =
             [&] {
                 std::filesystem::rename(log, dir_.file("victim"));
                 std::filesystem::create_symlink(dir_.file("victim"), log);
             },
         .says = "symbolic link"},
        {.name = "a file that another daemon keeps",
         .outcome = kLeftoverKept,
         .place =
             [&] {
                 held.reset(open(log.c_str(), O_RDONLY | O_CLOEXEC));
                 flock(held.get(), LOCK_EX);
             },
         .says = "kept by another process"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(dir_.path());
        std::filesystem::create_directory(dir_.path());
        if (c.outcome != kNothingMade) {
            std::filesystem::create_directory(dir_.file("scratch"));
            std::ofstream(log) << kLeftover;
        }
        if (c.place) {
            c.place();
        }
        fakeDevice().carrierBuild = c.carrierBuild;
        std::filesystem::remove(preferencesFile());
        if (c.stored != nullptr) {
            std::ofstream(preferencesFile()) << R"({"kel.enabled": ")" << c.stored << "\"}";
        }
        systemlog::setEnabled(systemlog::Level::kDefault, !c.systemLogOff);
        const Life life = live(c.scenario);
        systemlog::setEnabled(systemlog::Level::kDefault, true);

        std::string written;
        for (const std::string& record : life.records) {
            written += "[0-9]+\\.[0-9]{3}:Info:" + std::string(program_invocation_short_name) +
                       ":" + record + "\n";
        }
        const std::string path =
            c.scenario.scratchFolder.empty()
                ? log
                : c.scenario.scratchFolder + program_invocation_short_name + ".log";
        if (c.outcome == kWritten) {
            EXPECT_THAT(readFile(path), ::testing::MatchesRegex(written));
        } else if (c.outcome == kLeftoverKept) {
            EXPECT_EQ(readFile(log), kLeftover);  // through a link, what it points to
        } else {
            EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
        }
        const std::vector<std::string> said(life.systemLog.begin(),
                                            life.systemLog.end() - (c.systemLogOff ? 0 : 2));
        if (c.says != nullptr) {
            EXPECT_THAT(said, ElementsAre(AllOf(HasSubstr("<3>not keeping a log file: "),
                                                HasSubstr(c.says))));
        } else {
            EXPECT_THAT(said, IsEmpty());
        }
        held.reset();
    }
}

}  // namespace
}  // namespace kel::testing
