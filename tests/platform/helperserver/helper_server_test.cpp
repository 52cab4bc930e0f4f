// The helper server in the test's process, on real sockets: when it is busy,
// how it stops, what in its runtime folder makes it refuse, and the hosting
// lock that only one process holds and nobody else can take from it.
#include "platform/helperserver/helper_server.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/log_recording.h"
#include "tests/support/outside_probes.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_child.h"

namespace kel::testing {
namespace {

using namespace std::chrono_literals;
using platform::UniqueFd;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class HelperServerTest : public ::testing::Test {
  protected:
    void SetUp() override { setenv("KEL_HELPER_RUNTIME_DIR", runtime().c_str(), 1); }

    std::string runtime() const { return dir_.file("run"); }
    std::string socketPath() const { return runtime() + "/helper-server.sock"; }

    TempDir dir_;
};

// A socket that a dead server left, which nobody accepts on, is replaced. A
// client keeps the server busy until it closes, also after it has shut down
// its writing side (it may still wait for an answer). A stopped server is
// never busy, whoever was connected, and its socket is gone. (That stop does
// not wait for clients that write flat out, the daemon's own test checks
// against a bound.)
TEST_F(HelperServerTest, BusyWhileAClientStaysAndNeverOnceStopped) {
    ASSERT_TRUE(std::filesystem::create_directory(runtime()));
    close(unixSocketAt(socketPath(), /*listening=*/true));
    const std::shared_ptr<HelperServer> server = HelperServer::create(nullptr);
    ASSERT_TRUE(server && server->start());
    UniqueFd client(unixSocketAt(socketPath()));
    ASSERT_EQ(shutdown(client.get(), SHUT_WR), 0);
    EXPECT_TRUE(eventually([&] { return server->isBusy(); }, 5s));
    client.reset();
    EXPECT_TRUE(eventually([&] { return !server->isBusy(); }, 5s));

    client.reset(unixSocketAt(socketPath()));
    EXPECT_TRUE(eventually([&] { return server->isBusy(); }, 5s));
    server->stop();
    EXPECT_FALSE(server->isBusy());
    EXPECT_FALSE(server->start());
    EXPECT_NE(access(socketPath().c_str(), F_OK), 0);
}

// What is in the way of the socket, or is wrong with its folder, makes
// create refuse with one line that says what. (Which owners and modes make a
// folder untrusted, the log writer's test checks on the same code.)
TEST_F(HelperServerTest, RefusesWhatIsInTheWayAndSaysWhat) {
    const std::string socket = socketPath();
    UniqueFd listening;
    const struct {
        const char* name;
        std::function<void()> place;
        const char* why;
    } kCases[] = {
        {"a folder at the socket", [&] { mkdir(socket.c_str(), 0755); }, "a folder is in the way"},
        {"a file at the socket", [&] { std::ofstream{socket}; }, "other than a socket"},
        {"another program's socket",
         [&] { listening.reset(unixSocketAt(socket, /*listening=*/true)); }, "another program"},
        {"a link for the runtime folder",
         [&] {
             std::filesystem::remove(runtime());
             std::filesystem::create_directory_symlink(dir_.file("elsewhere"), runtime());
         },
         "symbolic link"},
        // Last: the other runtime folder stays for the rest of the test.
        {"a socket path longer than an address holds",
         [&] { setenv("KEL_HELPER_RUNTIME_DIR", dir_.file(std::string(100, 'n')).c_str(), 1); },
         "longer than 107 bytes"},
    };
    std::filesystem::create_directory(dir_.file("elsewhere"));
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(runtime());
        std::filesystem::create_directory(runtime());
        c.place();
        const CapturedSystemLog systemLog;
        EXPECT_EQ(HelperServer::create(nullptr), nullptr);
        EXPECT_THAT(systemLog.lines(), ElementsAre(::testing::AllOf(
                                           ::testing::StartsWith("<3>cannot "), HasSubstr(c.why))));
        EXPECT_TRUE(std::filesystem::is_empty(dir_.file("elsewhere")));
    }
}

// The lock file is this user's alone, so that nobody else can hold its lock
// and keep the service from hosting; one process holds it at a time, and the
// holder keeps it.
TEST_F(HelperServerTest, OnlyOneProcessHostsAndNobodyElseCanStopIt) {
    const std::string lock = runtime() + "/helper-server.lock";
    ASSERT_TRUE(std::filesystem::create_directory(runtime()));
    const CapturedSystemLog systemLog;
    std::filesystem::create_directory_symlink(dir_.path(), lock);
    EXPECT_EQ(sCanHostHelperServer(), 0);
    std::filesystem::remove(lock);
    std::ofstream{lock};
    chmod(lock.c_str(), 0644);
    UniqueFd other(open(lock.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(other.get(), LOCK_EX), 0);
    EXPECT_EQ(sCanHostHelperServer(), 0);
    other.reset(open(lock.c_str(), O_RDONLY | O_CLOEXEC));  // the other holder lets go
    EXPECT_EQ(sCanHostHelperServer(), 1);
    EXPECT_EQ(std::filesystem::status(lock).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_NE(flock(other.get(), LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(sCanHostHelperServer(), 1);
    // Only the link is said: another holder is the ordinary refusal.
    EXPECT_THAT(systemLog.lines(), ElementsAre(HasSubstr("symbolic link")));
}

// Without KEL_HELPER_RUNTIME_DIR, each user's folder is /tmp/kel-UID: made
// private, and refused once it is not (that a link is refused, the runtime
// folder's own case shows). Run as another user, nobody (65534), in a child
// whose refusal goes to its standard error.
TEST_F(HelperServerTest, EachUsersDefaultFolderIsPrivate) {
    if (const char* expected = childArgument()) {
        unsetenv("KEL_HELPER_RUNTIME_DIR");
        EXPECT_EQ(HelperServer::create(nullptr) != nullptr, std::string(expected) == "made");
        return;
    }
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to run as another user";
    }
    const std::string folder = "/tmp/kel-65534";
    const std::string asUser = "setpriv --reuid=65534 --regid=65534 --clear-groups";
    std::filesystem::remove_all(folder);
    EXPECT_EQ(runTestAgain("made", asUser), 0);
    EXPECT_EQ(std::filesystem::status(folder).permissions(), std::filesystem::perms::owner_all);
    chmod(folder.c_str(), 0755);
    EXPECT_EQ(runTestAgain("refused", asUser), 0);
    std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace kel::testing
