#pragma once

#include <functional>

#include "accessibility/element/ORVOrientedRect.h"

namespace orv {

// The class-level front through which the agent sends the focus area to the magnifier.
class ORVAXCommController {
  public:
    // Null sends the all-zero area.
    static void focusArea(const ORVOrientedRectRef& area);

    // Sees every area handed to the link, after it was dispatched (tools print them).
    using FocusAreaObserver = std::function<void(const ORVOrientedRectRef& area)>;
    static void setFocusAreaObserver(FocusAreaObserver observer);
};

}  // namespace orv
