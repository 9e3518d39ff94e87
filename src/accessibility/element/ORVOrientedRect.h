#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Common/Geometry.h"

namespace orv {

// Where the thing of interest lies (agent coordinates), which edge the magnifier should keep in
// view, and which kind of producer said so.
class ORVOrientedRect {
  public:
    // Anchor codes for edgeX / edgeY.
    static constexpr uint32_t kEdgeCenter = 0;
    static constexpr uint32_t kEdgeMax = 1;  // right, or top (y grows upward)
    static constexpr uint32_t kEdgeMin = 2;  // left, or bottom

    ORVOrientedRect(const Rect& rect, uint32_t edgeX, uint32_t edgeY, uint32_t source)
        : rect_(rect), edgeX_(edgeX), edgeY_(edgeY), source_(source) {}

    static std::shared_ptr<ORVOrientedRect> initWithRect(const Rect& rect, uint32_t edgeX,
                                                         uint32_t edgeY, uint32_t source) {
        return std::make_shared<ORVOrientedRect>(rect, edgeX, edgeY, source);
    }

    const Rect& rect() const { return rect_; }
    void setRect(const Rect& r) { rect_ = r; }
    uint32_t edgeX() const { return edgeX_; }
    void setEdgeX(uint32_t v) { edgeX_ = v; }
    uint32_t edgeY() const { return edgeY_; }
    void setEdgeY(uint32_t v) { edgeY_ = v; }
    uint32_t source() const { return source_; }
    void setSource(uint32_t v) { source_ = v; }

    // The anchor point picked by the edge codes; unknown codes mean the centre.
    Point focus() const;

    // Exact comparison of all fields; no tolerance.
    bool isEqualToOrientedRect(const ORVOrientedRect* other) const;
    bool isEqual(const ORVOrientedRect* other) const { return isEqualToOrientedRect(other); }
    bool isEqual(const std::shared_ptr<const ORVOrientedRect>& other) const {
        return isEqualToOrientedRect(other.get());
    }

    std::string description() const;

  private:
    Rect rect_;
    uint32_t edgeX_;
    uint32_t edgeY_;
    uint32_t source_;
};

using ORVOrientedRectRef = std::shared_ptr<ORVOrientedRect>;

}  // namespace orv
