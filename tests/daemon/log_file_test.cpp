// The daemon's own log file, end to end: real daemon binaries (and the same
// daemon with one platform piece replaced) run as children with every path in
// a scratch folder.
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/daemon/daemon_process.h"
#include "tests/support/temp_dir.h"

namespace kel::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Matcher;
using ::testing::MatchesRegex;

constexpr const char* kLeftover = "a line from an earlier run\n";

enum class Outcome {
    kWritten,       // the file holds the run's records, and only them
    kLeftoverKept,  // the earlier run's file is as it was
    kNothingMade,   // no folder, no file: the test folder holds what the test put there
};

struct LogFileCase {
    const char* name;
    const char* binary;
    Outcome outcome;
    const char* scratch = "scratch/";  // the scratch folder, under the test's folder
    const char* storedEnabled = nullptr;
    bool carrierBuild = true;
    bool leftover = false;  // a log file of an earlier run is in place
    bool refused = false;   // the daemon may not host and ends by itself; else SIGTERM ends it
    bool mirrored = true;   // the system log's default level is on
};

void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        lines.push_back(text.substr(start, end - start));
    }
    EXPECT_EQ(start, text.size()) << "the last line is not ended";
    return lines;
}

std::set<std::string> entriesOf(const std::string& dir) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        names.insert(entry.path().filename());
    }
    return names;
}

class LogFileTest : public ::testing::TestWithParam<LogFileCase> {};

TEST_P(LogFileTest, KeepsTheRunsRecordsOnlyWhenEnabled) {
    const LogFileCase& run = GetParam();
    TempDir dir;
    const std::string scratch = dir.file(run.scratch);
    const std::string program = std::filesystem::path(run.binary).filename();
    const std::string logPath = scratch + program + ".log";
    std::set<std::string> placed = {"device.json"};
    writeText(dir.file("device.json"), run.carrierBuild ? "{}" : R"({"carrierBuild": false})");
    if (run.storedEnabled != nullptr) {
        writeText(dir.file("org.kel.basebandmanager.json"),
                  std::string(R"({"kel.enabled": ")") + run.storedEnabled + "\"}");
        placed.insert("org.kel.basebandmanager.json");
    }
    if (run.leftover) {
        ASSERT_EQ(mkdir(scratch.c_str(), 0755), 0);
        writeText(logPath, kLeftover);
    }

    std::vector<std::string> environment = isolatedEnvironment(dir.path());
    environment.push_back("KEL_TEST_SCRATCH_FOLDER=" + scratch);
    DaemonProcess daemon(run.binary, environment);
    if (!run.refused) {
        ASSERT_TRUE(daemon.waitUntilSigtermIgnored(10s));
        daemon.sendSignal(SIGTERM);
    }
    const auto status = daemon.waitForExit(10s);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(::testing::ExitedWithCode(0)(*status)) << *status;

    const std::vector<std::string> messages = {
        run.refused ? "Not allowed to host kel helper server!" : "Signal received", "Exit!"};
    std::vector<std::string> mirror;
    std::vector<Matcher<std::string>> records;
    for (const std::string& message : messages) {
        mirror.push_back("<5>#I " + message);
        records.push_back(MatchesRegex("[0-9]+\\.[0-9]{3}:Info:" + program + ":" + message));
    }
    std::vector<std::string> stderrLines;
    for (const OutputLine& line : daemon.lines()) {
        stderrLines.push_back(line.text);
    }
    if (run.mirrored) {
        EXPECT_THAT(stderrLines, ElementsAreArray(mirror));
    } else {
        EXPECT_THAT(stderrLines, IsEmpty());
    }

    switch (run.outcome) {
        case Outcome::kWritten:
            EXPECT_THAT(splitLines(readFile(logPath)), ElementsAreArray(records));
            break;
        case Outcome::kLeftoverKept:
            EXPECT_EQ(readFile(logPath), kLeftover);
            break;
        case Outcome::kNothingMade:
            placed.insert("helper-server.lock");
            EXPECT_EQ(entriesOf(dir.path()), placed);
            break;
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
