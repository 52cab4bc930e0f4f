#include "platform/notice/notice.h"

#include <systemd/sd-bus.h>

#include <cmath>
#include <cstdint>

#include "platform/posix/progname.h"
#include "platform/systemlog/system_log.h"

namespace notice {

namespace {

// Long enough for a notification server that the bus starts on demand, short
// enough that a hung one does not hold the caller up for long.
constexpr uint64_t kCallTimeoutUs = 2'000'000;

// The server's urgency hint for "normal".
constexpr uint8_t kNormalUrgency = 1;

int32_t expireTimeoutMs(double seconds) {
    // For the server, 0 means "until dismissed".
    if (!(seconds > 0)) {
        return 0;
    }
    if (seconds >= INT32_MAX / 1000.0) {
        return INT32_MAX;
    }
    return static_cast<int32_t>(std::lround(seconds * 1000));
}

// Hands the alert to the session bus's notification server; false when there
// is no bus, no server, or no answer in time. A connection per alert: alerts
// are rare, and an sd-bus connection must not be shared between threads.
bool notify(const std::string& header, const std::string& message, double timeoutSeconds) {
    sd_bus* bus = nullptr;
    if (sd_bus_open_user(&bus) < 0) {
        return false;
    }
    sd_bus_set_method_call_timeout(bus, kCallTimeoutUs);
    const int result = sd_bus_call_method(
        bus, "org.freedesktop.Notifications", "/org/freedesktop/Notifications",
        "org.freedesktop.Notifications", "Notify", nullptr, nullptr, "susssasa{sv}i", getprogname(),
        uint32_t{0}, "", header.c_str(), message.c_str(), 2, "default", "OK", 1, "urgency", "y",
        kNormalUrgency, expireTimeoutMs(timeoutSeconds));
    sd_bus_flush_close_unref(bus);
    return result >= 0;
}

}  // namespace

std::optional<std::string> asciiText(std::string_view text) {
    for (const unsigned char byte : text) {
        if (byte == 0 || byte > 127) {
            return std::nullopt;
        }
    }
    return std::string(text);
}

void showAlert(const std::string& header, const std::string& message, double timeoutSeconds) {
    if (notify(header, message, timeoutSeconds)) {
        return;
    }
    static const systemlog::Handle sLog = systemlog::create(systemlog::kSubsystem, "notice");
    systemlog::write(sLog, systemlog::Level::kDefault, "%s: %s", header.c_str(), message.c_str());
}

}  // namespace notice
