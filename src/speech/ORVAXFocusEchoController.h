#pragma once

#include <functional>
#include <memory>

#include "accessibility/element/ORVAXEvent.h"

namespace orv {

// Receives the elements the focus-echo gate lets through (the echo controller).
class ORVAXFocusEchoControllerDelegate {
  public:
    virtual ~ORVAXFocusEchoControllerDelegate() = default;
    virtual void focusEchoControllerIdentifiedAnItemOfInterest(const ORVAXElementRef& element) = 0;
};

// Class-level gate through which context handlers report a newly focused element. It passes the
// element on only while focus echo is enabled, and holds the completion handler the next focus
// echo carries. Main thread only.
class ORVAXFocusEchoController {
  public:
    using CompletionHandler = std::function<void()>;

    static void setDelegate(std::shared_ptr<ORVAXFocusEchoControllerDelegate> delegate);
    static std::shared_ptr<ORVAXFocusEchoControllerDelegate> delegate();
    static void enable();
    static void shutdown();
    static bool isEnabled();
    // Dropped silently while shut or without a delegate; nil is passed on as it is.
    static void focusElementChanged(const ORVAXElementRef& element);
    static CompletionHandler completionHandler();
    static void setCompletionHandler(CompletionHandler handler);

    // Back to the state at process start (tests).
    static void resetForTesting();
};

}  // namespace orv
