#pragma once

#include "accessibility/element/ORVOrientedRect.h"

namespace orv {

// The class-level front through which the agent sends the focus area to the magnifier.
class ORVAXCommController {
public:
    // Null sends the all-zero area.
    static void focusArea(const ORVOrientedRectRef& area);
};

}  // namespace orv
