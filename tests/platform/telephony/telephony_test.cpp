#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "platform/posix/clock.h"
#include "platform/posix/unique_fd.h"
#include "platform/telephony/preferences.h"
#include "platform/telephony/preferences_file.h"
#include "platform/telephony/radios.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

class TelephonyTest : public ::testing::Test {
  protected:
    void SetUp() override { setenv("KEL_PREFERENCES_DIR", folder_.path().c_str(), 1); }
    void TearDown() override { unsetenv("KEL_PREFERENCES_DIR"); }

    void store(const std::string& text) const { std::ofstream(path_) << text; }

    const kel::testing::TempDir folder_;
    const std::string path_ = folder_.file("test.domain.json");
};

std::optional<lum::PreferenceValue> number(int64_t value) {
    return lum::PreferenceValue(value);
}

TEST_F(TelephonyTest, ChangeThatKeepsSizeAndMtimeIsSeenByTheNextRead) {
    const lum::PreferencesAdapter adapter("test.domain", lum::kPreferencesScopeCurrentUser);
    ASSERT_EQ(adapter.filePath(), path_);
    // Many rounds, so that some fall within one tick of the file-system clock.
    for (int round = 0; round < 50; ++round) {
        store(R"({"k": )" + std::to_string(round % 10) + "}");
        struct stat before {};
        ASSERT_EQ(stat(path_.c_str(), &before), 0);
        ASSERT_EQ(adapter.copyValue("k"), number(round % 10));
        store(R"({"k": )" + std::to_string((round + 1) % 10) + "}");
        const timespec times[2] = {before.st_atim, before.st_mtim};
        ASSERT_EQ(utimensat(AT_FDCWD, path_.c_str(), times, 0), 0);
        ASSERT_EQ(adapter.copyValue("k"), number((round + 1) % 10)) << "round " << round;
    }
}

TEST_F(TelephonyTest, WhatIsNotAWellFormedFileReadsAsEmptyWithoutBlocking) {
    const lum::PreferencesAdapter adapter("test.domain", lum::kPreferencesScopeCurrentUser);
    // Not a file, not an object, a zero byte after it, 17 levels deep, too large.
    const std::string kBroken[] = {"fifo",
                                   "folder",
                                   "",
                                   R"({"k": 1)",
                                   R"([{"k": 1}])",
                                   "{\"k\": 1}\0{}"s,
                                   R"({"k": 1, "d": [[[[[[[[[[[[[[[[]]]]]]]]]]]]]]]]})",
                                   R"({"k": 1, "pad": ")" + std::string(1 << 20, 'x') + "\"}"};
    for (const std::string& broken : kBroken) {
        if (broken == "fifo" || broken == "folder") {
            ASSERT_EQ(broken == "fifo" ? mkfifo(path_.c_str(), 0600) : mkdir(path_.c_str(), 0700),
                      0);
        } else {
            store(broken);
        }
        EXPECT_EQ(adapter.copyValue("k"), std::nullopt) << broken.substr(0, 20);
        std::filesystem::remove(path_);
        store(R"({"k": 1})");
        EXPECT_EQ(adapter.copyValue("k"), number(1));
        std::filesystem::remove(path_);
    }
    EXPECT_EQ(lum::PreferencesAdapter("test.domain", "anyUser").copyValue("k"), std::nullopt);
}

// The first file is a dead edit's; the others are not an edit's of this file.
TEST_F(TelephonyTest, AnEditWaitsForTheLockABoundedTimeAndThenClearsDeadEditsFiles) {
    const std::string kFiles[] = {".test.domain.json.new-Ab12Z9", ".test.domain.json.new-Ab12Z",
                                  ".test.domain.json.Ab12Z9", ".other.json.new-Ab12Z9"};
    for (const std::string& name : kFiles) {
        std::ofstream(folder_.file(name)) << "x";
    }
    const platform::UniqueFd holder(open(folder_.path().c_str(), O_RDONLY | O_DIRECTORY));
    ASSERT_EQ(flock(holder.get(), LOCK_EX), 0);
    std::string error;
    const int64_t start = platform::nowNs();
    EXPECT_EQ(lum::editPreference(path_, "k", 1, 0600, 200ms, error), lum::EditResult::kFailed);
    EXPECT_GE(platform::nowNs() - start, 200 * platform::kNsPerMs);
    EXPECT_NE(error.find("lock on " + folder_.path()), std::string::npos) << error;
    ASSERT_EQ(flock(holder.get(), LOCK_UN), 0);
    EXPECT_TRUE(std::filesystem::exists(folder_.file(kFiles[0])));  // maybe a live edit's
    EXPECT_EQ(lum::editPreference(path_, "k", 1, 0600, 200ms, error), lum::EditResult::kDone);
    for (const std::string& name : kFiles) {
        EXPECT_EQ(std::filesystem::exists(folder_.file(name)), name != kFiles[0]) << name;
    }
}

// Each check runs in a child of its own (a death test): the description is
// read once per process.
TEST(DeviceDescriptionTest, AbsentOrMistypedMembersTakeTheCarrierBuildDefaults) {
    const kel::testing::TempDir folder;
    std::ofstream(folder.file("device.json"))
        << R"({"radio": 8, "vendor": -1, "internalBuild": 1})";
    const auto answers = [] {
        exit(static_cast<int>(TelephonyRadiosGetRadio() + TelephonyRadiosGetRadioVendor() * 16 +
                              TelephonyUtilIsCarrierBuild() * 32 +
                              TelephonyUtilIsInternalBuild() * 64));
    };
    setenv("KEL_DEVICE_DESCRIPTION", folder.file("device.json").c_str(), 1);
    EXPECT_EXIT(answers(), ::testing::ExitedWithCode(8 + 32), "");
    setenv("KEL_DEVICE_DESCRIPTION", folder.file("missing.json").c_str(), 1);
    EXPECT_EXIT(answers(), ::testing::ExitedWithCode(32), "");
}

}  // namespace
