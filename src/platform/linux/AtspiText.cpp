// Parameterized text reads: bounds and strings of character ranges.

#include <atspi/atspi.h>

#include <climits>
#include <cmath>

#include "platform/linux/AtspiAccessibility.h"
#include "platform/linux/AtspiCalls.h"

namespace orv::linuxdesk {

using namespace detail;

AXError AtspiAccessibility::copyParameterizedAttributeValue(const AXUIElementRef& element,
                                                            const std::string& attribute,
                                                            const AXValue& parameter,
                                                            AXValue* out) {
    ORV_ON_MAIN(copyParameterizedAttributeValue(element, attribute, parameter, out));
    *out = AXValue();
    const AtspiElement* el = asAtspi(element);
    if (!el) return kAXErrorIllegalArgument;
    if (el->kind() == AtspiElement::Kind::Missing) return kAXErrorInvalidUIElement;
    if (el->kind() != AtspiElement::Kind::Object) return kAXErrorParameterizedAttributeUnsupported;
    const bool bounds = attribute == "AXBoundsForRange";
    if (!bounds && attribute != "AXStringForRange")
        return kAXErrorParameterizedAttributeUnsupported;
    const Range* range = parameter.get<Range>();
    if (!range || range->location < 0 || range->length < 0) return kAXErrorIllegalArgument;
    AtspiAccessible* acc = el->accessible();
    if (appGone(acc)) return kAXErrorInvalidUIElement;
    CallClock clock;
    GRef<AtspiText> text(atspi_accessible_get_text_iface(acc));
    if (!text)
        return desktop_->looksTimedOut(clock) ? kAXErrorCannotComplete
                                              : kAXErrorParameterizedAttributeUnsupported;
    const int start = static_cast<int>(range->location);
    const int end = static_cast<int>(range->location + range->length);
    Err err;
    if (bounds) {
        AtspiRect* r =
            atspi_text_get_range_extents(text.p, start, end, ATSPI_COORD_TYPE_SCREEN, &err);
        if (!r || err.e) {
            g_free(r);
            return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
        }
        const Rect raw(r->x, r->y, r->width, r->height);
        g_free(r);
        const std::optional<Point> shift = surfaceOffset(acc);
        if (!shift) return kAXErrorNoValue;
        const Point o = desktop_->screenOrigin();
        *out = AXValue(Rect(raw.origin.x + shift->x - o.x, raw.origin.y + shift->y - o.y,
                            raw.size.width, raw.size.height));
        return kAXErrorSuccess;
    }
    GStr s{atspi_text_get_text(text.p, start, end, &err)};
    if (err.e || !s.s) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
    *out = AXValue(s.str());
    return kAXErrorSuccess;
}

}  // namespace orv::linuxdesk
