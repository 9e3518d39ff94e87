// Observers: registrations of (element, notification) per process, delivered by the desktop.

#include "platform/linux/AtspiDesktop.h"
#include "platform/linux/AtspiDesktopInternal.h"

namespace orv::linuxdesk {

using detail::notificationEvents;

AtspiObserver::AtspiObserver(std::weak_ptr<AtspiDesktop> desktop, pid_t pid,
                             AXObserverCallback callback)
    : desktop_(std::move(desktop)), pid_(pid), callback_(std::move(callback)) {}

AtspiObserver::~AtspiObserver() {
    if (auto d = desktop_.lock()) d->removeObserver(this);
}

AXError AtspiObserver::addNotification(const AXUIElementRef& element,
                                       const std::string& notification, void* refcon) {
    const AtspiElement* el = asAtspi(element);
    if (!el || el->kind() == AtspiElement::Kind::SystemWide) return kAXErrorIllegalArgument;
    if (el->kind() == AtspiElement::Kind::Missing) return kAXErrorInvalidUIElement;
    if (!notificationEvents().count(notification)) return kAXErrorNotificationUnsupported;
    auto& list = regs_[notification];
    for (const auto& r : list)
        if (r.element->equals(*el)) return kAXErrorNotificationAlreadyRegistered;
    list.push_back(Registration{std::static_pointer_cast<const AtspiElement>(element), refcon});
    if (auto d = desktop_.lock()) d->needNotification(notification);
    return kAXErrorSuccess;
}

AXError AtspiObserver::removeNotification(const AXUIElementRef& element,
                                          const std::string& notification) {
    auto it = regs_.find(notification);
    if (it == regs_.end() || !element) return kAXErrorNotificationNotRegistered;
    auto& list = it->second;
    for (auto r = list.begin(); r != list.end(); ++r) {
        if (r->element->equals(*element)) {
            list.erase(r);
            if (list.empty()) regs_.erase(it);
            return kAXErrorSuccess;
        }
    }
    return kAXErrorNotificationNotRegistered;
}

const std::vector<AtspiObserver::Registration>& AtspiObserver::registrations(
    const std::string& notification) const {
    static const std::vector<Registration> none;
    auto it = regs_.find(notification);
    return it == regs_.end() ? none : it->second;
}

void AtspiObserver::deliver(const AXUIElementRef& element, const std::string& notification,
                            void* refcon) {
    // Keep ourselves alive through the callback: it may drop the last reference.
    auto self = shared_from_this();
    if (callback_) callback_(*this, element, notification, refcon);
}

}  // namespace orv::linuxdesk
