#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "platform/telephony/preferences.h"
#include "platform/telephony/radios.h"
#include "tests/support/temp_dir.h"

namespace {

class TelephonyTest : public ::testing::Test {
  protected:
    void SetUp() override { setenv("KEL_PREFERENCES_DIR", folder_.path().c_str(), 1); }
    void TearDown() override { unsetenv("KEL_PREFERENCES_DIR"); }

    void store(const std::string& text) const { std::ofstream(path_) << text; }

    const kel::testing::TempDir folder_;
    const std::string path_ = folder_.file("test.domain.json");
};

std::optional<lum::PreferenceValue> number(double value) {
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
    const std::function<void()> kPutInPlace[] = {
        [&] { ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0); },
        [&] { ASSERT_EQ(mkdir(path_.c_str(), 0700), 0); },
        [&] { store(""); },
        [&] { store(R"({"k": 1)"); },
        [&] { store(R"([{"k": 1}])"); },
        [&] {
            store(R"({"k": 1, "pad": ")" + std::string(lum::kMaxPreferencesFileSize, 'x') + "\"}");
        },
    };
    for (const auto& putInPlace : kPutInPlace) {
        putInPlace();
        EXPECT_EQ(adapter.copyValue("k"), std::nullopt);
        std::filesystem::remove(path_);
        store(R"({"k": 1})");
        EXPECT_EQ(adapter.copyValue("k"), number(1));
        std::filesystem::remove(path_);
    }
    EXPECT_EQ(lum::PreferencesAdapter("test.domain", "anyUser").copyValue("k"), std::nullopt);
}

// The device's answers in a child process that reads `description` (nothing:
// no file) as its device description, as "radio vendor product carrier
// internal".
std::string deviceAnswers(const kel::testing::TempDir& folder, const char* description) {
    const std::string path = folder.file("device.json");
    if (description != nullptr) {
        std::ofstream(path) << description;
    }
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    if (child == 0) {
        setenv("KEL_DEVICE_DESCRIPTION", path.c_str(), 1);
        const std::string answers = std::to_string(TelephonyRadiosGetRadio()) + " " +
                                    std::to_string(TelephonyRadiosGetRadioVendor()) + " " +
                                    std::to_string(TelephonyRadiosGetProduct()) + " " +
                                    std::to_string(TelephonyUtilIsCarrierBuild()) + " " +
                                    std::to_string(TelephonyUtilIsInternalBuild());
        _exit(write(fds[1], answers.data(), answers.size()) > 0 ? 0 : 1);
    }
    close(fds[1]);
    char buffer[128] = {};
    const ssize_t got = read(fds[0], buffer, sizeof buffer - 1);
    close(fds[0]);
    waitpid(child, nullptr, 0);
    return std::string(buffer, got > 0 ? got : 0);
}

TEST_F(TelephonyTest, DeviceDescriptionFallsBackToACarrierBuildMemberByMember) {
    EXPECT_EQ(deviceAnswers(folder_, nullptr), "0 0 0 1 0");
    EXPECT_EQ(deviceAnswers(folder_, "{broken"), "0 0 0 1 0");
    EXPECT_EQ(deviceAnswers(folder_, R"({"radio": 8, "vendor": -1, "product": 61,
                                         "carrierBuild": false, "internalBuild": 1})"),
              "8 0 61 0 0");
}

}  // namespace
