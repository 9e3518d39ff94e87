#pragma once

// Conversions between the accessibility interface's top-left-origin space ("Carbon": origin at the
// main display's top-left, y down) and the agent's bottom-left-origin space ("Cocoa": origin at
// the primary screen's bottom-left, y up), and value descriptions for logs.
// Each operation has a form on an explicit display layout, for use without an installed platform.

#include <string>

#include "Common/Geometry.h"
#include "platform/AXTypes.h"
#include "platform/Desktop.h"

namespace orv {

class UIElementUtilities {
  public:
    // Flips against the main display; the rectangle's height is subtracted only when its origin
    // lies on the main display (the magnifier is matched to that asymmetry). An origin on no
    // display counts as on the display holding most of the rectangle, or else the nearest one.
    static Rect cocoaScreenRectFromCarbonScreenRect(const Rect& carbon);
    static Rect cocoaScreenRectFromCarbonScreenRect(Displays& displays, const Rect& carbon);

    // Flips against the top of the containing screen (the last one in order that contains it);
    // (0, 0) when no screen contains the point.
    static Point carbonScreenPointFromCocoaScreenPoint(const Point& cocoa);
    static Point carbonScreenPointFromCocoaScreenPoint(Displays& displays, const Point& cocoa);

    static Rect flippedScreenBounds(const Rect& rect);
    static Rect flippedScreenBounds(Displays& displays, const Rect& rect);

    static Rect allScreensFrame();
    static Rect allScreensFrame(Displays& displays);

    // 0 when the platform cannot tell.
    static pid_t processIdentifierOfUIElement(const AXUIElementRef& element);

    static std::string stringDescriptionOfAXValue(const AXValue& value, bool beingVerbose);
};

}  // namespace orv
