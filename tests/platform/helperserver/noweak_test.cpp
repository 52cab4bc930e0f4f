#include <gtest/gtest.h>

#include "platform/helperserver/helper_server.h"

// The variant for daemons that must run without the hosting check.
TEST(HelperServerNoWeakTest, HostingCheckIsAbsent) {
    EXPECT_EQ(&sCanHostHelperServer, nullptr);
}
