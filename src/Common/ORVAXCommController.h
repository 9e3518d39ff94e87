#pragma once

#include <functional>
#include <map>
#include <string>

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

    // Applies the speech settings present in a dictionary of texts, in the one fixed order the
    // echo controller expects; absent keys leave a setting as it is, unknown keys are ignored.
    static void updateUsingDictionary(const std::map<std::string, std::string>& settings);
};

}  // namespace orv
