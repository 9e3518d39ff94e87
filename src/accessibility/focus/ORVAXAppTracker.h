#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "accessibility/element/ORVAXElement.h"
#include "platform/AXTypes.h"
#include "platform/MainLoop.h"

namespace orv {

// Decides the active application from the platform's front-application switches and the
// system-wide focus poll, moves focus tracking to it, and turns on its enhanced accessibility
// interface unless it is on the user's exclusion list. Starts on first use. Main thread only.
class ORVAXAppTracker {
  public:
    // The Dock's application element (null where there is none).
    static ORVAXElementRef dockApp();
    static void switchTrackingToPID(pid_t pid);
    static void systemUIReportsFocusOnPID(pid_t pid);
    static void setEnhancedUserInterfaceBlacklist(
        std::optional<std::vector<std::string>> bundleIds);

    static pid_t activePid();
    static ORVAXElementRef activeApplication();
    static bool isStarted();
    static void resetForTesting();

  private:
    static void ensureStarted();
    static void frontSwitched(pid_t pid);
};

// Polls the system-wide focused element ten times a second, so that focus in processes that never
// become the front application still switches the active application. A steady focus costs one
// accessibility read per tick.
class ORVAXSystemUITracker {
  public:
    // First use starts the poll.
    static void initialize();
    static void checkSystemWideForUIServer();
    static bool isRunning();
    static void resetForTesting();

    static constexpr double kPollInterval = 0.1;
};

}  // namespace orv
