// Text: the caret, selections, lines, and the bounds and strings of character ranges.
//
// AT-SPI counts characters (code points); the texts it hands over are UTF-8. Lines are the
// text's own: each ends after its "\n", and a text that ends in "\n" has an empty last line.
// Toolkits wrap long lines on screen, but what they call a line differs from one to the next;
// the text's own lines are the same everywhere and cost one call.

#include <atspi/atspi.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <string_view>

#include "platform/linux/AtspiAccessibility.h"
#include "platform/linux/AtspiCalls.h"

namespace orv::linuxdesk {

using namespace detail;

namespace {

bool isLead(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
}

// Lines of a text as character ranges, each with its closing "\n".
std::vector<Range> linesOf(std::string_view text) {
    std::vector<Range> lines;
    long start = 0, at = 0;
    for (char c : text) {
        if (!isLead(c)) continue;
        ++at;
        if (c == '\n') {
            lines.push_back(Range{start, at - start});
            start = at;
        }
    }
    lines.push_back(Range{start, at - start});
    return lines;
}

}  // namespace

bool AtspiAccessibility::isTextAttribute(const std::string& attribute) {
    return attribute == "AXNumberOfCharacters" || attribute == "AXSelectedTextRange" ||
           attribute == "AXSelectedText" || attribute == "AXInsertionPointLineNumber";
}

AXError AtspiAccessibility::readText(AtspiAccessible* acc, const std::string& attribute,
                                     AXValue* out) {
    CallClock clock;
    GRef<AtspiText> text(atspi_accessible_get_text_iface(acc));
    if (!text)
        return desktop_->looksTimedOut(clock) ? kAXErrorCannotComplete
                                              : kAXErrorAttributeUnsupported;
    Err err;
    if (attribute == "AXNumberOfCharacters") {
        const int n = atspi_text_get_character_count(text.p, &err);
        if (n < 0 || err.e) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
        *out = AXValue(n);
        return kAXErrorSuccess;
    }
    // The caret's offset comes with the event being delivered; else it is asked for.
    auto caretOffset = [&] {
        const int told = desktop_->caretBeingTold(acc);
        return told >= 0 ? told : atspi_text_get_caret_offset(text.p, &err);
    };
    if (attribute == "AXInsertionPointLineNumber") {
        const int caret = caretOffset();
        if (caret < 0 || err.e) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
        GStr before{atspi_text_get_text(text.p, 0, caret, &err)};
        if (err.e || !before.s) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
        *out = AXValue(static_cast<long>(linesOf(before.s).size() - 1));
        return kAXErrorSuccess;
    }
    Range range{-1, 0};
    const int nsel = atspi_text_get_n_selections(text.p, &err);
    if (err.e) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
    if (nsel > 0) {
        AtspiRange* r = atspi_text_get_selection(text.p, 0, &err);
        if (!r || err.e) {
            g_free(r);
            return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
        }
        range = Range{std::min(r->start_offset, r->end_offset),
                      std::abs(r->end_offset - r->start_offset)};
        g_free(r);
    } else {
        const int caret = caretOffset();
        if (caret < 0 || err.e) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
        range = Range{caret, 0};
    }
    if (attribute == "AXSelectedTextRange") {
        *out = AXValue(range);
        return kAXErrorSuccess;
    }
    GStr s{atspi_text_get_text(text.p, static_cast<int>(range.location),
                               static_cast<int>(range.location + range.length), &err)};
    if (err.e) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
    *out = AXValue(s.str());
    return kAXErrorSuccess;
}

AXError AtspiAccessibility::textExtents(AtspiAccessible* acc, AtspiText* text, int start, int end,
                                        Rect* out) {
    *out = Rect();
    CallClock clock;
    Err err;
    // One character is asked as a character: Qt answers the range of a line's "\n" with a box
    // over that line and the next, from the line's start.
    AtspiRect* r =
        end == start + 1
            ? atspi_text_get_character_extents(text, start, ATSPI_COORD_TYPE_SCREEN, &err)
            : atspi_text_get_range_extents(text, start, end, ATSPI_COORD_TYPE_SCREEN, &err);
    if (!r || err.e) {
        g_free(r);
        return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
    }
    const Rect raw(r->x, r->y, r->width, r->height);
    g_free(r);
    // What toolkits answer where there is no character: Qt and Chromium all zeros, Firefox an
    // empty rectangle, ATK -1s, GTK 3 a rectangle without width past the end. All mean "none
    // here", which the cursor's fallbacks take only as the zero rectangle. GTK 3's "\n" has no
    // width either, but stands where the caret goes on its line: that one is kept.
    if (raw.size.height <= 0) return kAXErrorSuccess;
    if (end > start && raw.size.width <= 0) {
        const int count = atspi_text_get_character_count(text, nullptr);
        if (end > count) return kAXErrorSuccess;
    }
    const std::optional<Point> shift = surfaceOffset(acc);
    if (!shift) return kAXErrorNoValue;
    const Point o = desktop_->screenOrigin();
    *out = Rect(raw.origin.x + shift->x - o.x, raw.origin.y + shift->y - o.y, raw.size.width,
                raw.size.height);
    return kAXErrorSuccess;
}

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
    AtspiAccessible* acc = el->accessible();
    if (appGone(acc)) return kAXErrorInvalidUIElement;
    if (auto web = readWebParameterized(*el, attribute, parameter, out)) return *web;
    const bool bounds = attribute == "AXBoundsForRange";
    const bool line = attribute == "AXRangeForLine";
    if (!bounds && !line && attribute != "AXStringForRange")
        return kAXErrorParameterizedAttributeUnsupported;
    const Range* range = parameter.get<Range>();
    const int64_t* index = parameter.get<int64_t>();
    if (line ? (!index || *index < 0)
             : (!range || range->location < 0 || range->length < 0 ||
                range->location + range->length > INT_MAX))
        return kAXErrorIllegalArgument;
    CallClock clock;
    GRef<AtspiText> text(atspi_accessible_get_text_iface(acc));
    if (!text)
        return desktop_->looksTimedOut(clock) ? kAXErrorCannotComplete
                                              : kAXErrorParameterizedAttributeUnsupported;
    Err err;
    if (line) {
        GStr all{atspi_text_get_text(text.p, 0, -1, &err)};
        if (err.e || !all.s) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
        const std::vector<Range> lines = linesOf(all.s);
        if (*index >= static_cast<int64_t>(lines.size())) return kAXErrorIllegalArgument;
        *out = AXValue(lines[static_cast<size_t>(*index)]);
        return kAXErrorSuccess;
    }
    const int start = static_cast<int>(range->location);
    const int end = static_cast<int>(range->location + range->length);
    if (bounds) {
        Rect r;
        if (AXError e = textExtents(acc, text.p, start, end, &r)) return e;
        *out = AXValue(r);
        return kAXErrorSuccess;
    }
    GStr s{atspi_text_get_text(text.p, start, end, &err)};
    if (err.e || !s.s) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
    *out = AXValue(s.str());
    return kAXErrorSuccess;
}

}  // namespace orv::linuxdesk
