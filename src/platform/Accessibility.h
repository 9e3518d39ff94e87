#pragma once

// The accessibility interface as the agent uses it, shaped after the platform's element calls so
// that a backend is a thin translation. All calls are made on the main thread.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/AXTypes.h"

namespace orv {

class AXObserver;

// Called on the main loop for a registered notification: the element the notification names, the
// notification, and the reference given when it was registered.
using AXObserverCallback = std::function<void(AXObserver& observer, const AXUIElementRef& element,
                                              const std::string& notification, void* refcon)>;

// One observer per process. Registrations end when the observer is destroyed.
class AXObserver {
  public:
    virtual ~AXObserver() = default;
    virtual AXError addNotification(const AXUIElementRef& element, const std::string& notification,
                                    void* refcon) = 0;
    virtual AXError removeNotification(const AXUIElementRef& element,
                                       const std::string& notification) = 0;
    // The observer's source on the main loop: notifications are delivered only while attached.
    virtual void attachToMainLoop() = 0;
    virtual void detachFromMainLoop() = 0;
};
using AXObserverRef = std::shared_ptr<AXObserver>;

class AccessibilityAPI {
  public:
    virtual ~AccessibilityAPI() = default;

    virtual AXUIElementRef createSystemWide() = 0;
    // Never null: an element for a process that does not run answers InvalidUIElement.
    virtual AXUIElementRef createApplication(pid_t pid) = 0;

    // Position in the interface's top-left-origin space. Asked of the system-wide element or an
    // application element.
    virtual AXError copyElementAtPosition(const AXUIElementRef& element, float x, float y,
                                          AXUIElementRef* out) = 0;

    // May raise PlatformException where the platform raises.
    virtual AXError copyAttributeValue(const AXUIElementRef& element, const std::string& attribute,
                                       AXValue* out) = 0;
    virtual AXError copyParameterizedAttributeValue(const AXUIElementRef& element,
                                                    const std::string& attribute,
                                                    const AXValue& parameter, AXValue* out) = 0;
    virtual AXError copyAttributeNames(const AXUIElementRef& element,
                                       std::vector<std::string>* out) = 0;
    virtual AXError isAttributeSettable(const AXUIElementRef& element, const std::string& attribute,
                                        bool* settable) = 0;
    virtual AXError setAttributeValue(const AXUIElementRef& element, const std::string& attribute,
                                      const AXValue& value) = 0;
    // Seconds; 0 restores the default.
    virtual AXError setMessagingTimeout(const AXUIElementRef& element, float seconds) = 0;
    virtual AXError getPid(const AXUIElementRef& element, pid_t* out) = 0;

    // Observer for the process; its callback runs on the main loop.
    virtual AXError createObserver(pid_t pid, AXObserverCallback callback, AXObserverRef* out) = 0;

    // Whether this process may use the interface; with prompt, the platform may ask the user.
    virtual bool isProcessTrusted(bool prompt) = 0;
    // Legacy checks of older systems (always true where the platform has no such notion).
    virtual bool isAPIEnabled() = 0;
};

}  // namespace orv
