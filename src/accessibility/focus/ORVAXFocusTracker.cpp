#include "accessibility/focus/ORVAXFocusTracker.h"

#include <vector>

#include "accessibility/focus/ORVAXAppTracker.h"
#include "context/OrvContextController.h"

namespace orv {

namespace {

struct TrackerState {
    bool enabled = false;
    std::shared_ptr<ORVAXFocusTrackerClaimerObserver> claimerObserver =
        std::make_shared<ORVAXFocusTrackerClaimerObserver>();
    std::shared_ptr<OrvContextController> contextController;
    std::shared_ptr<ORVAXApplicationFocusedElementFocusClaimer> activeApplicationClaimer;
    std::shared_ptr<ORVAXApplicationFocusedElementFocusClaimer> notificationCenterClaimer;
    // The status-bar claimer arrives with the menu claimers; until then nothing is reset.
    ORVAXFocusClaimerRef statusBarClaimer;
    ORVAXFocusClaimerRef currentClaimer;
    ORVAXElementTrackerRef currentTracker;
    // Subscriptions on the focused element's application. Kept with the application they were
    // made on, whether or not a tracker was made, so that none is left behind.
    ORVAXElementRef subscribedApp;
    ORVAXSubscription valueChanged;
    ORVAXSubscription windowMoved;
    ORVAXSubscription moved;
    Signal<const ORVAXElementRef&>::Connection activeWindowConnection = 0;
    bool recalculationGuard = false;
};

TrackerState& S() {
    static TrackerState s;
    return s;
}

void unsubscribeApplication() {
    auto& s = S();
    if (s.subscribedApp) {
        if (s.valueChanged) s.subscribedApp->unobserve("AXValueChanged", s.valueChanged);
        if (s.windowMoved) s.subscribedApp->unobserve("AXWindowMoved", s.windowMoved);
        if (s.moved) s.subscribedApp->unobserve("AXMoved", s.moved);
    }
    s.valueChanged = s.windowMoved = s.moved = nullptr;
    s.subscribedApp = nullptr;
}

}  // namespace

void ORVAXFocusTrackerClaimerObserver::focusedElementChanged(const ORVAXFocusClaimerRef& claimer) {
    ORVAXFocusTracker::calculateFocusedElement(claimer);
}

void ORVAXFocusTracker::enable() {
    auto& s = S();
    s.recalculationGuard = false;
    s.enabled = true;
    s.contextController = OrvContextController::create();

    s.activeApplicationClaimer = ORVAXApplicationFocusedElementFocusClaimer::create();
    s.activeApplicationClaimer->observeFocusedElementChanged(
        s.claimerObserver, &ORVAXFocusTrackerClaimerObserver::focusedElementChanged);
    std::weak_ptr<OrvContextController> controller = s.contextController;
    const void* claimerId = s.activeApplicationClaimer.get();
    s.activeWindowConnection = s.activeApplicationClaimer->activeWindowChanged.connect(
        [controller, claimerId](const ORVAXElementRef& window) {
            if (auto c = controller.lock())
                c->observeValueForKeyPath("activeWindow", claimerId, std::any(window));
        });

    // The menu, Dock, Finder-menu, status-bar and alerts claimers join here in their order when
    // they are built. The Dock's application element is still asked for now: that first use
    // starts the application tracker, which makes the first switch.
    ORVAXAppTracker::dockApp();

    ORVAXElementRef notificationCenter =
        ORVAXElement::newForApplicationWithBundleIdentifier("com.apple.notificationcenterui");
    s.notificationCenterClaimer = ORVAXApplicationFocusedElementFocusClaimer::create();
    s.notificationCenterClaimer->observeFocusedElementChanged(
        s.claimerObserver, &ORVAXFocusTrackerClaimerObserver::focusedElementChanged);
    s.notificationCenterClaimer->trackApplication(notificationCenter);
}

bool ORVAXFocusTracker::isEnabled() {
    return S().enabled;
}

void ORVAXFocusTracker::activeApplicationChanged(const ORVAXElementRef& app) {
    // The active-application menu claimer is told first once it exists.
    if (auto claimer = S().activeApplicationClaimer) claimer->trackApplication(app);
}

void ORVAXFocusTracker::calculateFocusedElement(const ORVAXFocusClaimerRef& claimer) {
    auto& s = S();
    if (s.recalculationGuard) return;
    if (s.statusBarClaimer && claimer != s.statusBarClaimer) {
        // Focus moving anywhere else dismisses a menu-bar extra's menu; its own signal is ignored.
        s.recalculationGuard = true;
        s.statusBarClaimer->reset();
        s.recalculationGuard = false;
    }
    // Priority order; the claimers not built yet hold their places as gaps.
    const std::vector<ORVAXFocusClaimerRef> order = {
        s.notificationCenterClaimer,
        // alerts claimer (only when it signalled itself), Dock menu, Dock, active-app menu,
        s.statusBarClaimer,
        // Finder menu,
        s.activeApplicationClaimer,
    };
    ORVAXFocusClaimerRef chosen;
    for (const auto& c : order)
        if (c && c->wantsFocus()) {
            chosen = c;
            break;
        }
    s.currentClaimer = chosen;
    setFocusedElement(chosen ? chosen->focusedElement() : nullptr,
                      chosen ? chosen->focusedElementApp() : nullptr);
}

void ORVAXFocusTracker::setFocusedElement(const ORVAXElementRef& element,
                                          const ORVAXElementRef& app) {
    auto& s = S();
    const ORVAXElementRef current = s.currentTracker ? s.currentTracker->element() : nullptr;
    if (element == current || (current && current->isEqual(element))) return;
    untrackCurrentTracker();
    if (!element) {
        s.currentTracker = nullptr;
        focusChanged();
        return;
    }
    s.currentTracker = ORVAXElementTracker::newFor(element, app);
    if (s.currentTracker) {
        s.currentTracker->start();
        if (!s.currentTracker->delayed()) focusChanged();
    }
    if (!app) return;
    s.subscribedApp = app;
    // A scroll bar's value change means the content under the focus scrolled.
    s.valueChanged = app->observe("AXValueChanged", [](const ORVAXEventRef& event) {
        if (event->data() && event->data()->getRole() == std::optional<std::string>("AXScrollBar"))
            focusMoved();
    });
    s.windowMoved = app->observe("AXWindowMoved", [](const ORVAXEventRef&) { focusMoved(); });
    s.moved = app->observe("AXMoved", [](const ORVAXEventRef&) { focusMoved(); });
}

void ORVAXFocusTracker::untrackCurrentTracker() {
    auto& s = S();
    if (s.currentTracker) s.currentTracker->stop();
    unsubscribeApplication();
    if (s.currentTracker) s.currentTracker->ceaseObservation();
}

void ORVAXFocusTracker::focusChanged() {
    reassessFocus();
}
void ORVAXFocusTracker::focusMoved() {
    reassessFocus();
}

void ORVAXFocusTracker::reassessFocus() {
    auto& s = S();
    ORVOrientedRectRef area;
    if (s.currentTracker) {
        area = s.currentTracker->visibleFocus();
        if (area) area->setRect(normalizedRect(area->rect()));
    }
    if (s.contextController)
        s.contextController->setElementOfInterest(
            s.currentClaimer ? s.currentClaimer->focusedElement() : nullptr, area);
}

Rect ORVAXFocusTracker::normalizedRect(const Rect& rect) {
    double x = roundHalfAwayFromZero(rect.origin.x);
    double y = roundHalfAwayFromZero(rect.origin.y);
    double w = roundHalfAwayFromZero(rect.size.width);
    double h = roundHalfAwayFromZero(rect.size.height);
    if (y < 0) {
        h += y;
        y = 0;
    }
    if (x < 0) {
        w += x;
        x = 0;
    }
    return Rect(x, y, w, h);
}

std::shared_ptr<OrvContextController> ORVAXFocusTracker::contextController() {
    return S().contextController;
}
ORVAXFocusClaimerRef ORVAXFocusTracker::currentClaimer() {
    return S().currentClaimer;
}
ORVAXElementTrackerRef ORVAXFocusTracker::currentTracker() {
    return S().currentTracker;
}
std::shared_ptr<ORVAXApplicationFocusedElementFocusClaimer>
ORVAXFocusTracker::activeApplicationClaimer() {
    return S().activeApplicationClaimer;
}
std::shared_ptr<ORVAXApplicationFocusedElementFocusClaimer>
ORVAXFocusTracker::notificationCenterClaimer() {
    return S().notificationCenterClaimer;
}

void ORVAXFocusTracker::resetForTesting() {
    auto& s = S();
    if (s.currentTracker) s.currentTracker->stop();
    unsubscribeApplication();
    if (s.activeApplicationClaimer) {
        s.activeApplicationClaimer->activeWindowChanged.disconnect(s.activeWindowConnection);
        s.activeApplicationClaimer->untrackCurrentApp();
    }
    if (s.notificationCenterClaimer) s.notificationCenterClaimer->untrackCurrentApp();
    s = TrackerState{};
}

}  // namespace orv
