#include "platform/helperserver/helper_server.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace kel {
namespace {

// The server reports nothing when a client comes or goes, so the tests poll
// isBusy() in 1 ms steps for up to 10 s.
bool waitUntil(const std::function<bool()>& condition) {
    for (int i = 0; i < 10'000 && !condition(); ++i) {
        const timespec step{0, 1'000'000};
        nanosleep(&step, nullptr);
    }
    return condition();
}

class HelperServerTest : public ::testing::Test {
  protected:
    HelperServerTest() { setenv("KEL_HELPER_RUNTIME_DIR", dir_.path().c_str(), 1); }
    ~HelperServerTest() override { unsetenv("KEL_HELPER_RUNTIME_DIR"); }

    // A connected client socket, or -1.
    int connectClient() const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, socketPath_.c_str(), socketPath_.size() + 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd >= 0 &&
            connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            close(fd);
            return -1;
        }
        return fd;
    }

    testing::TempDir dir_;
    const std::string socketPath_ = dir_.file("helper-server.sock");
};

TEST_F(HelperServerTest, BusyExactlyWhileAClientIsConnectedUntilStopped) {
    auto server = HelperServer::create(nullptr);
    ASSERT_NE(server, nullptr);
    server->start();
    server->start();
    EXPECT_FALSE(server->isBusy());
    const int first = connectClient();
    ASSERT_GE(first, 0);
    EXPECT_TRUE(waitUntil([&] { return server->isBusy(); }));
    ASSERT_EQ(write(first, "hello\n", 6), 6);  // data, then the hang-up
    close(first);
    EXPECT_TRUE(waitUntil([&] { return !server->isBusy(); }));

    // Stop hangs up on a connected client, and the server stays stopped.
    const int second = connectClient();
    ASSERT_GE(second, 0);
    ASSERT_TRUE(waitUntil([&] { return server->isBusy(); }));
    server->stop();
    EXPECT_FALSE(server->isBusy());
    char byte;
    EXPECT_EQ(read(second, &byte, 1), 0);
    close(second);
    server->start();
    EXPECT_LT(connectClient(), 0);
    EXPECT_NE(access(socketPath_.c_str(), F_OK), 0);
}

TEST_F(HelperServerTest, CreateFailsWhenSocketPathIsTooLong) {
    const std::string longDir = dir_.file(std::string(sizeof(sockaddr_un::sun_path), 'd'));
    setenv("KEL_HELPER_RUNTIME_DIR", longDir.c_str(), 1);
    EXPECT_EQ(HelperServer::create(nullptr), nullptr);
}

}  // namespace
}  // namespace kel
