#pragma once

#include <memory>

#include "Common/Signal.h"
#include "accessibility/element/ORVAXElement.h"
#include "accessibility/element/ORVOrientedRect.h"

namespace orv {

// Turns an element of interest and its focus rectangle into the agent's two outputs: the focus
// area sent to the magnifier and the focus echo. This plain handler is the standard one, current
// nearly all the time. Main thread only.
class OrvContextHandler : public std::enable_shared_from_this<OrvContextHandler> {
  public:
    static std::shared_ptr<OrvContextHandler> create() {
        return std::make_shared<OrvContextHandler>();
    }
    virtual ~OrvContextHandler() = default;

    virtual const char* className() const { return "OrvContextHandler"; }

    // No when both are nil or both are equal in rectangle, edges and source.
    virtual bool differsFromLastFocus(const ORVOrientedRectRef& location);
    // Sends a changed area to the magnifier; echoes a new element.
    virtual void setElementOfInterest(const ORVAXElementRef& element,
                                      const ORVOrientedRectRef& location);
    virtual void updateFocusedElement(const ORVAXElementRef& element);
    // What the echo speaks about: a list's or table's single selected entry, recursively.
    virtual ORVAXElementRef updateFocusedElementStartingOn(const ORVAXElementRef& element);
    virtual void terminate() {}
    virtual void focusEchoDidFinishSpeaking() {}

    bool doneHandlingContext() const { return doneHandlingContext_; }
    void setDoneHandlingContext(bool done);
    // Observable: every set is reported (key "doneHandlingContext").
    Signal<bool> doneHandlingContextChanged;

    ORVOrientedRectRef lastFocus() const { return lastFocus_; }
    void setLastFocus(ORVOrientedRectRef focus) { lastFocus_ = std::move(focus); }

    // The element last given to the focus echo, shared by all handlers so that a handler change
    // does not repeat an echo.
    static ORVAXElementRef lastEchoedElement();
    static void resetForTesting();

  private:
    bool doneHandlingContext_ = false;
    ORVOrientedRectRef lastFocus_;
};

}  // namespace orv
