// Controls of the fake helper server: a HelperServer without a socket, for
// tests that need to decide when it is busy or when it starts.
//
// isBusy() answers what setHelperServerBusy() last set (false at first) and
// counts the questions. start() returns at once unless KEL_TEST_START_GATE
// names a FIFO: then it waits until a writer has opened and closed it, so that
// a test can act while the daemon is between starting the server and
// installing its watches. Built with KEL_DOUBLE_CREATE_FAILS, create() answers
// null as if the socket could not be made.
#pragma once

#include "platform/helperserver/helper_server.h"

namespace kel::testing {

void setHelperServerBusy(bool busy);
int helperServerBusyQueries();

}  // namespace kel::testing
