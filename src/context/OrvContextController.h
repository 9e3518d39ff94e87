#pragma once

#include <any>
#include <memory>
#include <mutex>
#include <string>

#include "accessibility/element/ORVAXElement.h"
#include "accessibility/element/ORVOrientedRect.h"
#include "context/OrvContextHandler.h"

namespace orv {

// Stands between the focus tracker and what the user is told and shown: every focus decision goes
// to the one current context handler. The specialised handlers (welcome, new window, desktop,
// application switcher) take over only after enableContextHandlers(), which the agent does not
// call; until then the standard handler carries every decision and the observed changes are
// ignored. Main thread only.
class OrvContextController {
  public:
    static std::shared_ptr<OrvContextController> create();

    void setElementOfInterest(const ORVAXElementRef& element, const ORVOrientedRectRef& area);
    void switchToStandardHandler();
    // Key-value observation entry: "activeWindow", "processSwitcherList", "doneHandlingContext".
    void observeValueForKeyPath(const std::string& keyPath, const void* object,
                                const std::any& newValue);

    bool contextHandlersEnabled() const { return enableContextHandlers_; }
    std::shared_ptr<OrvContextHandler> contextHandler();

  private:
    OrvContextController() = default;

    std::shared_ptr<OrvContextHandler> contextHandler_;
    // Serialises the current handler's replacement against the focus path. Not recursive: a
    // handler never calls back into the controller synchronously.
    std::mutex contextHandlerLock_;
    bool enableContextHandlers_ = false;
};

}  // namespace orv
