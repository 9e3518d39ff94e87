#include "context/OrvContextController.h"

namespace orv {

std::shared_ptr<OrvContextController> OrvContextController::create() {
    auto controller = std::shared_ptr<OrvContextController>(new OrvContextController());
    controller->switchToStandardHandler();
    return controller;
}

std::shared_ptr<OrvContextHandler> OrvContextController::contextHandler() {
    std::lock_guard lock(contextHandlerLock_);
    return contextHandler_;
}

void OrvContextController::setElementOfInterest(const ORVAXElementRef& element,
                                                const ORVOrientedRectRef& area) {
    std::shared_ptr<OrvContextHandler> handler;
    {
        std::lock_guard lock(contextHandlerLock_);
        handler = contextHandler_;
    }
    // The standard handler may echo, and the echo side may (later) report back through the
    // controller, so the handler runs outside the lock; it is held alive for the call.
    if (handler) handler->setElementOfInterest(element, area);
}

void OrvContextController::switchToStandardHandler() {
    std::lock_guard lock(contextHandlerLock_);
    // The standard handler is never observed; specialised ones are unregistered here when
    // they exist.
    contextHandler_ = OrvContextHandler::create();
}

void OrvContextController::observeValueForKeyPath(const std::string&, const void*,
                                                  const std::any&) {
    // Without enableContextHandlers nothing happens at all, not even a log line. The specialised
    // handlers that would be switched to here speak, and arrive with the speech side.
    if (!enableContextHandlers_) return;
}

}  // namespace orv
