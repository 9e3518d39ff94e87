#include "speech/ORVAXFocusEchoController.h"

namespace orv {

namespace {
struct GateState {
    std::shared_ptr<ORVAXFocusEchoControllerDelegate> delegate;
    bool enabled = false;
    ORVAXFocusEchoController::CompletionHandler completion;
};
GateState& state() {
    static GateState s;
    return s;
}
}  // namespace

void ORVAXFocusEchoController::setDelegate(std::shared_ptr<ORVAXFocusEchoControllerDelegate> d) {
    state().delegate = std::move(d);
}
std::shared_ptr<ORVAXFocusEchoControllerDelegate> ORVAXFocusEchoController::delegate() {
    return state().delegate;
}
void ORVAXFocusEchoController::enable() {
    state().enabled = true;
}
void ORVAXFocusEchoController::shutdown() {
    state().enabled = false;
}
bool ORVAXFocusEchoController::isEnabled() {
    return state().enabled;
}

void ORVAXFocusEchoController::focusElementChanged(const ORVAXElementRef& element) {
    if (!state().enabled) return;
    // Held for the call: the delegate may replace itself while handling the element.
    if (auto d = state().delegate) d->focusEchoControllerIdentifiedAnItemOfInterest(element);
}

ORVAXFocusEchoController::CompletionHandler ORVAXFocusEchoController::completionHandler() {
    return state().completion;
}
void ORVAXFocusEchoController::setCompletionHandler(CompletionHandler handler) {
    state().completion = std::move(handler);
}

void ORVAXFocusEchoController::resetForTesting() {
    state() = GateState{};
}

}  // namespace orv
