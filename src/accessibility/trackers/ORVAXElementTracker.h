#pragma once

#include <memory>
#include <string>

#include "Common/Geometry.h"
#include "accessibility/element/ORVAXElement.h"
#include "accessibility/element/ORVOrientedRect.h"
#include "platform/MainLoop.h"

namespace orv {

class ORVAXElementTracker;
using ORVAXElementTrackerRef = std::shared_ptr<ORVAXElementTracker>;

// Follows one focused element while it holds focus and answers where, on screen, the focus inside
// it is now. The factory picks the class by role and subrole; the base reports the element's
// visible bounds. Every tracker reports changes to the focus tracker through the two dispatch
// operations only. Main thread only.
class ORVAXElementTracker : public std::enable_shared_from_this<ORVAXElementTracker> {
  public:
    // A tracker of the class the element's role and subrole call for; null if it cannot be made.
    static ORVAXElementTrackerRef newFor(const ORVAXElementRef& element,
                                         const ORVAXElementRef& app);
    // Yes for no element and for a menu bar.
    static bool shouldIgnore(const ORVAXElementRef& element);

    ORVAXElementTracker() = default;
    virtual ~ORVAXElementTracker();
    ORVAXElementTracker(const ORVAXElementTracker&) = delete;
    ORVAXElementTracker& operator=(const ORVAXElementTracker&) = delete;

    // Stores the element and the application; subclasses subscribe to what they need after it.
    virtual bool initFor(const ORVAXElementRef& element, const ORVAXElementRef& app);

    virtual const char* className() const { return "ORVAXElementTracker"; }

    // The focus by this tracker's rule: the element's visible bounds, centred, source 2.
    virtual ORVOrientedRectRef focus();
    // The focus when it is visible, else null; remembered as the last visible focus. Only the
    // rectangle is compared with the last one, so new edges or source alone keep the old object.
    ORVOrientedRectRef visibleFocus();
    // The rectangle cut to the element's top-level window, unless that window is full screen.
    Rect clipToWindow(const Rect& rect);
    // Poll step: reports a move when the visible focus appeared, went, or changed.
    void checkFocus();
    // Yes when the tracker announces its first focus itself, later.
    virtual bool delayed() { return false; }
    // Starts the 0.5 s poll (once); the poll keeps the tracker alive until stop().
    void start();
    void stop();
    // Drops subscriptions a subclass holds beyond its own lifetime rules.
    virtual void ceaseObservation() {}

    void dispatchFocusChanged();
    void dispatchFocusMoved();

    const ORVAXElementRef& element() const { return element_; }
    void setElement(ORVAXElementRef e) { element_ = std::move(e); }
    const ORVAXElementRef& app() const { return app_; }
    void setApp(ORVAXElementRef a) { app_ = std::move(a); }
    const ORVOrientedRectRef& lastVisibleFocus() const { return lastVisibleFocus_; }
    bool isPolling() const { return focusRefresh_ != nullptr; }

    static constexpr double kPollInterval = 0.5;

  protected:
    // A new rectangle object from one element's bounds (visible or plain) with the given codes;
    // zero-sized when the element is gone.
    static ORVOrientedRectRef rectOf(const ORVAXElementRef& element, bool visible, uint32_t edgeX,
                                     uint32_t edgeY, uint32_t source);

  private:
    ORVAXElementRef element_;
    ORVAXElementRef app_;
    ORVOrientedRectRef lastVisibleFocus_;
    TimerRef focusRefresh_;
};

}  // namespace orv
