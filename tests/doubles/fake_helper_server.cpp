#include "tests/doubles/fake_helper_server.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

namespace kel {
namespace {

std::atomic<bool> sBusy{false};
std::atomic<int> sBusyQueries{0};

}  // namespace

struct HelperServer::Impl {};

HelperServer::HelperServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
HelperServer::~HelperServer() = default;

std::shared_ptr<HelperServer> HelperServer::create(std::shared_ptr<lum::LogServer> /*logServer*/) {
    if (KEL_DOUBLE_CREATE_FAILS) {
        return nullptr;
    }
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
    sBusyQueries.fetch_add(1);
    return sBusy.load();
}

namespace testing {

void setHelperServerBusy(bool busy) {
    sBusy.store(busy);
}

int helperServerBusyQueries() {
    return sBusyQueries.load();
}

}  // namespace testing
}  // namespace kel
