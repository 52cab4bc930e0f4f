#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "config/kel_properties.h"
#include "platform/telephony/preferences.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::testing::readFile;

class KelprefsTest : public ::testing::Test {
  protected:
    void SetUp() override { setenv("KEL_PREFERENCES_DIR", folder_.path().c_str(), 1); }
    void TearDown() override { unsetenv("KEL_PREFERENCES_DIR"); }

    struct Run {
        int status;
        std::string out;
        std::string err;
    };
    // kelprefs with `args`, a shell command line, run by `launcher` if given.
    Run run(const std::string& args, const std::string& launcher = "") const {
        const std::string out = folder_.file("out"), err = folder_.file("err");
        const int status = std::system(
            (launcher + " " KEL_KELPREFS " " + args + " >" + out + " 2>" + err).c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out), readFile(err)};
    }

    const kel::testing::TempDir folder_;
    const std::string store_ = folder_.file(KELProperties::kDomain + std::string(".json"));
};

TEST_F(KelprefsTest, WritesReadsListsAndDeletesEveryTypeKeepingTheRest) {
    std::ofstream(store_) << R"({"kept": [1, {"x": null}]})";
    ASSERT_EQ(chmod(store_.c_str(), 0640), 0);
    const struct {
        const char* key;
        const char* write;
        const char* type;
        const char* read;
    } kCases[] = {{"a", "--string 'two  words'", "string", "two  words"},
                  {"b", "--string ''", "string", ""},
                  {"c", "--int -2147483648", "int", "-2147483648"},
                  {"d", "--int 4294967295", "int", "4294967295"},
                  {"e", "--bool false", "bool", "false"},
                  {"f", "--real 2e-3", "real", "0.002"},
                  {"g", "--real 2", "real", "2"}};
    std::string listing;
    for (const auto& c : kCases) {
        EXPECT_EQ(run(std::string("write ") + c.key + " " + c.write).status, 0) << c.write;
        listing += std::string(c.key) + "\t" + c.type + "\t" + c.read + "\n";
    }
    for (const auto& c : kCases) {
        EXPECT_EQ(run(std::string("read ") + c.key).out, c.read + std::string("\n"));
    }
    EXPECT_EQ(run("list").out, listing);
    EXPECT_EQ(run("delete a").status, 0);
    EXPECT_EQ(run("delete a").status, 1);
    EXPECT_EQ(run("read a").status, 1);
    struct stat status {};
    ASSERT_EQ(stat(store_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_NE(readFile(store_).find(R"("kept": [)"), std::string::npos);
}

TEST_F(KelprefsTest, RefusesBadCommandsAndBrokenFilesLeavingTheFileAlone) {
    const struct {
        std::string file;
        std::string args;
        std::string message;
    } kCases[] = {{"{}", "", "missing command"},
                  {"{}", "frobnicate", "unknown command 'frobnicate'"},
                  {"{}", "read", "wrong number of arguments for read"},
                  {"{}", "write k --int 1.5", "'1.5' is not a whole decimal number"},
                  {"{}", "write k --int 4294967296", "is not a whole decimal number"},
                  {"{}", "write k --bool yes", "'yes' is not a valid bool"},
                  {"{}", "write k --real inf", "'inf' is not a valid real"},
                  {"{}", "write k --text x", "unknown type '--text'"},
                  {"{}", "write k --string \"$(printf '\\377')\"", "must be valid UTF-8"},
                  {"{}", "write \"$(printf 'a\\nb')\" --int 1", "control characters"},
                  {"{}", "write '' --int 1", "must not be empty"},
                  {R"({"a": 1,,)", "write a --int 2", "is not valid JSON"},
                  {R"({"a": 1,,)", "read a", "is not valid JSON"},
                  {R"([{"a": 1}])", "delete a", "does not hold a JSON object"},
                  {R"([{"a": 1}])", "list", "does not hold a JSON object"},
                  {std::string("{\"a\": 1}\0{\"b\": 2}", 17), "write c --int 1", "bytes after"},
                  {"{\"a\": " + std::string(500'000, '[') + std::string(500'000, ']') + "}",
                   "write b --int 1", "nested deeper than 16 levels"}};
    for (const auto& c : kCases) {
        std::ofstream(store_) << c.file;
        const Run refused = run(c.args);
        EXPECT_EQ(refused.status, 2) << c.args;
        EXPECT_NE(refused.err.find(c.message), std::string::npos) << refused.err;
        EXPECT_EQ(readFile(store_), c.file);
    }
}

TEST_F(KelprefsTest, AWriteKilledAtAnyMomentLeavesTheOldOrTheNewFileWhole) {
    // Large values (within the 128 KiB limit of one argument), so that a write
    // takes long enough to be interrupted.
    const auto value = [](int round) { return std::string(100'000, 'a' + round % 26); };
    ASSERT_EQ(run("write big --string " + value(0)).status, 0);
    std::mt19937 random(9);
    std::string current = value(0);
    for (int round = 1; round <= 30; ++round) {
        const std::string next = value(round);
        // Killed at a random moment, from before it starts to after it has ended.
        run("write big --string " + next,
            "timeout -s KILL " + std::to_string(static_cast<double>(random() % 10'000) / 1e6));
        lum::PreferenceMap values;
        std::string error;
        ASSERT_TRUE(lum::loadPreferencesFile(store_, values, error)) << error;
        const std::string found = std::get<std::string>(values.at("big"));
        ASSERT_TRUE(found == current || found == next) << "round " << round;
        current = found;
    }
}

}  // namespace
