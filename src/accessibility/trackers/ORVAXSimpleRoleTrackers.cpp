#include "accessibility/trackers/ORVAXSimpleRoleTrackers.h"

namespace orv {

ORVOrientedRectRef ORVAXOptionElementTracker::focus() {
    return rectOf(element(), true, 2, 0, 2);
}
ORVOrientedRectRef ORVAXMenuItemTracker::focus() {
    return rectOf(element(), false, 2, 0, 5);
}
ORVOrientedRectRef ORVAXMenuTracker::focus() {
    return rectOf(element(), false, 2, 1, 5);
}
ORVOrientedRectRef ORVAXNotificationCenterAlertTracker::focus() {
    return rectOf(element(), true, 2, 0, 3);
}
ORVOrientedRectRef ORVAXNotificationCenterBannerTracker::focus() {
    return rectOf(element(), true, 2, 0, 4);
}
ORVOrientedRectRef ORVAXWindowTracker::focus() {
    return rectOf(element(), true, 0, 1, 6);
}

ORVOrientedRectRef ORVAXSheetTracker::focus() {
    ORVAXElementRef target = element();
    try {
        if (element())
            if (auto button = element()->getElementAttribute("AXDefaultButton")) target = button;
    } catch (const PlatformException&) {
        // An application that raises here has no usable default button: the sheet stands in.
        target = element();
    }
    return rectOf(target, false, 0, 0, 2);
}

}  // namespace orv
