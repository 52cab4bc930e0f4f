#include "platform/helperserver/helper_server.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"
#include "tests/support/unix_socket.h"

namespace kel::testing {
namespace {

// The server reports nothing when a client comes or goes, so the test polls
// isBusy() in 1 ms steps for up to 10 s.
bool waitForBusy(const HelperServer& server, bool busy) {
    for (int i = 0; i < 10'000 && server.isBusy() != busy; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return server.isBusy() == busy;
}

class HelperServerTest : public ::testing::Test {
  protected:
    HelperServerTest() { setenv("KEL_HELPER_RUNTIME_DIR", dir_.path().c_str(), 1); }
    ~HelperServerTest() override { unsetenv("KEL_HELPER_RUNTIME_DIR"); }

    TempDir dir_;
    const std::string socketPath_ = dir_.file("helper-server.sock");
};

TEST_F(HelperServerTest, BusyExactlyWhileAClientIsConnectedUntilStopped) {
    // A socket file left by a holder that died is replaced.
    close(creat(socketPath_.c_str(), 0600));
    auto server = HelperServer::create(nullptr);
    ASSERT_NE(server, nullptr);
    server->start();
    server->start();
    EXPECT_FALSE(server->isBusy());
    platform::UniqueFd client = connectUnixSocket(socketPath_);
    ASSERT_TRUE(client.valid());
    EXPECT_TRUE(waitForBusy(*server, true));
    ASSERT_EQ(write(client.get(), "hello\n", 6), 6);  // data, then the hang-up
    client.reset();
    EXPECT_TRUE(waitForBusy(*server, false));

    // Stop hangs up on a connected client, and the server stays stopped.
    client = connectUnixSocket(socketPath_);
    ASSERT_TRUE(waitForBusy(*server, true));
    server->stop();
    EXPECT_FALSE(server->isBusy());
    char byte;
    EXPECT_EQ(read(client.get(), &byte, 1), 0);
    server->start();
    EXPECT_FALSE(connectUnixSocket(socketPath_).valid());
    EXPECT_NE(access(socketPath_.c_str(), F_OK), 0);
}

TEST_F(HelperServerTest, CreateFailsWhenSocketPathIsTooLong) {
    const std::string longDir = dir_.file(std::string(sizeof(sockaddr_un::sun_path), 'd'));
    setenv("KEL_HELPER_RUNTIME_DIR", longDir.c_str(), 1);
    EXPECT_EQ(HelperServer::create(nullptr), nullptr);
}

}  // namespace
}  // namespace kel::testing
