// The deepest object at a screen point.

#include <atspi/atspi.h>

#include <climits>
#include <cmath>

#include "platform/linux/AtspiAccessibility.h"
#include "platform/linux/AtspiCalls.h"

namespace orv::linuxdesk {

using namespace detail;

// --- Hit testing ------------------------------------------------------------------------------

AXError AtspiAccessibility::deepestAt(AtspiAccessible* start, int x, int y, AXUIElementRef* out) {
    AtspiAccessible* cur = static_cast<AtspiAccessible*>(g_object_ref(start));
    CallClock clock;
    for (int depth = 0; depth < kMaxDepth; ++depth) {
        GRef<AtspiComponent> comp(atspi_accessible_get_component_iface(cur));
        if (!comp) break;
        Err err;
        AtspiAccessible* child =
            atspi_component_get_accessible_at_point(comp.p, x, y, ATSPI_COORD_TYPE_SCREEN, &err);
        if (!child) {
            if (err.e || desktop_->looksTimedOut(clock)) {
                AXError e = desktop_->errorFor(err.e, clock, kAXErrorSuccess);
                if (e == kAXErrorCannotComplete || e == kAXErrorInvalidUIElement) {
                    g_object_unref(cur);
                    return e;
                }
            }
            break;
        }
        if (child == cur) {
            g_object_unref(child);
            break;
        }
        g_object_unref(cur);
        cur = child;
    }
    *out = AtspiElement::adopt(cur);
    return kAXErrorSuccess;
}

AXError AtspiAccessibility::copyElementAtPosition(const AXUIElementRef& element, float x, float y,
                                                  AXUIElementRef* out) {
    ORV_ON_MAIN(copyElementAtPosition(element, x, y, out));
    *out = nullptr;
    const AtspiElement* el = asAtspi(element);
    if (!el) return kAXErrorIllegalArgument;
    if (el->kind() == AtspiElement::Kind::Missing) return kAXErrorInvalidUIElement;
    if (el->kind() == AtspiElement::Kind::Object) return kAXErrorIllegalArgument;
    const Point o = desktop_->screenOrigin();
    const int sx = static_cast<int>(std::floor(x + o.x));
    const int sy = static_cast<int>(std::floor(y + o.y));

    std::vector<AppInfo*> apps;
    if (el->kind() == AtspiElement::Kind::Application) {
        AppInfo* app = desktop_->appOf(*el);
        if (!app) return kAXErrorInvalidUIElement;
        apps.push_back(app);
    } else {
        // Stacking order is not known to AT-SPI: the front application's windows go first.
        AppInfo* front = desktop_->frontmostApp();
        if (front) apps.push_back(front);
        for (AppInfo* a : desktop_->applications())
            if (a != front) apps.push_back(a);
    }
    for (AppInfo* app : apps) {
        AXError err = kAXErrorSuccess;
        AtspiElementRef active = desktop_->activeWindow(*app, &err);
        AXArray windows;
        if (children(app->root->accessible(), &windows, true) != kAXErrorSuccess) continue;
        // The active window first: it is on top of its application's others.
        std::vector<AtspiElementRef> order;
        if (active) order.push_back(active);
        for (const auto& w : windows) {
            auto we = std::static_pointer_cast<const AtspiElement>(*w.get<AXUIElementRef>());
            if (!active || !we->equals(*active)) order.push_back(we);
        }
        for (const auto& w : order) {
            AtspiStateSet* set = statesOf(w->accessible());
            const bool showing = set && atspi_state_set_contains(set, ATSPI_STATE_SHOWING);
            if (set) g_object_unref(set);
            if (!showing) continue;
            Rect r;
            if (extents(w->accessible(), &r) != kAXErrorSuccess) continue;
            if (!r.contains(Point{x, y})) continue;
            // Window-relative toolkits are asked with the point in their own terms.
            const Point shift = surfaceOffset(w->accessible()).value_or(Point{});
            return deepestAt(w->accessible(), sx - static_cast<int>(shift.x),
                             sy - static_cast<int>(shift.y), out);
        }
    }
    return kAXErrorNoValue;
}

}  // namespace orv::linuxdesk
