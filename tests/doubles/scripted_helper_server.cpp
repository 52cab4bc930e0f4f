// A HelperServer without a socket. isBusy() answers true while fewer than
// KEL_TEST_BUSY_SECONDS (read by create(); unset or 0: never) have passed
// since create(), and false once stopped. With KEL_DOUBLE_CREATE_FAILS,
// create() answers null as if the socket could not be made.
#include <atomic>
#include <chrono>
#include <cstdlib>

#include "platform/helperserver/helper_server.h"

namespace kel {

struct HelperServer::Impl {
    std::chrono::steady_clock::time_point busyUntil;
    std::atomic<bool> stopped{false};
};

HelperServer::HelperServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

std::shared_ptr<HelperServer> HelperServer::create(std::shared_ptr<lum::LogServer>) {
    if (KEL_DOUBLE_CREATE_FAILS) {
        return nullptr;
    }
    const char* script = getenv("KEL_TEST_BUSY_SECONDS");
    const double busySeconds = script != nullptr ? strtod(script, nullptr) : 0.0;
    auto impl = std::make_unique<Impl>();
    impl->busyUntil = std::chrono::steady_clock::now() +
                      std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                          std::chrono::duration<double>(busySeconds > 0 ? busySeconds : 0.0));
    return std::shared_ptr<HelperServer>(new HelperServer(std::move(impl)));
}

HelperServer::~HelperServer() = default;

void HelperServer::start() {}

void HelperServer::stop() {
    impl_->stopped.store(true, std::memory_order_relaxed);
}

bool HelperServer::isBusy() const {
    return !impl_->stopped.load(std::memory_order_relaxed) &&
           std::chrono::steady_clock::now() < impl_->busyUntil;
}

}  // namespace kel
