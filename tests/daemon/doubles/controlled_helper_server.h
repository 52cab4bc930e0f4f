// Controls of the in-process helper-server double.
#pragma once

#include "platform/helperserver/helper_server.h"

namespace kel::testing {

void setHelperServerBusy(bool busy);
int helperServerBusyQueries();

}  // namespace kel::testing
