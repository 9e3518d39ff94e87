#include "accessibility/trackers/ORVAXWebAreaElementTracker.h"

#include "platform/Platform.h"

namespace orv {

namespace {

const char* const kAllowFocusKey = "AllowFocusInAXWebArea";

struct WebAreaClassState {
    std::optional<bool> allowFocus;
    // The start index of the last collapsed or uncollapsed selection any web area reported.
    int64_t lastIndex = 0;
};
WebAreaClassState& classState() {
    static WebAreaClassState state;
    return state;
}

struct MarkerEnds {
    AXValue start;
    AXValue end;
};

// The two ends of a selected marker range; nullopt when the value is no marker range.
std::optional<MarkerEnds> endsOf(const AXValue& range) {
    const auto* markers = range.get<AXTextMarkerRange>();
    if (!markers) return std::nullopt;
    auto start = textMarkerRangeStart(*markers);
    auto end = textMarkerRangeEnd(*markers);
    if (!start || !end) return std::nullopt;
    return MarkerEnds{AXValue(std::move(*start)), AXValue(std::move(*end))};
}

std::optional<int64_t> indexOf(ORVAXElement& element, const std::optional<AXValue>& marker) {
    if (!marker) return std::nullopt;
    const auto value = element.getIndexForTextMarker(*marker);
    if (!value) return std::nullopt;
    if (const auto* i = value->get<int64_t>()) return *i;
    if (const auto* d = value->get<double>()) return static_cast<int64_t>(*d);
    return std::nullopt;
}

}  // namespace

bool ORVAXWebAreaElementTracker::allowFocusInAXWebAreaSetting() {
    auto& state = classState();
    if (!state.allowFocus) {
        const auto& defaults = platform().defaults;
        if (defaults) {
            defaults->registerDefaults({{kAllowFocusKey, "YES"}});
            state.allowFocus = defaults->boolForKey(kAllowFocusKey);
        } else {
            state.allowFocus = true;
        }
    }
    return *state.allowFocus;
}

void ORVAXWebAreaElementTracker::resetClassStateForTesting() {
    classState() = WebAreaClassState{};
}

bool ORVAXWebAreaElementTracker::initFor(const ORVAXElementRef& element,
                                         const ORVAXElementRef& app) {
    if (!ORVAXTextElementTracker::initFor(element, app)) return false;
    prevStartMarker_.reset();
    prevEndMarker_.reset();
    if (element)
        if (const auto range = element->getSelectedTextMarkerRange())
            if (auto ends = endsOf(*range)) {
                prevStartMarker_ = std::move(ends->start);
                prevEndMarker_ = std::move(ends->end);
            }
    allowFocusInAXWebArea_ = allowFocusInAXWebAreaSetting();
    if (allowFocusInAXWebArea_ && element) {
        // The mail application's message view is web content the user reads, not edits. An
        // element whose application cannot be told is treated the same way.
        const auto bundle = element->getBundleIdentifier();
        if (!bundle || *bundle == "com.apple.mail") {
            const auto url = element->getStringAttribute("AXURL");
            if (url && url->starts_with("x-webdoc://")) allowFocusInAXWebArea_ = false;
        }
    }
    return true;
}

Rect ORVAXWebAreaElementTracker::getTextCursorBounds() {
    if (!element()) return Rect();
    const auto range = element()->getSelectedTextMarkerRange();
    if (!range) return Rect();
    auto ends = endsOf(*range);
    if (!ends) return Rect();
    const AXValue& s = ends->start;
    const AXValue& e = ends->end;
    Rect result;
    if (s == e) {
        // A caret reports only inside text; in an image or a control of the page it says
        // nothing useful.
        const auto named = element()->getValueAttribute("AXUIElementForTextMarker", s);
        const auto* ref = named ? named->get<AXUIElementRef>() : nullptr;
        ORVAXElementRef holder = ref ? ORVAXElement::newForElement(*ref) : nullptr;
        if (!holder || holder->getRole() == std::optional<std::string>("AXStaticText"))
            result = element()->getBoundsForTextMarkerRange(*range);
    } else if (prevStartMarker_ && s == *prevStartMarker_) {
        result = element()->getBoundsForTextMarker(e);  // the end moved
    } else if (prevEndMarker_ && e == *prevEndMarker_) {
        result = element()->getBoundsForTextMarker(s);  // the start moved
    } else {
        result = element()->getBoundsForTextMarkerRange(*range);
    }
    prevStartMarker_ = std::move(ends->start);
    prevEndMarker_ = std::move(ends->end);
    return result;
}

bool ORVAXWebAreaElementTracker::isCachedMarkerNewIndex() {
    if (!element()) return true;
    const auto start = indexOf(*element(), prevStartMarker_);
    const auto end = indexOf(*element(), prevEndMarker_);
    if (!start || !end) return true;
    int64_t& last = classState().lastIndex;
    const bool same = *start == *end && *start == last;
    last = *start;
    return !same;
}

ORVOrientedRectRef ORVAXWebAreaElementTracker::focus() {
    if (!allowFocusInAXWebArea_) return nullptr;
    const Rect r = getTextCursorBounds();
    if (r.isZero()) return nullptr;
    const uint32_t source = isCachedMarkerNewIndex() ? 1 : 8;
    return ORVOrientedRect::initWithRect(r, 0, 0, source);
}

}  // namespace orv
