#include "platform/logserver/log.h"
#include "platform/logserver/log_server_state.h"

namespace lum {

std::shared_ptr<LogServer> LogServer::create(const std::string& name) {
    return std::shared_ptr<LogServer>(new LogServer(std::make_unique<State>(name)));
}

}  // namespace lum
