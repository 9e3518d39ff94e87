#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Common/ORVMulticastBlock.h"
#include "Common/Signal.h"
#include "accessibility/element/ORVAXElement.h"
#include "platform/MainLoop.h"

namespace orv {

class ORVAXFocusClaimer;
using ORVAXFocusClaimerRef = std::shared_ptr<ORVAXFocusClaimer>;

// One independent opinion about where the user's focus is. It keeps its current answer and
// signals when the answer changes; the focus tracker asks every claimer and picks one by a fixed
// priority. The base has no opinion. Main thread only.
class ORVAXFocusClaimer : public std::enable_shared_from_this<ORVAXFocusClaimer> {
  public:
    using Listeners = ORVMulticastBlock<const ORVAXFocusClaimerRef&>;
    using Token = Listeners::Token;

    virtual ~ORVAXFocusClaimer() = default;

    virtual std::string name() const { return "ORVAXFocusClaimer"; }
    virtual bool wantsFocus() const { return false; }
    virtual ORVAXElementRef focusedElement() const { return nullptr; }
    virtual ORVAXElementRef focusedElementApp() const { return nullptr; }
    // Back to having no opinion.
    virtual void reset() {}

    Token observeFocusedElementChanged(Listeners::Block block) {
        return focusedElementChanged_.add(std::move(block));
    }
    // The block holds the target strongly.
    template <typename T>
    Token observeFocusedElementChanged(std::shared_ptr<T> target,
                                       void (T::*selector)(const ORVAXFocusClaimerRef&)) {
        return observeFocusedElementChanged(
            [target = std::move(target), selector](const ORVAXFocusClaimerRef& claimer) {
                ((*target).*selector)(claimer);
            });
    }
    void unobserveFocusedElementChanged(const Token& token) {
        focusedElementChanged_.remove(token);
    }
    void fireFocusedElementChanged() {
        focusedElementChanged_.performBlocksWith(shared_from_this());
    }

  private:
    Listeners focusedElementChanged_;
};

// Follows the focused element of one application: the frontmost application's fallback source of
// focus, and the notification centre's.
class ORVAXApplicationFocusedElementFocusClaimer : public ORVAXFocusClaimer {
  public:
    static std::shared_ptr<ORVAXApplicationFocusedElementFocusClaimer> create();
    ~ORVAXApplicationFocusedElementFocusClaimer() override;

    std::string name() const override { return "ORVAXApplicationFocusedElementFocusClaimer"; }
    bool wantsFocus() const override { return focusedElement_ != nullptr; }
    ORVAXElementRef focusedElement() const override { return focusedElement_; }
    ORVAXElementRef focusedElementApp() const override { return app_; }

    // Nil keeps the current application; another wrapper of the same process changes nothing.
    void trackApplication(const ORVAXElementRef& app);
    void untrackCurrentApp();
    void updateFocusedWindow();
    void updateFocusedElement();
    void trackFocusedElement();
    void untrackFocusedElement();
    void untrackDesktopElement();

    // The application's main window, observable (key "activeWindow"): every set is reported.
    const ORVAXElementRef& activeWindow() const { return activeWindow_; }
    void setActiveWindow(ORVAXElementRef window);
    Signal<const ORVAXElementRef&> activeWindowChanged;

    const ORVAXElementRef& app() const { return app_; }
    bool isFinder() const { return isFinder_; }
    const ORVAXElementRef& desktopElement() const { return desktopElement_; }
    bool isPolling() const { return verifyFocusedElement_ != nullptr; }

    static constexpr double kPollInterval = 0.5;

  protected:
    ORVAXApplicationFocusedElementFocusClaimer() = default;

  private:
    std::weak_ptr<ORVAXApplicationFocusedElementFocusClaimer> weakSelf();

    ORVAXElementRef app_;
    ORVAXElementRef focusedElement_;
    ORVAXSubscription subscription_;
    ORVAXSubscription subscriptionWindowChanged_;
    TimerRef verifyFocusedElement_;
    bool isFinder_ = false;
    ORVAXElementRef desktopElement_;
    ORVAXSubscription subscriptionDesktopElement_;
    ORVAXSubscription subscriptionFocusedElementSelectedTextChanged_;
    ORVAXSubscription subscriptionFocusedElementValueChanged_;
    ORVAXElementRef activeWindow_;
};

}  // namespace orv
