#include "context/OrvContextHandler.h"

#include "Common/ORVAXCommController.h"
#include "speech/ORVAXFocusEchoController.h"

namespace orv {

namespace {
ORVAXElementRef& lastEchoed() {
    static ORVAXElementRef element;
    return element;
}
bool roleIs(const std::optional<std::string>& role, const char* a, const char* b) {
    return role && (*role == a || *role == b);
}
}  // namespace

ORVAXElementRef OrvContextHandler::lastEchoedElement() {
    return lastEchoed();
}
void OrvContextHandler::resetForTesting() {
    lastEchoed() = nullptr;
}

bool OrvContextHandler::differsFromLastFocus(const ORVOrientedRectRef& location) {
    if (!location && !lastFocus_) return false;
    if (location && lastFocus_ && location->isEqualToOrientedRect(lastFocus_.get())) return false;
    return true;
}

void OrvContextHandler::setElementOfInterest(const ORVAXElementRef& element,
                                             const ORVOrientedRectRef& location) {
    if (differsFromLastFocus(location)) {
        lastFocus_ = location;
        ORVAXCommController::focusArea(location);
    }
    if (element) updateFocusedElement(element);
}

ORVAXElementRef OrvContextHandler::updateFocusedElementStartingOn(const ORVAXElementRef& element) {
    if (!element) return element;
    const auto role = element->getRole();
    std::optional<ORVAXElementArray> selection;
    if (roleIs(role, "AXList", "AXGrid"))
        selection = element->getSelectedChildren();
    else if (roleIs(role, "AXOutline", "AXTable"))
        selection = element->getSelectedRows();
    if (selection && selection->size() == 1 && selection->front())
        return updateFocusedElementStartingOn(selection->front());
    return element;
}

void OrvContextHandler::updateFocusedElement(const ORVAXElementRef& element) {
    ORVAXElementRef target = updateFocusedElementStartingOn(element);
    // Identity, not equality: a new wrapper of the same element is echoed again.
    if (target == lastEchoed()) return;
    lastEchoed() = target;
    std::weak_ptr<OrvContextHandler> weak = weak_from_this();
    ORVAXFocusEchoController::setCompletionHandler([weak] {
        if (auto self = weak.lock()) self->focusEchoDidFinishSpeaking();
    });
    ORVAXFocusEchoController::focusElementChanged(target);
}

void OrvContextHandler::setDoneHandlingContext(bool done) {
    doneHandlingContext_ = done;
    doneHandlingContextChanged.emit(done);
}

}  // namespace orv
