#include "accessibility/element/ORVOrientedRect.h"

#include "Common/Format.h"

namespace orv {

namespace {
double anchor(uint32_t edge, double origin, double extent) {
    if (edge == ORVOrientedRect::kEdgeMin) return origin;
    if (edge == ORVOrientedRect::kEdgeMax) return origin + extent;
    return (origin + (origin + extent)) * 0.5;
}
}  // namespace

Point ORVOrientedRect::focus() const {
    return Point{anchor(edgeX_, rect_.origin.x, rect_.size.width),
                 anchor(edgeY_, rect_.origin.y, rect_.size.height)};
}

bool ORVOrientedRect::isEqualToOrientedRect(const ORVOrientedRect* other) const {
    if (other == this) return true;
    if (!other) return false;
    return edgeX_ == other->edgeX_ && edgeY_ == other->edgeY_ && source_ == other->source_ &&
           rect_ == other->rect_;
}

std::string ORVOrientedRect::description() const {
    return format("<%@: %p source:%i, rect:%@>", "ORVOrientedRect", static_cast<const void*>(this),
                  source_, rect_.toString());
}

}  // namespace orv
