#include "platform/systemlog/system_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace {

// Sends the system log to a file in a scratch folder for one test.
class SystemLogTest : public testing::Test {
  protected:
    ~SystemLogTest() override {
        systemlog::redirectForTesting(previousFd_);
        systemlog::setEnabled(systemlog::Level::kDefault, true);
        close(fd_);
    }
    std::string contents() const { return kel::testing::readFile(dir_.file("log")); }

    kel::testing::TempDir dir_;
    const int fd_ = open(dir_.file("log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const int previousFd_ = systemlog::redirectForTesting(fd_);
};

TEST_F(SystemLogTest, WritesOnePrefixedLinePerEnabledMessage) {
    systemlog::Handle handle = systemlog::create("org.test", "lines");
    EXPECT_EQ(handle, systemlog::create("org.test", "lines"));
    EXPECT_NE(handle, systemlog::create("org.other", "lines"));

    systemlog::write(handle, systemlog::Level::kDefault, "plain %d", 7);
    systemlog::write(handle, systemlog::Level::kError, "two\nlines");
    systemlog::write(handle, systemlog::Level::kDefault, "%s", "");
    systemlog::write(handle, systemlog::Level::kError, "Error %s (%s)\n", "a\n", "b");
    std::string expected = "<5>plain 7\n<3>two\\nlines\n<5>\n<3>Error a\\n (b)\n";
    // Escaped line feeds push the line, then the message too, past the stack buffers.
    for (int repeat : {400, 2000}) {
        std::string text, escaped;
        for (int i = 0; i < repeat; ++i) {
            text += "\na";
            escaped += "\\na";
        }
        systemlog::write(handle, systemlog::Level::kError, "%s", text.c_str());
        expected += "<3>" + escaped + "\n";
    }
    systemlog::setEnabled(systemlog::Level::kDefault, false);
    systemlog::write(handle, systemlog::Level::kDefault, "hidden");
    systemlog::write(handle, systemlog::Level::kError, "shown");
    EXPECT_EQ(contents(), expected + "<3>shown\n");
}

TEST_F(SystemLogTest, ConcurrentLinesNeverInterleave) {
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    const std::string filler(3000, 'x');  // long lines take the heap path
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
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        ASSERT_TRUE(line.size() == 3 + 2 + 5 || line.size() == 3 + 2 + filler.size()) << line;
        EXPECT_EQ(line.substr(0, 3), "<5>");
    }
    EXPECT_EQ(count, kThreads * kLines);
}

}  // namespace
