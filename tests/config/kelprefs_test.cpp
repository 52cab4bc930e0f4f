#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "config/kel_properties.h"
#include "platform/telephony/preferences.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::testing::readFile;
using namespace std::string_literals;

class KelprefsTest : public ::testing::Test {
  protected:
    // The device description is missing: a carrier build that is not internal.
    void SetUp() override {
        setenv("KEL_PREFERENCES_DIR", folder_.path().c_str(), 1);
        setenv("KEL_DEVICE_DESCRIPTION", folder_.file("none").c_str(), 1);
    }

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

// Each row runs on the file as the rows before left it, unless it gives one.
// The output is the whole standard output of a success, a part of standard
// error otherwise; a failure leaves the file as it was.
TEST_F(KelprefsTest, CommandLines) {
    const std::string deep = R"({"a": )" + std::string(500'000, '[') + std::string(500'000, ']');
    const struct {
        std::optional<std::string> file;
        std::string args;
        int status;
        std::string output;
    } kRows[] = {
        {R"({"kept": [1, {"x": null}], "n": null})", "write --bool false d", 0, ""},
        {{}, "write f --real 2e-3", 0, ""},
        {{}, "write g --real=2", 0, ""},
        {{}, "write h --string \"$(printf 'x\\ty\\nz\\\\\\1')\"", 0, ""},
        {{}, "list | tail -n 3", 0, "f\treal\t0.002\ng\treal\t2\nh\tstring\tx\\ty\\nz\\\\\\x01\n"},
        {{}, "list --json | grep '[dg]\"'", 0, "    \"d\": false,\n    \"g\": 2.0,\n"},
        {{}, "read h", 0, "x\ty\nz\\\1\n"},
        {{}, "write --int=4294967295 -- -k", 0, ""},
        {{}, "read -- -k", 0, "4294967295\n"},
        {{}, "delete -- -k", 0, ""},
        {{}, "delete -- -k", 1, "-k is not set"},
        {{}, "read kept", 1, "kept is not set"},
        {{}, "delete n", 1, "n is not set"},
        {"{}", "write kel.enabled --string maybe", 2, "which takes true, on, yes"},
        {{}, "write TUDebugFlags --string 12", 2, "which takes an --int from 0 to"},
        {{}, "write BootBaseband --int 1", 2, "which takes a --bool"},
        {{}, "write --force kel.enabled --string maybe", 0, ""},
        {{}, "read --effective kel.enabled", 0, "true\n"},
        {{}, "write kel.enabled --string=No", 0, ""},
        {{}, "list --effective | head -n 2", 0, "kel.enabled\tbool\tfalse\nkel.history\tint\t4\n"},
        {{}, "read --effective nope", 2, "nope is not a key the daemon reads"},
        {"[1]", "read --effective BootBaseband", 0, "true\n"},
        {{}, "--version", 0, "kelprefs " KEL_VERSION "\n"},
        {{}, "help | head -n 1", 0, "Usage: kelprefs read [--effective] [--] KEY\n"},
        {"{}", "", 2, "missing command"},
        {{}, "frobnicate", 2, "unknown command 'frobnicate'"},
        {{}, "read", 2, "wrong number of arguments for read"},
        {{}, "read --json k", 2, "--json does not go with read"},
        {{}, "write k --int", 2, "option '--int' needs a value"},
        {{}, "write k --int 4294967296", 2, "is not a whole decimal number"},
        {{}, "write k --bool yes", 2, "'yes' is not a valid bool"},
        {{}, "write k --real inf", 2, "'inf' is not a valid real"},
        {{}, "write k --text x", 2, "unknown type '--text'"},
        {{}, "write k --string \"$(printf '\\377')\"", 2, "must be valid UTF-8"},
        {{}, "write \"$(printf 'a\\nb')\" --int 1", 2, "control characters"},
        {{}, "write '' --int 1", 2, "must not be empty"},
        {R"({"a": 1,,)", "write a --int 2", 2, "is not valid JSON"},
        {R"([{"a": 1}])", "list", 2, "does not hold a JSON object"},
        {"{\"a\": 1}\0{\"b\": 2}"s, "write c --int 1", 2, "has bytes after its JSON value"},
        {deep + "}", "write b --int 1", 2, "nested deeper than 16 levels"}};
    ASSERT_EQ(close(creat(store_.c_str(), 0640)), 0);
    for (const auto& row : kRows) {
        if (row.file) {
            std::ofstream(store_) << *row.file;
        }
        const std::string before = readFile(store_);
        const Run run = this->run(row.args);
        EXPECT_EQ(run.status, row.status) << row.args << ": " << run.err;
        const std::string after = readFile(store_);
        EXPECT_EQ(after.find("kept") == std::string::npos,
                  before.find("kept") == std::string::npos);
        if (row.status == 0) {
            EXPECT_EQ(run.out, row.output) << row.args;
        } else {
            EXPECT_NE(run.err.find(row.output), std::string::npos) << row.args << ": " << run.err;
            EXPECT_EQ(after, before) << row.args;
        }
    }
    struct stat status {};
    ASSERT_EQ(stat(store_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    // A write makes the store's folder and its parents.
    EXPECT_EQ(run("write k --int 1", "KEL_PREFERENCES_DIR=" + folder_.file("a/b")).status, 0);
    EXPECT_EQ(access(folder_.file("a/b/org.kel.basebandmanager.json").c_str(), F_OK), 0);
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
