// The real daemon under conditions an adversary or a broken machine sets up:
// connection churn, too few descriptors, clients writing flat out, a standard
// error that is full or has lost its reader, and things in the way of its
// socket, lock and runtime folder.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/posix/unique_fd.h"
#include "tests/daemon/daemon_process.h"
#include "tests/support/outside_probes.h"
#include "tests/support/temp_dir.h"

namespace kel::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Clock = std::chrono::steady_clock;
using platform::UniqueFd;

constexpr auto kQuick = 10s;

class HostileTest : public ::testing::Test {
  protected:
    std::string socketPath() const { return runtime_.file("helper-server.sock"); }

    // SIGTERM ends the daemon with status 0 within `bound`, its socket removed.
    void expectOrderlyExit(Clock::duration bound) {
        const auto sent = Clock::now();
        daemon_->sendSignal(SIGTERM);
        const auto status = daemon_->waitForExit(kQuick);
        ASSERT_TRUE(status.has_value());
        EXPECT_LT(Clock::now() - sent, bound);
        EXPECT_TRUE(::testing::ExitedWithCode(0)(*status)) << *status;
        EXPECT_NE(access(socketPath().c_str(), F_OK), 0);
    }

    TempDir runtime_;
    const std::string environment_ = "KEL_HELPER_RUNTIME_DIR=" + runtime_.path();
    std::optional<DaemonProcess> daemon_;
};

TEST_F(HostileTest, ConnectionChurnHoldsNoDescriptorsOfGoneClients) {
    close(unixSocketAt(socketPath(), /*listening=*/true));  // stale: it is replaced
    daemon_.emplace(KEL_DAEMON_REAL, std::vector{environment_});
    ASSERT_TRUE(daemon_->waitUntilSigtermIgnored(kQuick));
    const long atRest = openDescriptors(daemon_->pid());
    long most = atRest;
    std::atomic<bool> stop{false};
    std::jthread churn([&] {
        while (!stop) {
            close(unixSocketAt(socketPath()));
        }
    });
    for (const auto end = Clock::now() + 1s; Clock::now() < end;) {
        most = std::max(most, openDescriptors(daemon_->pid()));
    }
    stop = true;
    EXPECT_LE(most, atRest + 2);  // the one client, and one it has just left
}

TEST_F(HostileTest, DescriptorShortageIsSaidOnceAndCostsNoCpu) {
    daemon_.emplace(KEL_DAEMON_REAL, std::vector{environment_});
    ASSERT_TRUE(daemon_->waitUntilSigtermIgnored(kQuick));
    const rlimit limit{32, 32};
    ASSERT_EQ(prlimit(daemon_->pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
    std::vector<UniqueFd> clients;
    while (clients.size() < 100) {
        clients.emplace_back(unixSocketAt(socketPath()));
    }
    std::this_thread::sleep_for(200ms);
    const double cpuBefore = cpuSeconds(daemon_->pid());
    std::this_thread::sleep_for(1s);
    EXPECT_LT(cpuSeconds(daemon_->pid()) - cpuBefore, 0.1);
    expectOrderlyExit(kQuick);
    ASSERT_EQ(daemon_->lines().size(), 3u);  // then "Signal received" and "Exit!"
    EXPECT_THAT(daemon_->lines()[0].text, StartsWith("<3>cannot accept more clients on "));
}

struct SigtermCase {
    const char* name;
    int flatOutClients;
    bool stderrFull;        // nobody reads, and the pipe has no room left
    bool stderrReaderGone;  // nobody ever will
    Clock::duration bound;
};

class SigtermTest : public HostileTest, public ::testing::WithParamInterface<SigtermCase> {};

TEST_P(SigtermTest, EndsInOrderWithinBound) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    UniqueFd reader(fds[0]);
    UniqueFd writer(fds[1]);
    static const char kFiller[4096] = {};
    while (GetParam().stderrFull && write(writer.get(), kFiller, sizeof kFiller) > 0) {
    }
    fcntl(writer.get(), F_SETFL, 0);  // a blocking standard error, as usual
    // ThreadSanitizer would otherwise wait a second before every exit.
    daemon_.emplace(
        KEL_DAEMON_REAL,
        std::vector<std::string>{environment_, "TSAN_OPTIONS=halt_on_error=1:atexit_sleep_ms=0"},
        writer.get());
    writer.reset();
    reader.reset(GetParam().stderrReaderGone ? -1 : reader.release());
    ASSERT_TRUE(daemon_->waitUntilSigtermIgnored(kQuick));
    const auto clients = writeFlatOut(socketPath(), GetParam().flatOutClients);
    std::this_thread::sleep_for(GetParam().flatOutClients > 0 ? 300ms : 0ms);
    expectOrderlyExit(GetParam().bound);
}

INSTANTIATE_TEST_SUITE_P(Hostile, SigtermTest,
                         ::testing::Values(SigtermCase{"FlatOutClients", 64, false, false, 200ms},
                                           SigtermCase{"FullStderr", 0, true, false, 2s},
                                           SigtermCase{"StderrReaderGone", 0, false, true, 2s}),
                         [](const auto& info) { return std::string(info.param.name); });

enum class Thing { kNothing, kFolder, kFile, kListeningSocket };

struct InTheWayCase {
    const char* name;
    const char* runtimeDir;  // under the test's folder
    const char* path;        // where `thing` is made, under the test's folder
    Thing thing;
    const char* why;  // what the diagnostic says about it
};

class InTheWayTest : public HostileTest, public ::testing::WithParamInterface<InTheWayCase> {};

TEST_P(InTheWayTest, RefusalSaysWhyFirst) {
    const std::string path = runtime_.path() + GetParam().path;
    UniqueFd keep;
    if (GetParam().thing == Thing::kFolder) {
        mkdir(path.c_str(), 0755);
    } else if (GetParam().thing == Thing::kFile) {
        keep.reset(creat(path.c_str(), 0600));
    } else if (GetParam().thing == Thing::kListeningSocket) {
        keep.reset(unixSocketAt(path, /*listening=*/true));
    }
    daemon_.emplace(KEL_DAEMON_REAL, std::vector{environment_ + GetParam().runtimeDir});
    ASSERT_TRUE(daemon_->waitForExit(kQuick).has_value());
    ASSERT_EQ(daemon_->lines().size(), 3u);  // then the refusal and "Exit!"
    EXPECT_THAT(daemon_->lines()[0].text, StartsWith("<3>cannot "));
    EXPECT_THAT(daemon_->lines()[0].text, HasSubstr(GetParam().why));
}

constexpr char kSocket[] = "/helper-server.sock";
constexpr char kTooLong[] =
    "/a-folder-name-long-enough-to-push-the-socket-path-beyond-what-a-unix-"
    "socket-address-holds";

INSTANTIATE_TEST_SUITE_P(
    Refusals, InTheWayTest,
    ::testing::Values(
        InTheWayCase{"FolderAtSocket", "", kSocket, Thing::kFolder, "(a folder is in the way)"},
        InTheWayCase{"FileAtSocket", "", kSocket, Thing::kFile,
                     "other than a socket is in the way"},
        InTheWayCase{"ProgramAtSocket", "", kSocket, Thing::kListeningSocket, "another program"},
        InTheWayCase{"FolderAtLock", "", "/helper-server.lock", Thing::kFolder, "Is a directory"},
        InTheWayCase{"RuntimeFolderUnderFile", "/file/run", "/file", Thing::kFile, "Not a dir"},
        InTheWayCase{"SocketPathTooLong", kTooLong, "", Thing::kNothing, "longer than 107 bytes"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kel::testing
