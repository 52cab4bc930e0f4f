// A helper server whose start() waits until the FIFO named by
// KEL_TEST_START_GATE has a writer, so that a test can act while the daemon is
// between starting the server and installing its watches. Never busy.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/helperserver/helper_server.h"

extern "C" int sCanHostHelperServer() {
    return 1;
}

namespace kel {

struct HelperServer::Impl {};

HelperServer::HelperServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
HelperServer::~HelperServer() = default;

std::shared_ptr<HelperServer> HelperServer::create(std::shared_ptr<lum::LogServer> /*logServer*/) {
    return std::shared_ptr<HelperServer>(new HelperServer(std::make_unique<Impl>()));
}

void HelperServer::start() {
    const char* gate = std::getenv("KEL_TEST_START_GATE");
    if (gate == nullptr) {
        return;
    }
    const int fd = open(gate, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        char byte;
        while (read(fd, &byte, 1) > 0) {
        }
        close(fd);
    }
}

void HelperServer::stop() {}

bool HelperServer::isBusy() const {
    return false;
}

}  // namespace kel
