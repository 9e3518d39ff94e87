#pragma once

#include <optional>
#include <string>

namespace orv::linuxdesk {

// Sets the session's org.a11y.Status IsEnabled to true. Answers what it was before (true: left
// as it was), or nothing when the session bus or the accessibility bus launcher cannot be asked
// (`why` says why).
std::optional<bool> switchOnAccessibility(std::string* why);

// The same, with one log line at info level (a warning when it cannot be done).
void switchOnAccessibilityAndLog();

}  // namespace orv::linuxdesk
