#pragma once

// Web content gives no character ranges: its cursor is an opaque text marker. This tracker
// follows the cursor, or the moving end of a selection, through the markers.

#include <optional>

#include "accessibility/trackers/ORVAXTextElementTracker.h"

namespace orv {

class ORVAXWebAreaElementTracker : public ORVAXTextElementTracker {
  public:
    bool initFor(const ORVAXElementRef& element, const ORVAXElementRef& app) override;
    const char* className() const override { return "ORVAXWebAreaElementTracker"; }

    // The user default "AllowFocusInAXWebArea" (registered as YES), read at the first use of the
    // class; changing it takes a restart.
    static bool allowFocusInAXWebAreaSetting();

    // The caret, or the end of the selection that moved; the zero rectangle when there is none.
    Rect getTextCursorBounds();
    // Yes unless the selection is collapsed at the index any web-area tracker saw last; yes too
    // when an index cannot be read.
    bool isCachedMarkerNewIndex();
    // Null when cursor tracking is off for this web area or no cursor is found.
    ORVOrientedRectRef focus() override;

    bool allowFocusInAXWebArea() const { return allowFocusInAXWebArea_; }
    const std::optional<AXValue>& prevStartMarker() const { return prevStartMarker_; }
    const std::optional<AXValue>& prevEndMarker() const { return prevEndMarker_; }

    // The setting is read again at the next use, and the last index is 0 again.
    static void resetClassStateForTesting();

  private:
    std::optional<AXValue> prevStartMarker_;
    std::optional<AXValue> prevEndMarker_;
    bool allowFocusInAXWebArea_ = true;
};

}  // namespace orv
