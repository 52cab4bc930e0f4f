#include "platform/notice/notice.h"

#include <systemd/sd-bus.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/strings/format.h"
#include "tests/support/log_recording.h"

namespace {

// The notification server's side of a Notify call, as one line.
int recordNotify(sd_bus_message* call, void* received, sd_bus_error*) {
    const char *summary, *body, *action, *label, *hint;
    uint8_t urgency = 0;
    int32_t timeoutMs = 0;
    if (sd_bus_message_read(call, "susssasa{sv}i", nullptr, nullptr, nullptr, &summary, &body, 2,
                            &action, &label, 1, &hint, "y", &urgency, &timeoutMs) >= 0) {
        *static_cast<std::string*>(received) =
            platform::stringPrintf("%s %s|%s|%s %s|%s=%d|%d", sd_bus_message_get_member(call),
                                   summary, body, action, label, hint, urgency, timeoutMs);
    }
    return sd_bus_reply_method_return(call, "u", 1u);
}

// Runs under a session bus of its own (see CMakeLists.txt). Until a server
// is there, the alert goes to the system log, as it does without a bus.
TEST(NoticeTest, ShowsOnTheSessionBusOrElseInTheSystemLog) {
    const kel::testing::CapturedSystemLog log;
    notice::showAlert("Header", "Message", 2.5);

    // The server owns the notifications name, on a thread of its own, until it
    // has answered one Notify call or no message has come for 10 s.
    sd_bus* bus = nullptr;
    std::string received;
    ASSERT_GE(sd_bus_open_user(&bus), 0);
    ASSERT_GE(sd_bus_request_name(bus, "org.freedesktop.Notifications", 0), 0);
    ASSERT_GE(
        sd_bus_add_object(bus, nullptr, "/org/freedesktop/Notifications", recordNotify, &received),
        0);
    std::jthread server([&] {
        while (received.empty() &&
               (sd_bus_process(bus, nullptr) > 0 || sd_bus_wait(bus, 10'000'000) > 0)) {
        }
    });
    notice::showAlert("Header", "Message", 2.5);
    server.join();
    sd_bus_flush_close_unref(bus);
    EXPECT_EQ(received, "Notify Header|Message|default OK|urgency=1|2500");
    EXPECT_EQ(log.lines(), std::vector<std::string>{"<5>Header: Message"});
}

}  // namespace
