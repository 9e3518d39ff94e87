#include "accessibility/focus/ORVAXFocusClaimer.h"

#include "platform/Platform.h"

namespace orv {

namespace {
const char* const kFinder = "com.apple.finder";
}

std::shared_ptr<ORVAXApplicationFocusedElementFocusClaimer>
ORVAXApplicationFocusedElementFocusClaimer::create() {
    return std::shared_ptr<ORVAXApplicationFocusedElementFocusClaimer>(
        new ORVAXApplicationFocusedElementFocusClaimer());
}

ORVAXApplicationFocusedElementFocusClaimer::~ORVAXApplicationFocusedElementFocusClaimer() {
    untrackCurrentApp();
}

std::weak_ptr<ORVAXApplicationFocusedElementFocusClaimer>
ORVAXApplicationFocusedElementFocusClaimer::weakSelf() {
    return std::static_pointer_cast<ORVAXApplicationFocusedElementFocusClaimer>(shared_from_this());
}

void ORVAXApplicationFocusedElementFocusClaimer::trackApplication(const ORVAXElementRef& app) {
    if (!app) return;
    if (app_) {
        if (app_->getPid() == app->getPid()) return;
        untrackCurrentApp();
    }
    app_ = app;
    isFinder_ = app_->getBundleIdentifier() == std::optional<std::string>(kFinder);

    updateFocusedWindow();
    // Another claimer may now win even though this application shows no focus.
    if (!focusedElement_) fireFocusedElementChanged();

    // Subscriptions hold the claimer weakly: the tracker owns it, and the application element
    // (which keeps the blocks) must not keep it alive after the tracker lets it go.
    auto weak = weakSelf();
    subscription_ = app_->observe("AXFocusedUIElementChanged", [weak](const ORVAXEventRef&) {
        if (auto self = weak.lock()) self->updateFocusedElement();
    });
    subscriptionWindowChanged_ =
        app_->observe("AXFocusedWindowChanged", [weak](const ORVAXEventRef&) {
            if (auto self = weak.lock()) self->updateFocusedWindow();
        });
    // Applications do not always send the focus notification; the poll catches what they miss.
    // The timer keeps the claimer alive while it runs.
    auto self = shared_from_this();
    verifyFocusedElement_ = mainLoop().scheduleTimer(kPollInterval, true, [self](Timer&) {
        static_cast<ORVAXApplicationFocusedElementFocusClaimer&>(*self).updateFocusedElement();
    });
}

void ORVAXApplicationFocusedElementFocusClaimer::untrackCurrentApp() {
    untrackDesktopElement();
    untrackFocusedElement();
    if (app_) {
        if (subscription_) app_->unobserve("AXFocusedUIElementChanged", subscription_);
        if (subscriptionWindowChanged_)
            app_->unobserve("AXFocusedWindowChanged", subscriptionWindowChanged_);
    }
    subscription_ = nullptr;
    subscriptionWindowChanged_ = nullptr;
    if (verifyFocusedElement_) verifyFocusedElement_->invalidate();
    verifyFocusedElement_ = nullptr;
    focusedElement_ = nullptr;
}

void ORVAXApplicationFocusedElementFocusClaimer::setActiveWindow(ORVAXElementRef window) {
    activeWindow_ = std::move(window);
    activeWindowChanged.emit(activeWindow_);
}

void ORVAXApplicationFocusedElementFocusClaimer::updateFocusedWindow() {
    untrackDesktopElement();
    if (!app_) return;
    setActiveWindow(app_->getElementAttribute("AXMainWindow"));
    updateFocusedElement();
    if (!isFinder_ || !app_) return;
    // The Finder reports its desktop as a scroll area; selecting icons there sends no focus
    // notification, so the icon view's selection stands in for one.
    ORVAXElementRef window = app_->getFocusedWindow();
    if (!window || window->getRole() != std::optional<std::string>("AXScrollArea")) return;
    auto children = window->getChildren();
    if (!children || children->empty()) return;
    desktopElement_ = children->front();
    auto weak = weakSelf();
    subscriptionDesktopElement_ =
        desktopElement_->observe("AXSelectedChildrenChanged", [weak](const ORVAXEventRef&) {
            if (auto self = weak.lock()) self->updateFocusedElement();
        });
}

void ORVAXApplicationFocusedElementFocusClaimer::updateFocusedElement() {
    if (!app_) return;
    ORVAXElementRef element = app_->getFocusedElement();
    if (!element && !focusedElement_) return;
    if (focusedElement_ && focusedElement_->isEqual(element)) return;
    untrackFocusedElement();
    focusedElement_ = element;
    trackFocusedElement();
    fireFocusedElementChanged();
}

void ORVAXApplicationFocusedElementFocusClaimer::trackFocusedElement() {
    if (!focusedElement_) return;
    // The element is unchanged; the signal makes the focus tracker arbitrate again.
    auto weak = weakSelf();
    auto fire = [weak](const ORVAXEventRef&) {
        if (auto self = weak.lock()) self->fireFocusedElementChanged();
    };
    subscriptionFocusedElementSelectedTextChanged_ =
        focusedElement_->observe("AXSelectedTextChanged", fire);
    subscriptionFocusedElementValueChanged_ = focusedElement_->observe("AXValueChanged", fire);
}

void ORVAXApplicationFocusedElementFocusClaimer::untrackFocusedElement() {
    if (!focusedElement_) return;
    if (subscriptionFocusedElementSelectedTextChanged_)
        focusedElement_->unobserve("AXSelectedTextChanged",
                                   subscriptionFocusedElementSelectedTextChanged_);
    if (subscriptionFocusedElementValueChanged_)
        focusedElement_->unobserve("AXValueChanged", subscriptionFocusedElementValueChanged_);
    subscriptionFocusedElementSelectedTextChanged_ = nullptr;
    subscriptionFocusedElementValueChanged_ = nullptr;
}

void ORVAXApplicationFocusedElementFocusClaimer::untrackDesktopElement() {
    if (!desktopElement_) return;
    if (subscriptionDesktopElement_)
        desktopElement_->unobserve("AXSelectedChildrenChanged", subscriptionDesktopElement_);
    subscriptionDesktopElement_ = nullptr;
    desktopElement_ = nullptr;
}

}  // namespace orv
