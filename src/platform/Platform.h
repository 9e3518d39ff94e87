#pragma once

// The one platform the process runs on. Logic above the seam reaches every platform facility
// through here and never learns which backend answers.

#include <memory>
#include <string>

#include "platform/Accessibility.h"
#include "platform/Desktop.h"
#include "platform/MainLoop.h"

namespace orv {

struct Platform {
    std::string name;  // "sim", "linux", ... for logs only
    std::shared_ptr<MainLoop> loop;
    std::shared_ptr<AccessibilityAPI> ax;
    std::shared_ptr<Workspace> workspace;
    std::shared_ptr<Displays> displays;
    std::shared_ptr<SpeechEngine> speech;
    std::shared_ptr<MessagePorts> messagePorts;
    std::shared_ptr<UserDefaults> defaults;
    std::shared_ptr<ApplicationHost> app;
};

// The installed platform. Installing replaces the previous one (tests install a fresh desktop).
Platform& platform();
void installPlatform(std::shared_ptr<Platform> p);
std::shared_ptr<Platform> installedPlatform();

inline MainLoop& mainLoop() {
    return *platform().loop;
}
inline AccessibilityAPI& axAPI() {
    return *platform().ax;
}

}  // namespace orv
