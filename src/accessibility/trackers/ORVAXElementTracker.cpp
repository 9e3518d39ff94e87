#include "accessibility/trackers/ORVAXElementTracker.h"

#include "accessibility/focus/ORVAXFocusTracker.h"
#include "accessibility/trackers/ORVAXSimpleRoleTrackers.h"
#include "accessibility/trackers/ORVAXTextElementTracker.h"
#include "accessibility/trackers/ORVAXWebAreaElementTracker.h"
#include "platform/Platform.h"

namespace orv {

namespace {

template <typename T>
ORVAXElementTrackerRef make(const ORVAXElementRef& element, const ORVAXElementRef& app) {
    auto tracker = std::make_shared<T>();
    if (!tracker->initFor(element, app)) return nullptr;
    return tracker;
}

bool is(const std::optional<std::string>& value, const char* text) {
    return value && *value == text;
}

}  // namespace

ORVAXElementTrackerRef ORVAXElementTracker::newFor(const ORVAXElementRef& element,
                                                   const ORVAXElementRef& app) {
    std::optional<std::string> role;
    std::optional<std::string> subrole;
    if (element) {
        role = element->getRole();
        subrole = element->getSubrole();
    }
    // The row and children trackers are not built yet: tables, outlines, lists, grids and groups
    // outside web content get the base tracker, which reports the element's visible bounds.
    if (is(role, "AXGroup") && element->isDescendantOf("AXWebArea"))
        return make<ORVAXWebAreaElementTracker>(element, app);
    // A password field reports only its bounds, never a cursor: tested before the text roles.
    if (is(role, "AXTextField") && is(subrole, "AXSecureTextField"))
        return make<ORVAXElementTracker>(element, app);
    if (is(role, "AXTextArea") || is(role, "AXTextField"))
        return make<ORVAXPlainTextElementTracker>(element, app);
    if (is(role, "AXWebArea")) return make<ORVAXWebAreaElementTracker>(element, app);
    if (is(role, "AXComboBox")) return make<ORVAXComboBoxElementTracker>(element, app);
    if (is(role, "AXRadioButton") || is(role, "AXCheckBox"))
        return make<ORVAXOptionElementTracker>(element, app);
    // The notification-centre windows are tested before the plain window.
    if (is(role, "AXWindow") && is(subrole, "AXNotificationCenterAlert"))
        return make<ORVAXNotificationCenterAlertTracker>(element, app);
    if (is(role, "AXWindow") && is(subrole, "AXNotificationCenterBanner"))
        return make<ORVAXNotificationCenterBannerTracker>(element, app);
    if (is(role, "AXWindow")) return make<ORVAXWindowTracker>(element, app);
    if (is(role, "AXMenu")) return make<ORVAXMenuTracker>(element, app);
    if (is(role, "AXMenuItem")) return make<ORVAXMenuItemTracker>(element, app);
    if (is(role, "AXSheet")) return make<ORVAXSheetTracker>(element, app);
    return make<ORVAXElementTracker>(element, app);
}

bool ORVAXElementTracker::shouldIgnore(const ORVAXElementRef& element) {
    if (!element) return true;
    return is(element->getRole(), "AXMenuBar");
}

ORVAXElementTracker::~ORVAXElementTracker() {
    if (focusRefresh_) focusRefresh_->invalidate();
}

bool ORVAXElementTracker::initFor(const ORVAXElementRef& element, const ORVAXElementRef& app) {
    element_ = element;
    app_ = app;
    return true;
}

ORVOrientedRectRef ORVAXElementTracker::rectOf(const ORVAXElementRef& element, bool visible,
                                               uint32_t edgeX, uint32_t edgeY, uint32_t source) {
    Rect r;
    if (element) r = visible ? element->getVisibleBounds() : element->getBounds();
    return ORVOrientedRect::initWithRect(r, edgeX, edgeY, source);
}

ORVOrientedRectRef ORVAXElementTracker::focus() {
    return rectOf(element_, true, 0, 0, 2);
}

ORVOrientedRectRef ORVAXElementTracker::visibleFocus() {
    ORVOrientedRectRef current = focus();
    const Rect now = current ? current->rect() : Rect();
    const Rect last = lastVisibleFocus_ ? lastVisibleFocus_->rect() : Rect();
    if (now == last) return lastVisibleFocus_;
    if (now.isNull()) {
        lastVisibleFocus_ = nullptr;
    } else {
        const Rect cut = clipToWindow(now);
        // The cut only decides visibility; the focus keeps its own rectangle.
        lastVisibleFocus_ = cut.isEmpty() ? nullptr : current;
    }
    return lastVisibleFocus_;
}

Rect ORVAXElementTracker::clipToWindow(const Rect& rect) {
    if (!element_) return rect;
    ORVAXElementRef window = element_->getElementAttribute("AXTopLevelUIElement");
    if (!window) return rect;
    bool fullScreen = false;
    window->getBooleanAttribute("AXFullScreen", &fullScreen);
    if (fullScreen) return rect;
    return window->getBounds().intersection(rect);
}

void ORVAXElementTracker::checkFocus() {
    const ORVOrientedRectRef previous = lastVisibleFocus_;
    const ORVOrientedRectRef current = visibleFocus();
    if ((!previous && current) || (previous && !previous->isEqual(current))) dispatchFocusMoved();
}

void ORVAXElementTracker::start() {
    if (focusRefresh_) return;
    auto self = shared_from_this();
    focusRefresh_ =
        mainLoop().scheduleTimer(kPollInterval, true, [self](Timer&) { self->checkFocus(); });
}

void ORVAXElementTracker::stop() {
    if (!focusRefresh_) return;
    focusRefresh_->invalidate();
    focusRefresh_ = nullptr;
}

void ORVAXElementTracker::dispatchFocusChanged() {
    ORVAXFocusTracker::focusChanged();
}
void ORVAXElementTracker::dispatchFocusMoved() {
    ORVAXFocusTracker::focusMoved();
}

}  // namespace orv
