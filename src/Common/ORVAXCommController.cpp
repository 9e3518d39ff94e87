#include "Common/ORVAXCommController.h"

#include "Common/ORVCommRequests.h"

namespace orv {

namespace {
ORVAXCommController::FocusAreaObserver& observer() {
    static ORVAXCommController::FocusAreaObserver o;
    return o;
}
}  // namespace

void ORVAXCommController::focusArea(const ORVOrientedRectRef& area) {
    ORVCommFocusArea::create(area)->dispatch();
    if (auto& o = observer()) o(area);
}

void ORVAXCommController::setFocusAreaObserver(FocusAreaObserver o) {
    observer() = std::move(o);
}

}  // namespace orv
