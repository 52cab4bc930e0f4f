// The user-notice service: a plain alert with a header, a message, a time-out
// and a default button, shown to the person at the machine.
//
// On Linux an alert is a desktop notification on the user's D-Bus session bus
// (the freedesktop Notifications interface: normal urgency, one "default"
// action). Where there is no session bus or no notification server, the alert
// goes to the system log at the default (notice) level instead, so that a
// headless machine still records it. Showing never blocks for more than a
// couple of seconds and never reports a failure.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace notice {

// `text` as an alert can carry it: nothing when it holds a byte outside
// 1..127 (non-ASCII, or a NUL, which no alert text can hold).
std::optional<std::string> asciiText(std::string_view text);

// Shows `header` and `message` for `timeoutSeconds` (zero or less: until
// dismissed). Safe to call from any thread.
void showAlert(const std::string& header, const std::string& message, double timeoutSeconds);

}  // namespace notice
