#pragma once

#include <string>

#include "accessibility/element/ORVOrientedRect.h"

namespace orv::test {

// A tracker's focus as "rect edgeX,edgeY source", or "nil": one string to compare in tests.
inline std::string focusShape(const ORVOrientedRectRef& r) {
    if (!r) return "nil";
    return r->rect().toString() + " " + std::to_string(r->edgeX()) + "," +
           std::to_string(r->edgeY()) + " " + std::to_string(r->source());
}

}  // namespace orv::test
