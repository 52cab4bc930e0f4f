// kelhelperd: hosts the helper server until it goes idle or SIGTERM arrives.
//
// It takes no arguments, reads no environment variable of its own (the
// platform libraries read theirs) and always exits with status 0. Its life is
// runDaemon's (daemon.h), with the installed parts.
#include "daemon/daemon.h"
#include "platform/posix/safe_open.h"

int main(int /*argc*/, char** /*argv*/) {
    // Before anything opens a file: a log file that became descriptor 2
    // because the daemon was started with standard error closed would take
    // the system log's lines. Without /dev/null the daemon runs all the same.
    static_cast<void>(platform::openStandardDescriptors());
    return kel::runDaemon(kel::installedParts());
}
