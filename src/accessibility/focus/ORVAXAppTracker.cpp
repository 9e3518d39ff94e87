#include "accessibility/focus/ORVAXAppTracker.h"

#include <algorithm>

#include "Common/OrvLogger.h"
#include "accessibility/focus/ORVAXFocusTracker.h"
#include "platform/Platform.h"

namespace orv {

namespace {

struct AppTrackerState {
    bool started = false;
    ORVAXElementRef dockApp;
    pid_t activePid = 0;
    ORVAXElementRef activeApplication;
    std::optional<std::vector<std::string>> blacklist;
    Signal<pid_t>::Connection frontSwitch = 0;
    std::weak_ptr<Workspace> workspace;
};

AppTrackerState& A() {
    static AppTrackerState s;
    return s;
}

std::string bundleIdOf(pid_t pid) {
    if (auto app = platform().workspace->runningApplicationWithProcessIdentifier(pid))
        return app->bundleIdentifier;
    return {};
}

struct SystemUIState {
    AXUIElementRef systemWide;
    TimerRef timer;
    // The element seen last and its process: an element never changes process, so a steady
    // focus needs no second call to learn it.
    AXUIElementRef lastElement;
    pid_t lastPid = 0;
};

SystemUIState& U() {
    static SystemUIState s;
    return s;
}

}  // namespace

void ORVAXAppTracker::ensureStarted() {
    auto& s = A();
    if (s.started) return;
    s.started = true;
    s.dockApp = ORVAXElement::newForApplicationWithBundleIdentifier("com.apple.dock");
    auto workspace = platform().workspace;
    s.workspace = workspace;
    s.frontSwitch =
        workspace->frontApplicationSwitched.connect([](pid_t pid) { frontSwitched(pid); });
    if (auto front = workspace->frontmostApplication()) switchTrackingToPID(front->pid);
}

void ORVAXAppTracker::frontSwitched(pid_t pid) {
    if (pid <= 0) return;
    if (OrvLogger::infoMessageIsLogged())
        OrvLogger::addInfoMessageWithFormat("kEventAppFrontSwitched - pid: %d %@", pid,
                                            bundleIdOf(pid));
    switchTrackingToPID(pid);
}

ORVAXElementRef ORVAXAppTracker::dockApp() {
    ensureStarted();
    return A().dockApp;
}

void ORVAXAppTracker::switchTrackingToPID(pid_t pid) {
    ensureStarted();
    auto& s = A();
    if (pid == s.activePid) return;
    s.activePid = pid;
    s.activeApplication = ORVAXElement::newForApplication(pid);
    if (!s.activeApplication) return;
    const auto bundleId = s.activeApplication->getBundleIdentifier();
    const bool excluded =
        s.blacklist && bundleId &&
        std::find(s.blacklist->begin(), s.blacklist->end(), *bundleId) != s.blacklist->end();
    if (!excluded) s.activeApplication->setEnhancedUserInterface();
    ORVAXFocusTracker::activeApplicationChanged(s.activeApplication);
}

void ORVAXAppTracker::systemUIReportsFocusOnPID(pid_t pid) {
    auto& s = A();
    if (OrvLogger::infoMessageIsLogged() && pid != s.activePid)
        OrvLogger::addInfoMessageWithFormat(
            "systemUIReportsFocusOnPID: %@ (%i), previously active: %@ (%i)", bundleIdOf(pid), pid,
            bundleIdOf(s.activePid), s.activePid);
    switchTrackingToPID(pid);
}

void ORVAXAppTracker::setEnhancedUserInterfaceBlacklist(
    std::optional<std::vector<std::string>> ids) {
    A().blacklist = std::move(ids);
}

pid_t ORVAXAppTracker::activePid() {
    return A().activePid;
}
ORVAXElementRef ORVAXAppTracker::activeApplication() {
    return A().activeApplication;
}
bool ORVAXAppTracker::isStarted() {
    return A().started;
}

void ORVAXAppTracker::resetForTesting() {
    auto& s = A();
    if (auto ws = s.workspace.lock()) ws->frontApplicationSwitched.disconnect(s.frontSwitch);
    s = AppTrackerState{};
}

void ORVAXSystemUITracker::initialize() {
    auto& s = U();
    if (s.timer) return;
    s.systemWide = axAPI().createSystemWide();
    s.timer =
        mainLoop().scheduleTimer(kPollInterval, true, [](Timer&) { checkSystemWideForUIServer(); });
}

void ORVAXSystemUITracker::checkSystemWideForUIServer() {
    auto& s = U();
    if (!s.systemWide) return;
    AXValue value;
    if (axAPI().copyAttributeValue(s.systemWide, "AXFocusedUIElement", &value) != kAXErrorSuccess)
        return;
    const auto* element = value.get<AXUIElementRef>();
    if (!element || !*element) return;
    if (!s.lastElement || !axEqual(s.lastElement, *element)) {
        ORVAXElementRef wrapper = ORVAXElement::newForElement(*element);
        if (!wrapper) return;
        s.lastElement = *element;
        s.lastPid = wrapper->getPid();
    }
    ORVAXAppTracker::systemUIReportsFocusOnPID(s.lastPid);
}

bool ORVAXSystemUITracker::isRunning() {
    return U().timer != nullptr;
}

void ORVAXSystemUITracker::resetForTesting() {
    auto& s = U();
    if (s.timer) s.timer->invalidate();
    s = SystemUIState{};
}

}  // namespace orv
