#include "platform/helperserver/helper_server.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

namespace kel {
namespace {

// The server reports nothing when a client comes or goes, so the tests poll
// isBusy() in short steps, bounded by a deadline.
bool waitUntil(const std::function<bool()>& condition) {
    for (int i = 0; i < 10'000; ++i) {
        if (condition()) {
            return true;
        }
        const timespec step{0, 1'000'000};
        nanosleep(&step, nullptr);
    }
    return condition();
}

class HelperServerTest : public testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/h2-helper-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        ASSERT_EQ(setenv("KEL_HELPER_RUNTIME_DIR", dir_.c_str(), 1), 0);
        socketPath_ = dir_ + "/helper-server.sock";
    }

    void TearDown() override {
        unsetenv("KEL_HELPER_RUNTIME_DIR");
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }

    // A connected client socket, or -1.
    int connectClient() const {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, socketPath_.c_str(), socketPath_.size() + 1);
        if (fd >= 0 &&
            connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            close(fd);
            return -1;
        }
        return fd;
    }

    bool socketFileExists() const { return access(socketPath_.c_str(), F_OK) == 0; }

    std::string dir_;
    std::string socketPath_;
};

TEST_F(HelperServerTest, BusyExactlyWhileClientsAreConnected) {
    auto server = HelperServer::create(nullptr);
    ASSERT_NE(server, nullptr);
    EXPECT_TRUE(socketFileExists());
    server->start();
    server->start();
    EXPECT_FALSE(server->isBusy());

    const int first = connectClient();
    ASSERT_GE(first, 0);
    EXPECT_TRUE(waitUntil([&] { return server->isBusy(); }));
    const int second = connectClient();
    ASSERT_GE(second, 0);
    // Bytes from a client are read and dropped; they do not end the session.
    ASSERT_EQ(write(first, "hello\n", 6), 6);
    close(first);
    close(second);
    EXPECT_TRUE(waitUntil([&] { return !server->isBusy(); }));

    server->stop();
    EXPECT_FALSE(socketFileExists());
}

TEST_F(HelperServerTest, StopWithClientConnectedHangsUpOnIt) {
    auto server = HelperServer::create(nullptr);
    ASSERT_NE(server, nullptr);
    server->start();
    const int client = connectClient();
    ASSERT_GE(client, 0);
    ASSERT_TRUE(waitUntil([&] { return server->isBusy(); }));

    server->stop();
    EXPECT_FALSE(server->isBusy());
    char byte;
    EXPECT_EQ(read(client, &byte, 1), 0);
    close(client);
    server->stop();
    server->start();
    EXPECT_FALSE(server->isBusy());
    EXPECT_LT(connectClient(), 0);
}

TEST_F(HelperServerTest, ReplacesStaleSocketFileAndStopsWithoutStart) {
    const int stale = creat(socketPath_.c_str(), 0600);
    ASSERT_GE(stale, 0);
    close(stale);
    {
        auto server = HelperServer::create(nullptr);
        ASSERT_NE(server, nullptr);
        const int client = connectClient();
        ASSERT_GE(client, 0);  // the backlog holds it until start()
        EXPECT_FALSE(server->isBusy());
        close(client);
    }
    EXPECT_FALSE(socketFileExists());
}

TEST_F(HelperServerTest, CreateFailsWhenSocketPathIsTooLong) {
    const std::string longDir = dir_ + "/" + std::string(sizeof(sockaddr_un::sun_path), 'd');
    ASSERT_EQ(setenv("KEL_HELPER_RUNTIME_DIR", longDir.c_str(), 1), 0);
    EXPECT_EQ(HelperServer::create(nullptr), nullptr);
}

}  // namespace
}  // namespace kel
