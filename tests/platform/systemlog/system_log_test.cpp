#include "platform/systemlog/system_log.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Sends the system log to a file in a fresh temporary folder for one test.
class SystemLogTest : public testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/h2-systemlog-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        path_ = dir_ + "/log";
        fd_ = open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        ASSERT_GE(fd_, 0);
        previousFd_ = systemlog::redirectForTesting(fd_);
    }

    void TearDown() override {
        systemlog::redirectForTesting(previousFd_);
        systemlog::setEnabled(systemlog::Level::kDefault, true);
        systemlog::setEnabled(systemlog::Level::kError, true);
        close(fd_);
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }

    std::string contents() const {
        std::ifstream in(path_);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    std::string dir_;
    std::string path_;
    int fd_ = -1;
    int previousFd_ = -1;
};

TEST_F(SystemLogTest, HandlesAreInternedPerSubsystemAndCategory) {
    systemlog::Handle a = systemlog::create("org.test", "alpha");
    EXPECT_EQ(a, systemlog::create("org.test", "alpha"));
    EXPECT_NE(a, systemlog::create("org.test", "beta"));
    EXPECT_NE(a, systemlog::create("org.other", "alpha"));
    EXPECT_STREQ(systemlog::subsystemOf(a), "org.test");
    EXPECT_STREQ(systemlog::categoryOf(a), "alpha");
}

TEST_F(SystemLogTest, WritesOnePrefixedLinePerEnabledMessage) {
    systemlog::Handle handle = systemlog::create("org.test", "lines");
    systemlog::write(handle, systemlog::Level::kDefault, "plain %d", 7);
    systemlog::write(handle, systemlog::Level::kError, "two\nlines");
    systemlog::write(handle, systemlog::Level::kDefault, "%s", "");
    systemlog::setEnabled(systemlog::Level::kDefault, false);
    EXPECT_FALSE(systemlog::isEnabled(handle, systemlog::Level::kDefault));
    EXPECT_TRUE(systemlog::isEnabled(handle, systemlog::Level::kError));
    systemlog::write(handle, systemlog::Level::kDefault, "hidden");
    systemlog::write(handle, systemlog::Level::kError, "shown");
    EXPECT_EQ(contents(), "<5>plain 7\n<3>two\\nlines\n<5>\n<3>shown\n");
}

TEST_F(SystemLogTest, LongMessageStaysWhole) {
    // Longer than any stack buffer, with line feeds to escape.
    std::string text;
    for (int i = 0; i < 2000; ++i) {
        text += "abcd\n";
    }
    std::string expected = "<5>";
    for (int i = 0; i < 2000; ++i) {
        expected += "abcd\\n";
    }
    expected += "\n";
    systemlog::write(systemlog::create("org.test", "long"), systemlog::Level::kDefault, "%s",
                     text.c_str());
    EXPECT_EQ(contents(), expected);
}

TEST_F(SystemLogTest, ConcurrentLinesNeverInterleave) {
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    const std::string filler(3000, 'x');  // beyond the stack buffer: heap path too
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            systemlog::Handle handle = systemlog::create("org.test", "threads");
            for (int i = 0; i < kLines; ++i) {
                systemlog::write(handle, systemlog::Level::kDefault, "%d %s", t,
                                 i % 2 == 0 ? "short" : filler.c_str());
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    std::istringstream lines(contents());
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        ASSERT_TRUE(line.size() == 3 + 2 + 5 || line.size() == 3 + 2 + filler.size()) << line;
        EXPECT_EQ(line.substr(0, 3), "<5>");
    }
    EXPECT_EQ(count, kThreads * kLines);
}

}  // namespace
