#include "accessibility/element/UIElementUtilities.h"

#include <algorithm>

#include "Common/Format.h"
#include "Common/OrvLogger.h"
#include "platform/Platform.h"

namespace orv {

namespace {
Displays& installedDisplays() {
    return *platform().displays;
}

double overlapArea(const Rect& a, const Rect& b) {
    const Rect common = a.intersection(b);
    return common.isNull() ? 0 : common.size.width * common.size.height;
}

// Squared length of the shortest line between the two; 0 when they touch or overlap.
double gapSquared(const Rect& a, const Rect& b) {
    const double dx = std::max({0.0, b.minX() - a.maxX(), a.minX() - b.maxX()});
    const double dy = std::max({0.0, b.minY() - a.maxY(), a.minY() - b.maxY()});
    return dx * dx + dy * dy;
}

// Whether a rectangle whose origin lies on no display belongs to the main display: the display
// holding most of it, or, when it covers none, the one nearest to it; ties go to the main one.
// The screens stand for the displays (main first): the secondaries' bounds are their frames
// flipped back against the main display's height.
bool nearestDisplayIsMain(Displays& displays, const Rect& rect, const Rect& mainBounds) {
    const double mainHeight = mainBounds.size.height;
    double mostArea = overlapArea(rect, mainBounds);
    double leastGap = gapSquared(rect, mainBounds);
    bool mostOnMain = true, nearestIsMain = true;
    const auto frames = displays.screenFrames();
    for (size_t i = 1; i < frames.size(); ++i) {
        const Rect& f = frames[i];
        const Rect bounds(f.origin.x, mainHeight - (f.origin.y + f.size.height), f.size.width,
                          f.size.height);
        if (const double area = overlapArea(rect, bounds); area > mostArea)
            mostArea = area, mostOnMain = false;
        if (const double gap = gapSquared(rect, bounds); gap < leastGap)
            leastGap = gap, nearestIsMain = false;
    }
    return mostArea > 0 ? mostOnMain : nearestIsMain;
}
}  // namespace

Rect UIElementUtilities::cocoaScreenRectFromCarbonScreenRect(const Rect& carbon) {
    return cocoaScreenRectFromCarbonScreenRect(installedDisplays(), carbon);
}

Rect UIElementUtilities::cocoaScreenRectFromCarbonScreenRect(Displays& displays,
                                                             const Rect& carbon) {
    Displays::DisplayID display = 0;
    uint32_t count = 0;
    const int32_t err = displays.getDisplaysWithPoint(carbon.origin, &display, &count);
    if (err != 0) {
        systemLogFormat("failed to get display with point (%f, %f): %d", carbon.origin.x,
                        carbon.origin.y, err);
        return carbon;
    }
    const Displays::DisplayID mainID = displays.mainDisplayID();
    const Rect mainBounds = displays.displayBounds(mainID);
    Rect out = carbon;
    out.origin.y = mainBounds.size.height - carbon.origin.y;
    // A window dragged past the screen's edge begins on no display; flipped as on a secondary it
    // would land above the screen and clipping to it would hide every widget inside.
    const bool onMain =
        count > 0 ? display == mainID : nearestDisplayIsMain(displays, carbon, mainBounds);
    if (onMain) out.origin.y -= carbon.size.height;
    return out;
}

Point UIElementUtilities::carbonScreenPointFromCocoaScreenPoint(const Point& cocoa) {
    return carbonScreenPointFromCocoaScreenPoint(installedDisplays(), cocoa);
}

Point UIElementUtilities::carbonScreenPointFromCocoaScreenPoint(Displays& displays,
                                                                const Point& cocoa) {
    const Rect* chosen = nullptr;
    const auto frames = displays.screenFrames();
    for (const auto& frame : frames)
        if (frame.contains(cocoa)) chosen = &frame;
    if (!chosen) {
        systemLogFormat("failed to find screen containing point: %f,%f", cocoa.x, cocoa.y);
        return Point{0, 0};
    }
    return Point{cocoa.x, (chosen->origin.y + chosen->size.height) - cocoa.y};
}

Rect UIElementUtilities::flippedScreenBounds(const Rect& rect) {
    return flippedScreenBounds(installedDisplays(), rect);
}

Rect UIElementUtilities::flippedScreenBounds(Displays& displays, const Rect& rect) {
    const auto frames = displays.screenFrames();
    if (frames.empty()) return rect;
    const Rect& first = frames.front();
    Rect out = rect;
    out.origin.y = (first.origin.y + first.size.height) - (rect.origin.y + rect.size.height);
    return out;
}

Rect UIElementUtilities::allScreensFrame() {
    return allScreensFrame(installedDisplays());
}

Rect UIElementUtilities::allScreensFrame(Displays& displays) {
    Rect all;
    for (const auto& frame : displays.screenFrames()) all = all.unionWith(frame);
    return all;
}

pid_t UIElementUtilities::processIdentifierOfUIElement(const AXUIElementRef& element) {
    if (!element) return 0;
    pid_t pid = 0;
    if (axAPI().getPid(element, &pid) != kAXErrorSuccess) return 0;
    return pid;
}

std::string UIElementUtilities::stringDescriptionOfAXValue(const AXValue& value,
                                                           bool beingVerbose) {
    if (auto p = value.get<Point>())
        return beingVerbose ? format("<AXPointValue x=%g y=%g>", p->x, p->y)
                            : format("x=%g y=%g", p->x, p->y);
    if (auto s = value.get<Size>())
        return beingVerbose ? format("<AXSizeValue w=%g h=%g>", s->width, s->height)
                            : format("w=%g h=%g", s->width, s->height);
    if (auto r = value.get<Rect>())
        return beingVerbose ? format("<AXRectValue  x=%g y=%g w=%g h=%g>", r->origin.x, r->origin.y,
                                     r->size.width, r->size.height)
                            : format("x=%g y=%g w=%g h=%g", r->origin.x, r->origin.y, r->size.width,
                                     r->size.height);
    if (auto g = value.get<Range>())
        return beingVerbose ? format("<AXRangeValue pos=%ld len=%ld>", g->location, g->length)
                            : format("pos=%ld len=%ld", g->location, g->length);
    return "AXValue???";
}

}  // namespace orv
