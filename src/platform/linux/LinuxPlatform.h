#pragma once

#include <memory>
#include <string>

#include "platform/Platform.h"

namespace orv::linuxdesk {

class AtspiDesktop;

// The desktop backend on AT-SPI2 and X11: main loop, accessibility, workspace and displays.
// Null, with the reason in `whyNot`, when there is no X display or no accessibility bus.
// Speech, message ports, user defaults and the application host are left empty for the caller
// to fill. Call on the thread that will run the main loop.
std::shared_ptr<Platform> makeLinuxPlatform(std::string* whyNot);

// The AT-SPI state behind a platform made above, for tests and diagnostics (null otherwise).
std::shared_ptr<AtspiDesktop> atspiDesktopOf(const Platform& platform);

}  // namespace orv::linuxdesk

namespace orv::linuxdesk::detail {
// Whether an accessibility bus can be reached without starting one: an explicit bus address, a
// session bus address, or the user's runtime bus socket. Exposed for tests.
bool accessibilityBusConfigured(std::string* whyNot);
}  // namespace orv::linuxdesk::detail
