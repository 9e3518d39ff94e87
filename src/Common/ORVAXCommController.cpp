#include "Common/ORVAXCommController.h"

#include "Common/ORVCommRequests.h"

namespace orv {

void ORVAXCommController::focusArea(const ORVOrientedRectRef& area) {
    ORVCommFocusArea::create(area)->dispatch();
}

}  // namespace orv
