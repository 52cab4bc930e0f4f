#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/posix/clock.h"
#include "platform/posix/unique_fd.h"
#include "platform/telephony/preferences.h"
#include "platform/telephony/preferences_file.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace std::chrono_literals;

class TelephonyTest : public ::testing::Test {
  protected:
    void SetUp() override { setenv("KEL_PREFERENCES_DIR", folder_.path().c_str(), 1); }

    void store(const std::string& text) const { std::ofstream(path_) << text; }

    const kel::testing::TempDir folder_;
    const std::string path_ = folder_.file("test.domain.json");
};

// Even rounds read once the clock has passed the file's change, and so keep a
// copy that the store trusts; odd rounds read within the change's clock tick.
TEST_F(TelephonyTest, ChangeThatKeepsSizeAndMtimeIsSeenByTheNextRead) {
    const lum::PreferencesAdapter adapter("test.domain", lum::kPreferencesScopeCurrentUser);
    for (int round = 0; round < 50; ++round) {
        store(R"({"k": 1})");
        struct stat before {};
        ASSERT_EQ(stat(path_.c_str(), &before), 0);
        while (round % 2 == 0 &&
               platform::nowNs(CLOCK_REALTIME_COARSE) <= platform::toNs(before.st_ctim)) {
            std::this_thread::yield();
        }
        ASSERT_EQ(adapter.copyValue("k"), lum::PreferenceValue(int64_t{1}));
        store(R"({"k": 2})");
        const timespec times[2] = {before.st_atim, before.st_mtim};
        ASSERT_EQ(utimensat(AT_FDCWD, path_.c_str(), times, 0), 0);
        ASSERT_EQ(adapter.copyValue("k"), lum::PreferenceValue(int64_t{2})) << "round " << round;
    }
}

// Malformed JSON is kelprefs_test's: the store and the tool parse alike.
TEST_F(TelephonyTest, WhatIsNotAWellFormedFileReadsAsEmptyWithoutBlocking) {
    const lum::PreferencesAdapter adapter("test.domain", lum::kPreferencesScopeCurrentUser);
    lum::PreferenceMap values;
    std::string error;
    // A FIFO (opened by the reads of the tool and of edits, not by the
    // adapter's), 17 levels deep, too large.
    const std::string kBroken[] = {"fifo", R"({"k": 1, "d": [[[[[[[[[[[[[[[[]]]]]]]]]]]]]]]]})",
                                   R"({"k": 1, "pad": ")" + std::string(1 << 20, 'x') + "\"}"};
    for (const std::string& broken : kBroken) {
        std::filesystem::remove(path_);
        if (broken == "fifo") {
            ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
        } else {
            store(broken);
        }
        EXPECT_EQ(adapter.copyValue("k"), std::nullopt) << broken.substr(0, 20);
        EXPECT_FALSE(lum::loadPreferencesFile(path_, values, error)) << broken.substr(0, 20);
    }
    store(R"({"k": 1})");  // over the last case's, a regular file
    EXPECT_EQ(adapter.copyValue("k"), lum::PreferenceValue(int64_t{1}));
    // No other scope has a store.
    EXPECT_EQ(lum::PreferencesAdapter("test.domain", "anyUser").copyValue("k"), std::nullopt);
}

// The first file is a dead edit's; the others are not an edit's of this file.
TEST_F(TelephonyTest, AnEditWaitsForTheLockABoundedTimeAndThenClearsDeadEditsFiles) {
    const std::string kFiles[] = {".test.domain.json.new-Ab12Z9", ".test.domain.json.new-Ab12Z",
                                  ".test.domain.json.old-Ab12Z9"};
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

}  // namespace
