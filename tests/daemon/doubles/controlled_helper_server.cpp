// A helper server for in-process tests: busy exactly when the test says so,
// and counting how often it was asked.
#include "tests/daemon/doubles/controlled_helper_server.h"

#include <atomic>

namespace {
std::atomic<bool> sBusy{false};
std::atomic<int> sBusyQueries{0};
}  // namespace

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

void HelperServer::start() {}
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
