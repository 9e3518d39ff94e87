#include "accessibility/trackers/ORVAXTextElementTracker.h"

#include <cmath>

#include "Common/Format.h"
#include "Common/OrvLogger.h"

namespace orv {

namespace {

const char* const kSelectedTextChanged = "AXSelectedTextChanged";
const char* const kValueChanged = "AXValueChanged";
const char* const kCreated = "AXCreated";
const char* const kElementDestroyed = "AXUIElementDestroyed";
const char* const kSelectedChildrenChanged = "AXSelectedChildrenChanged";

// The cursor's last offset from its element's origin, shared by every plain-text tracker.
struct VirtualLocation {
    double x = 0.0;
    double y = 0.0;
};
VirtualLocation& lastVirtualLocation() {
    static VirtualLocation location;
    return location;
}

// A block that calls the tracker while it lives. The element owns its blocks, and the tracker
// owns the element: a strong capture would keep both alive for ever.
template <typename T>
ORVAXEventBlock weakly(const std::weak_ptr<ORVAXElementTracker>& weak, void (T::*method)()) {
    return [weak, method](const ORVAXEventRef&) {
        if (auto self = weak.lock()) (static_cast<T*>(self.get())->*method)();
    };
}

bool sameRoundedOrigin(const Rect& a, const Rect& b) {
    // Rounded in single precision, as the applications that misreport compute their rectangles.
    return std::round(static_cast<float>(a.origin.x)) ==
               std::round(static_cast<float>(b.origin.x)) &&
           std::round(static_cast<float>(a.origin.y)) == std::round(static_cast<float>(b.origin.y));
}

Rect caretAt(double x, const Rect& bounds) {
    return Rect(x, bounds.origin.y, 1.0, bounds.size.height);
}

// For the log line only: an element that raised once may raise again while its path is read.
std::string pathForLog(const ORVAXElementRef& element) {
    if (!element) return "(null)";
    try {
        return element->getPath();
    } catch (const PlatformException&) {
        return element->element()->debugDescription();
    }
}

}  // namespace

// --- ORVAXTextElementTracker

ORVAXTextElementTracker::~ORVAXTextElementTracker() {
    if (!element()) return;
    if (selectedTextChangedSubscription_)
        element()->unobserve(kSelectedTextChanged, selectedTextChangedSubscription_);
    if (valueChangedSubscription_) element()->unobserve(kValueChanged, valueChangedSubscription_);
    selectedTextChangedSubscription_ = nullptr;
    valueChangedSubscription_ = nullptr;
}

bool ORVAXTextElementTracker::initFor(const ORVAXElementRef& element, const ORVAXElementRef& app) {
    if (!ORVAXElementTracker::initFor(element, app)) return false;
    if (!element) return true;
    const auto onChanged = weakly(weak_from_this(), &ORVAXTextElementTracker::onChanged);
    selectedTextChangedSubscription_ = element->observe(kSelectedTextChanged, onChanged);
    valueChangedSubscription_ = element->observe(kValueChanged, onChanged);
    return true;
}

void ORVAXTextElementTracker::onChanged() {
    dispatchFocusChanged();
}

// --- ORVAXPlainTextElementTracker

bool ORVAXPlainTextElementTracker::initFor(const ORVAXElementRef& element,
                                           const ORVAXElementRef& app) {
    if (!ORVAXTextElementTracker::initFor(element, app)) return false;
    prevTextRange_ = getSelectedTextRangeOrZero();
    prevCursorPosition_ = prevTextRange_.location + prevTextRange_.length;
    noTextEdgeY_ = element && element->getRole() != std::optional<std::string>("AXTextField");
    return true;
}

void ORVAXPlainTextElementTracker::resetClassStateForTesting() {
    lastVirtualLocation() = VirtualLocation{};
}

Range ORVAXPlainTextElementTracker::getSelectedTextRangeOrZero() {
    const Range range = element() ? element()->getSelectedTextRange() : Range{-1, 0};
    if (range.location < 0) return Range{0, 0};
    return range;
}

int64_t ORVAXPlainTextElementTracker::getCursorPositionForTextElement() {
    if (!element()) return -1;
    const Range range = element()->getSelectedTextRange();
    if (range.location < 0) return -1;
    // The platform does not say which end of a selection holds the cursor: the end that moved
    // since last time does.
    const int64_t location = range.location, length = range.length;
    const int64_t prevLocation = prevTextRange_.location, prevLength = prevTextRange_.length;
    int64_t cursor;
    if (location != prevLocation)
        cursor = location + length == prevLocation + prevLength ? location : location + length;
    else
        cursor = length != prevLength ? location + length : prevCursorPosition_;
    prevTextRange_ = range;
    prevCursorPosition_ = cursor;
    return cursor;
}

Rect ORVAXPlainTextElementTracker::getTextCursorBounds() {
    const ORVAXElementRef e = element();
    try {
        const int64_t c = getCursorPositionForTextElement();
        if (c == -1 || !e) return Rect();
        const int64_t t = e->getNumberOfCharacters();
        if (c < t) {
            Rect b = e->getBoundsForRange(Range{c, 1});
            if (!b.isZero()) {
                if (c > 0) {
                    // Some applications answer the first character's rectangle for any index;
                    // their zero-length ranges still tell where the cursor is.
                    const Rect first = e->getBoundsForRange(Range{0, 1});
                    if (!first.isZero() && sameRoundedOrigin(first, b)) {
                        const Rect caret = e->getBoundsForRange(Range{c, 0});
                        if (!caret.isZero()) {
                            b.origin = caret.origin;
                            b.size.height = caret.size.height;
                        }
                    }
                }
                return caretAt(b.origin.x, b);
            }
        }
        if (c != 0 && c <= t) {
            const auto previous = e->getStringForRange(Range{c - 1, 1});
            if (!previous || *previous == "\n") {
                // At the start of a line. The line before the insertion line is asked for on
                // purpose: it is what places the cursor where the magnifier expects it.
                const auto line = e->getInsertionPointLineNumber();
                if (!line) return Rect();
                const Range lineRange = e->getRangeForLine(*line - 1);
                if (lineRange.location < 0) return Rect();
                const Rect lineBounds = e->getBoundsForRange(lineRange);
                if (lineBounds.isZero()) return Rect();
                return caretAt(lineBounds.origin.x, lineBounds);
            }
            // Just right of the character before the cursor.
            const Rect p = e->getBoundsForRange(Range{c - 1, 1});
            if (p.isZero()) return Rect();
            return caretAt(p.origin.x + p.size.width, p);
        }
        return Rect();
    } catch (const PlatformException& ex) {
        systemLogFormat("Error while computing text cursor bounds: %@ %@",
                        outsideText(pathForLog(e)), outsideText(ex.reason()));
        return Rect();
    }
}

bool ORVAXPlainTextElementTracker::isTextCursorVirtualLocationNew(const Rect& cursor) {
    const Rect bounds = element() ? element()->getBounds() : Rect();
    const double dx = cursor.origin.x - bounds.origin.x;
    const double dy = cursor.origin.y - bounds.origin.y;
    VirtualLocation& last = lastVirtualLocation();
    if (dx == last.x && dy == last.y) return false;
    last = VirtualLocation{dx, dy};
    return true;
}

ORVOrientedRectRef ORVAXPlainTextElementTracker::focus() {
    Rect r = getTextCursorBounds();
    if (r.isZero()) {
        // No cursor to be found (an empty field among others): a cursor-sized mark just inside
        // the element's top-left corner.
        try {
            const Rect v = element() ? element()->getVisibleBounds() : Rect();
            r = Rect(v.origin.x + 4.0, v.origin.y + v.size.height - 20.0, 1.0, 17.0);
        } catch (const PlatformException&) {
            r = Rect();
        }
    }
    const uint32_t source = isTextCursorVirtualLocationNew(r) ? 1 : 8;
    return ORVOrientedRect::initWithRect(r, 0, 0, source);
}

// --- ORVAXComboBoxElementTracker

ORVAXComboBoxElementTracker::~ORVAXComboBoxElementTracker() {
    dropSubscriptions();
}

bool ORVAXComboBoxElementTracker::initFor(const ORVAXElementRef& element,
                                          const ORVAXElementRef& app) {
    if (!ORVAXPlainTextElementTracker::initFor(element, app)) return false;
    focusChangedDueToList_ = false;
    if (!app) return true;
    const std::weak_ptr<ORVAXElementTracker> weak = weak_from_this();
    createdSubscription_ = app->observe(kCreated, [weak](const ORVAXEventRef& event) {
        if (auto self = weak.lock())
            static_cast<ORVAXComboBoxElementTracker*>(self.get())->onCreated(event);
    });
    elementDestroyedSubscription_ = app->observe(kElementDestroyed, [weak](const ORVAXEventRef&) {
        if (auto self = weak.lock()) self->dispatchFocusChanged();
    });
    return true;
}

void ORVAXComboBoxElementTracker::onCreated(const ORVAXEventRef& event) {
    if (!event || !event->data()) return;
    const auto children = event->data()->getChildren();
    if (!children || children->empty()) return;
    // An earlier list is let go without unsubscribing: releasing its wrapper ends its
    // registration.
    list_ = children->front();
    const std::weak_ptr<ORVAXElementTracker> weak = weak_from_this();
    selectedChildrenChangedSubscription_ =
        list_->observe(kSelectedChildrenChanged, [weak](const ORVAXEventRef&) {
            if (auto self = weak.lock()) {
                static_cast<ORVAXComboBoxElementTracker*>(self.get())->focusChangedDueToList_ =
                    true;
                self->dispatchFocusChanged();
            }
        });
    focusChangedDueToList_ = true;
    dispatchFocusChanged();
}

ORVOrientedRectRef ORVAXComboBoxElementTracker::focus() {
    if (focusChangedDueToList_ && element()) {
        // The open list shows as further children of the combo box.
        const auto children = element()->getChildren();
        if (children && children->size() >= 2) {
            focusChangedDueToList_ = false;
            const auto selected = list_ ? list_->getSelectedChildren() : std::nullopt;
            if (selected && !selected->empty()) return rectOf(selected->front(), true, 2, 0, 2);
        }
    }
    return ORVAXPlainTextElementTracker::focus();
}

void ORVAXComboBoxElementTracker::ceaseObservation() {
    ORVAXPlainTextElementTracker::ceaseObservation();
    dropSubscriptions();
}

void ORVAXComboBoxElementTracker::dropSubscriptions() {
    if (app()) {
        if (elementDestroyedSubscription_)
            app()->unobserve(kElementDestroyed, elementDestroyedSubscription_);
        if (createdSubscription_) app()->unobserve(kCreated, createdSubscription_);
    }
    elementDestroyedSubscription_ = nullptr;
    createdSubscription_ = nullptr;
    if (list_ && selectedChildrenChangedSubscription_)
        list_->unobserve(kSelectedChildrenChanged, selectedChildrenChangedSubscription_);
    selectedChildrenChangedSubscription_ = nullptr;
    list_ = nullptr;
}

}  // namespace orv
