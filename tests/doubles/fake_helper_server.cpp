// A HelperServer without a socket, never busy, for daemons that need to decide
// when it starts.
//
// start() returns at once unless KEL_TEST_START_GATE names a FIFO: then it
// waits until a writer has opened and closed it, so that a test can act while
// the daemon is between starting the server and installing its watches.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/helperserver/helper_server.h"
#include "platform/posix/unique_fd.h"

namespace kel {

struct HelperServer::Impl {};

HelperServer::HelperServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
HelperServer::~HelperServer() = default;

std::shared_ptr<HelperServer> HelperServer::create(std::shared_ptr<lum::LogServer> /*logServer*/) {
    return std::shared_ptr<HelperServer>(new HelperServer(std::make_unique<Impl>()));
}

void HelperServer::start() {
    const char* gate = std::getenv("KEL_TEST_START_GATE");
    const platform::UniqueFd fd(gate != nullptr ? open(gate, O_RDONLY | O_CLOEXEC) : -1);
    char byte;
    while (fd.valid() && read(fd.get(), &byte, 1) > 0) {
    }
}

void HelperServer::stop() {}

bool HelperServer::isBusy() const {
    return false;
}

}  // namespace kel
