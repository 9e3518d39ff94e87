// Observation half of ORVAXElement: one platform observer per wrapper, many subscribers per
// notification, and the guard that keeps a subscriber's fault out of the platform's dispatch.

#include "accessibility/element/ORVAXEvent.h"

#include <exception>
#include <string>

#include "Common/OrvLogger.h"
#include "accessibility/element/ORVAXElement.h"
#include "platform/Platform.h"

namespace orv {

namespace {

std::string joinedCallStack(const PlatformException& e) {
    if (e.callStack().empty()) return "(no call stack)";
    std::string out = "(";
    for (size_t i = 0; i < e.callStack().size(); ++i) {
        if (i) out += ", ";
        out += e.callStack()[i];
    }
    return out + ")";
}

}  // namespace

AXObserverRef ORVAXElement::observer() {
    if (observer_) return observer_;
    // The callback finds its wrapper through a weak reference rather than the raw reference
    // given at registration, so a delivery the backend still had queued when the wrapper went
    // away finds nothing instead of freed memory.
    std::weak_ptr<ORVAXElement> weak = weak_from_this();
    auto callback = [weak](AXObserver&, const AXUIElementRef& element,
                           const std::string& notification, void* refcon) {
        auto self = weak.lock();
        if (!self || refcon != self.get()) return;
        self->deliver(element, notification);
    };
    AXObserverRef made;
    if (axAPI().createObserver(getPid(), std::move(callback), &made) != kAXErrorSuccess || !made)
        return nullptr;
    made->attachToMainLoop();
    observer_ = std::move(made);
    return observer_;
}

ORVAXSubscription ORVAXElement::observe(const std::string& notification, ORVAXEventBlock block) {
    auto it = observerHandlers_.find(notification);
    if (it == observerHandlers_.end()) {
        // One platform registration per name however many subscribe. Its result is not
        // examined: a failed registration leaves an entry that never fires.
        if (auto obs = observer()) obs->addNotification(element_, notification, this);
        it = observerHandlers_.emplace(notification, std::make_shared<ORVAXEventHandlers>()).first;
    }
    return it->second->add(std::move(block));
}

void ORVAXElement::unobserve(const std::string& notification, const ORVAXSubscription& token) {
    auto it = observerHandlers_.find(notification);
    if (it != observerHandlers_.end()) it->second->remove(token);
}

void ORVAXElement::deliver(const AXUIElementRef& element, const std::string& notification) {
    // Held for the whole delivery: a subscriber may drop the last other reference to the
    // observed wrapper or to its handler list.
    auto self = shared_from_this();
    try {
        auto event = std::make_shared<ORVAXEvent>(self, newForElement(element));
        auto it = observerHandlers_.find(notification);
        if (it == observerHandlers_.end()) return;
        auto handlers = it->second;
        handlers->performBlocksWith(event);
    } catch (const PlatformException& e) {
        OrvLogger::addErrorMessageWithFormat("Unhandled exception during AX callback: %@ %@",
                                             e.reason(), joinedCallStack(e));
    } catch (const std::exception& e) {
        OrvLogger::addErrorMessageWithFormat("Unhandled error during AX callback: %@", e.what());
    } catch (...) {
        OrvLogger::addErrorMessageWithFormat("Unhandled error during AX callback: %@",
                                             "(unknown error)");
    }
}

}  // namespace orv
