#include <stdlib.h>

#include <gtest/gtest.h>

#include "platform/helperserver/helper_server.h"

namespace kel {
namespace {

TEST(ScriptedHelperServerTest, BusyFollowsTheScript) {
    ASSERT_NE(&sCanHostHelperServer, nullptr);
    EXPECT_EQ(sCanHostHelperServer(), 1);

    const struct {
        const char* script;  // null: unset
        bool busy;
    } cases[] = {{nullptr, false}, {"0", false}, {"3600", true}};
    for (const auto& c : cases) {
        if (c.script != nullptr) {
            setenv("KEL_TEST_BUSY_SECONDS", c.script, 1);
        } else {
            unsetenv("KEL_TEST_BUSY_SECONDS");
        }
        auto server = HelperServer::create(nullptr);
        ASSERT_NE(server, nullptr);
        server->start();
        EXPECT_EQ(server->isBusy(), c.busy) << (c.script != nullptr ? c.script : "unset");
        server->stop();
        EXPECT_FALSE(server->isBusy());
    }
    unsetenv("KEL_TEST_BUSY_SECONDS");
}

}  // namespace
}  // namespace kel
