// sCanHostHelperServer with a fixed answer: KEL_DOUBLE_CAN_HOST.
#include "platform/helperserver/helper_server.h"

extern "C" int sCanHostHelperServer() {
    return KEL_DOUBLE_CAN_HOST;
}
