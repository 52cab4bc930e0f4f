#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "config/kel_properties.h"
#include "platform/telephony/preferences.h"
#include "tests/support/temp_dir.h"

extern char** environ;

namespace {

using kel::testing::readFile;

class KelprefsTest : public ::testing::Test {
  protected:
    void SetUp() override { setenv("KEL_PREFERENCES_DIR", folder_.path().c_str(), 1); }
    void TearDown() override { unsetenv("KEL_PREFERENCES_DIR"); }

    struct Run {
        int status = -1;
        std::string out;
        std::string err;
    };

    // Starts kelprefs with `args`, its output going to files in the folder.
    pid_t start(const std::vector<std::string>& args) const {
        std::vector<char*> argv = {const_cast<char*>(KEL_KELPREFS)};
        for (const std::string& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0600);
        posix_spawn_file_actions_addopen(&actions, 2, err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0600);
        pid_t pid = 0;
        EXPECT_EQ(posix_spawn(&pid, KEL_KELPREFS, &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        return pid;
    }

    Run run(const std::vector<std::string>& args) const {
        int status = 0;
        waitpid(start(args), &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out_), readFile(err_)};
    }

    const kel::testing::TempDir folder_;
    const std::string store_ = folder_.file(std::string(KELProperties::kDomain) + ".json");
    const std::string out_ = folder_.file("out");
    const std::string err_ = folder_.file("err");
};

TEST_F(KelprefsTest, WritesReadsListsAndDeletesEveryTypeKeepingTheRest) {
    std::ofstream(store_) << R"({"kept": [1, {"x": null}]})";
    ASSERT_EQ(chmod(store_.c_str(), 0640), 0);
    const struct {
        const char* type;
        std::string value;
        std::string read;  // as read prints it
        const char* listedType;
    } kCases[] = {
        {"--string", "two words\tand a tab", "two words\tand a tab", "string"},
        {"--string", "", "", "string"},
        {"--int", "-2147483648", "-2147483648", "int"},
        {"--int", "4294967295", "4294967295", "int"},
        {"--bool", "false", "false", "bool"},
        {"--real", "2e-3", "0.002", "real"},
    };
    std::string listing;
    for (size_t i = 0; i < std::size(kCases); ++i) {
        const std::string key = "key" + std::to_string(i);
        EXPECT_EQ(run({"write", key, kCases[i].type, kCases[i].value}).status, 0) << key;
        listing += key + "\t" + kCases[i].listedType + "\t" + kCases[i].read + "\n";
    }
    for (size_t i = 0; i < std::size(kCases); ++i) {
        const Run read = run({"read", "key" + std::to_string(i)});
        EXPECT_EQ(read.status, 0);
        EXPECT_EQ(read.out, kCases[i].read + "\n");
    }
    EXPECT_EQ(run({"list"}).out, listing);
    EXPECT_EQ(run({"delete", "key0"}).status, 0);
    EXPECT_EQ(run({"delete", "key0"}).status, 1);
    EXPECT_EQ(run({"read", "key0"}).status, 1);
    struct stat status {};
    ASSERT_EQ(stat(store_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_NE(readFile(store_).find(R"("kept": [)"), std::string::npos);
}

TEST_F(KelprefsTest, RefusesBadCommandsAndBrokenFilesLeavingTheFileAlone) {
    const struct {
        std::string file;
        std::vector<std::string> args;
        std::string message;
    } kCases[] = {
        {"{}", {}, "missing command"},
        {"{}", {"frobnicate"}, "unknown command 'frobnicate'"},
        {"{}", {"read"}, "wrong number of arguments for read"},
        {"{}", {"write", "k", "--int", "1.5"}, "'1.5' is not a whole decimal number"},
        {"{}", {"write", "k", "--int", "4294967296"}, "is not a whole decimal number"},
        {"{}", {"write", "k", "--bool", "yes"}, "'yes' is not a valid bool"},
        {"{}", {"write", "k", "--real", "inf"}, "'inf' is not a valid real"},
        {"{}", {"write", "k", "--text", "x"}, "unknown type '--text'"},
        {"{}", {"write", "k", "--string", "\xff"}, "must be valid UTF-8"},
        {R"({"a": 1,,)", {"write", "a", "--int", "2"}, "is not valid JSON"},
        {R"({"a": 1,,)", {"read", "a"}, "is not valid JSON"},
        {R"([{"a": 1}])", {"delete", "a"}, "does not hold a JSON object"},
        {R"([{"a": 1}])", {"list"}, "does not hold a JSON object"},
    };
    for (const auto& c : kCases) {
        std::ofstream(store_) << c.file;
        const Run refused = run(c.args);
        EXPECT_EQ(refused.status, 2) << c.message;
        EXPECT_NE(refused.err.find(c.message), std::string::npos) << refused.err;
        EXPECT_EQ(readFile(store_), c.file);
    }
}

TEST_F(KelprefsTest, AWriteKilledAtAnyMomentLeavesTheOldOrTheNewFileWhole) {
    // Large values (within the 128 KiB limit of one argument), so that a write
    // takes long enough to be interrupted.
    const auto value = [](int round) {
        return std::string(100'000, static_cast<char>('a' + round % 26));
    };
    ASSERT_EQ(run({"write", "big", "--string", value(0)}).status, 0);
    std::mt19937 random(9);
    std::uniform_int_distribution<int> delayUs(0, 10000);
    std::string current = value(0);
    for (int round = 1; round <= 30; ++round) {
        const pid_t pid = start({"write", "big", "--string", value(round)});
        ASSERT_GT(pid, 0);  // kill(-1) would reach every process
        std::this_thread::sleep_for(std::chrono::microseconds(delayUs(random)));
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        lum::PreferenceMap values;
        std::string error;
        ASSERT_TRUE(lum::loadPreferencesFile(store_, values, error)) << error;
        const std::string found = std::get<std::string>(values.at("big"));
        ASSERT_TRUE(found == current || found == value(round)) << "round " << round;
        current = found;
    }
}

}  // namespace
