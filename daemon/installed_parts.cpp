#include <memory>
#include <string>

#include "daemon/daemon.h"
#include "platform/helperserver/helper_server.h"
#include "platform/posix/progname.h"

namespace kel {

namespace {

// The helper-server library's server, as the daemon hosts it.
class HelperServerHost final : public HostedServer {
  public:
    explicit HelperServerHost(std::shared_ptr<HelperServer> server) : server_(std::move(server)) {}
    bool start() override { return server_->start(); }
    void stop() override { server_->stop(); }
    bool isBusy() const override { return server_->isBusy(); }

  private:
    std::shared_ptr<HelperServer> server_;
};

}  // namespace

DaemonParts installedParts() {
    return {
        .makeLogServer = [] { return lum::LogServer::create(getprogname()); },
        // The hosting function is imported weakly: a helper-server library
        // without it means this process may not host.
        .mayHost = [] { return &sCanHostHelperServer != nullptr && sCanHostHelperServer() != 0; },
        .makeServer =
            [](std::shared_ptr<lum::LogServer> logServer) -> std::shared_ptr<HostedServer> {
            std::shared_ptr<HelperServer> server = HelperServer::create(std::move(logServer));
            return server ? std::make_shared<HelperServerHost>(std::move(server)) : nullptr;
        },
    };
}

}  // namespace kel
