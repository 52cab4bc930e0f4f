// Switches the system log's default level off before main runs, for a daemon
// whose messages must reach its own log file alone. The rest is the real
// library.
#include "platform/systemlog/system_log.h"

namespace {

[[maybe_unused]] const bool sDefaultLevelOff =
    (systemlog::setEnabled(systemlog::Level::kDefault, false), true);

}  // namespace
