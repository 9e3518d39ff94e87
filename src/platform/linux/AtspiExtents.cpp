// Where objects are: the toolkit's extents placed on the screen, and the last place standing in
// for a read that fails while the focus moves or its application is busy.

#include <atspi/atspi.h>

#include <climits>

#include "platform/linux/AtspiAccessibility.h"
#include "platform/linux/AtspiCalls.h"

namespace orv::linuxdesk {

using namespace detail;

namespace {

// Objects whose last extents are remembered for reads that time out; past this, all are
// forgotten.
constexpr size_t kLastExtentsKept = 1024;
// How long a focus that lost its place keeps its last one while the next focus-in is awaited.
constexpr double kLostPlaceGrace = 0.2;

}  // namespace

AXError AtspiAccessibility::extents(AtspiAccessible* acc, Rect* out) {
    const Point o = desktop_->screenOrigin();
    std::string key = busNameOf(acc) + pathOf(acc);
    Rect r;
    AXError e = rawExtents(acc, &r);
    std::optional<Point> shift;
    if (e == kAXErrorSuccess) {
        shift = surfaceOffset(acc);
        // Window-relative numbers whose window is not found would put the focus anywhere.
        if (!shift) e = kAXErrorNoValue;
    }
    const double now = static_cast<double>(g_get_monotonic_time()) / 1e6;
    if (e != kAXErrorSuccess && e != kAXErrorCannotComplete && desktop_->isKeptFocus(acc)) {
        // The focus lost its place without a focus-out: GTK hides a menu as the next one
        // opens, and tells of the new menu's item a few milliseconds later. Its last place
        // stands that long, instead of "no focus" in between.
        auto lost = lostAt_.try_emplace(key, now).first;
        if (now - lost->second < kLostPlaceGrace) e = kAXErrorCannotComplete;
    }
    if (e == kAXErrorCannotComplete) {
        // A busy application that does not answer in time has not moved its objects as far as
        // anyone knows: its last answer stands, instead of a focus that jumps to nothing.
        auto it = lastExtents_.find(key);
        if (it == lastExtents_.end()) return e;
        *out = Rect(it->second.origin.x - o.x, it->second.origin.y - o.y, it->second.size.width,
                    it->second.size.height);
        return kAXErrorSuccess;
    }
    if (e != kAXErrorSuccess) return e;
    const Rect x11(r.origin.x + shift->x, r.origin.y + shift->y, r.size.width, r.size.height);
    if (!lostAt_.empty()) lostAt_.erase(key);
    if (lastExtents_.size() >= kLastExtentsKept) lastExtents_.clear(), lostAt_.clear();
    lastExtents_[std::move(key)] = x11;
    *out = Rect(x11.origin.x - o.x, x11.origin.y - o.y, x11.size.width, x11.size.height);
    return kAXErrorSuccess;
}

AXError AtspiAccessibility::rawExtents(AtspiAccessible* acc, Rect* x11) {
    if (turn_.find(acc, x11)) return kAXErrorSuccess;
    if (turn_.timedOut(acc)) return kAXErrorCannotComplete;
    CallClock clock;
    GRef<AtspiComponent> comp(atspi_accessible_get_component_iface(acc));
    if (!comp)
        return desktop_->looksTimedOut(clock) ? kAXErrorCannotComplete
                                              : kAXErrorAttributeUnsupported;
    Err err;
    AtspiRect* r = atspi_component_get_extents(comp.p, ATSPI_COORD_TYPE_SCREEN, &err);
    if (!r || err.e) {
        g_free(r);
        return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
    }
    const AtspiRect rect = *r;
    g_free(r);
    if (desktop_->looksTimedOut(clock) && rect.x == -1 && rect.y == -1 && rect.width == -1)
        return kAXErrorCannotComplete;
    if (rect.width < 0 || rect.height < 0 || rect.x == INT_MIN || rect.y == INT_MIN)
        return kAXErrorNoValue;
    *x11 = Rect(rect.x, rect.y, rect.width, rect.height);
    turn_.remember(acc, *x11);
    return kAXErrorSuccess;
}

}  // namespace orv::linuxdesk
