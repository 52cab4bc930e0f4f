// A listening socket handed over by a service manager, and when a client stops
// counting as busy.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/helperserver/helper_server.h"
#include "platform/posix/unique_fd.h"
#include "tests/support/outside_probes.h"
#include "tests/support/temp_dir.h"

namespace kel {
namespace {

using namespace std::chrono_literals;
using platform::UniqueFd;
using testing::unixSocketAt;

// Nothing reports a client coming or going: poll, up to 10 s.
bool busyBecomes(const HelperServer& server, bool busy) {
    for (int i = 0; i < 10'000 && server.isBusy() != busy; ++i) {
        std::this_thread::sleep_for(1ms);
    }
    return server.isBusy() == busy;
}

// A client that has only shut down its writing side may still be waiting for
// an answer: it keeps the server busy until it closes.
TEST(SocketHandoverTest, ServesTheSocketAServiceManagerHandsOverAndLeavesIt) {
    const testing::TempDir dir;
    const std::string handedOver = dir.file("activated.sock");
    const UniqueFd saved(fcntl(3, F_DUPFD_CLOEXEC, 10));  // the protocol's first descriptor
    ASSERT_EQ(dup2(UniqueFd(unixSocketAt(handedOver, /*listening=*/true)).get(), 3), 3);
    setenv("KEL_HELPER_RUNTIME_DIR", dir.path().c_str(), 1);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    setenv("LISTEN_FDS", "1", 1);
    auto server = HelperServer::create(nullptr);
    ASSERT_NE(server, nullptr);
    server->start();
    UniqueFd client(unixSocketAt(handedOver));
    ASSERT_TRUE(busyBecomes(*server, true));
    ASSERT_EQ(shutdown(client.get(), SHUT_WR), 0);
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(server->isBusy());
    client.reset();
    EXPECT_TRUE(busyBecomes(*server, false));
    server->stop();
    EXPECT_EQ(access(handedOver.c_str(), F_OK), 0);
    EXPECT_NE(access(dir.file("helper-server.sock").c_str(), F_OK), 0);
    dup2(saved.get(), 3);
}

}  // namespace
}  // namespace kel
