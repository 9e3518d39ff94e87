#pragma once

#include <memory>

#include "Common/Geometry.h"
#include "accessibility/element/ORVAXElement.h"
#include "accessibility/focus/ORVAXFocusClaimer.h"
#include "accessibility/trackers/ORVAXElementTracker.h"

namespace orv {

class OrvContextController;

// Receives every claimer's change signal and hands it to the focus tracker's arbitration.
class ORVAXFocusTrackerClaimerObserver {
  public:
    void focusedElementChanged(const ORVAXFocusClaimerRef& claimer);
};

// Decides which focus claimer speaks for the user's focus, follows its element with an element
// tracker, and hands element and visible focus rectangle to the context controller. Class-level
// state only; start-up calls enable() once. Main thread only.
class ORVAXFocusTracker {
  public:
    static void enable();
    static bool isEnabled();
    // From the application tracker when the frontmost application changes.
    static void activeApplicationChanged(const ORVAXElementRef& app);
    static void calculateFocusedElement(const ORVAXFocusClaimerRef& claimer);
    static void setFocusedElement(const ORVAXElementRef& element, const ORVAXElementRef& app);
    static void untrackCurrentTracker();
    // Trackers report the two kinds of change separately; both mean "report the focus again".
    static void focusChanged();
    static void focusMoved();
    static void reassessFocus();
    // Rounded (halves away from zero), then cut at the origin.
    static Rect normalizedRect(const Rect& rect);

    static std::shared_ptr<OrvContextController> contextController();
    static ORVAXFocusClaimerRef currentClaimer();
    static ORVAXElementTrackerRef currentTracker();
    static std::shared_ptr<ORVAXApplicationFocusedElementFocusClaimer> activeApplicationClaimer();
    static std::shared_ptr<ORVAXApplicationFocusedElementFocusClaimer> notificationCenterClaimer();

    // Drops every claimer, tracker and subscription (tests install a fresh desktop each time).
    static void resetForTesting();
};

}  // namespace orv
