#include "Common/Geometry.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "Common/Format.h"

namespace orv {

namespace {
constexpr double kInf = std::numeric_limits<double>::infinity();

std::string num(double v) {
    return formatNumber(v);
}
}  // namespace

Rect Rect::null() {
    return Rect(kInf, kInf, 0, 0);
}

bool Rect::isNull() const {
    return origin.x == kInf || origin.y == kInf;
}

bool Rect::isEmpty() const {
    return isNull() || size.width <= 0 || size.height <= 0;
}

double Rect::minX() const {
    return size.width < 0 ? origin.x + size.width : origin.x;
}
double Rect::minY() const {
    return size.height < 0 ? origin.y + size.height : origin.y;
}
double Rect::maxX() const {
    return size.width < 0 ? origin.x : origin.x + size.width;
}
double Rect::maxY() const {
    return size.height < 0 ? origin.y : origin.y + size.height;
}

Rect Rect::standardized() const {
    if (isNull()) return *this;
    return Rect(minX(), minY(), std::fabs(size.width), std::fabs(size.height));
}

Rect Rect::intersection(const Rect& other) const {
    if (isNull() || other.isNull()) return null();
    const Rect a = standardized();
    const Rect b = other.standardized();
    const double x0 = std::max(a.minX(), b.minX());
    const double y0 = std::max(a.minY(), b.minY());
    const double x1 = std::min(a.maxX(), b.maxX());
    const double y1 = std::min(a.maxY(), b.maxY());
    // Touching edges meet in a zero-size rectangle; only a real gap gives null.
    if (x1 < x0 || y1 < y0) return null();
    return Rect(x0, y0, x1 - x0, y1 - y0);
}

Rect Rect::unionWith(const Rect& other) const {
    if (isEmpty()) return other.isEmpty() ? Rect() : other.standardized();
    if (other.isEmpty()) return standardized();
    const Rect a = standardized();
    const Rect b = other.standardized();
    const double x0 = std::min(a.minX(), b.minX());
    const double y0 = std::min(a.minY(), b.minY());
    const double x1 = std::max(a.maxX(), b.maxX());
    const double y1 = std::max(a.maxY(), b.maxY());
    return Rect(x0, y0, x1 - x0, y1 - y0);
}

bool Rect::contains(const Point& p) const {
    if (isEmpty()) return false;
    return p.x >= minX() && p.x < maxX() && p.y >= minY() && p.y < maxY();
}

bool operator==(const Rect& a, const Rect& b) {
    return a.origin == b.origin && a.size == b.size;
}

std::string Rect::toString() const {
    return "{" + orv::toString(origin) + ", " + orv::toString(size) + "}";
}

std::string toString(const Point& p) {
    return "{" + num(p.x) + ", " + num(p.y) + "}";
}
std::string toString(const Size& s) {
    return "{" + num(s.width) + ", " + num(s.height) + "}";
}
std::string toString(const Range& r) {
    return "{" + std::to_string(r.location) + ", " + std::to_string(r.length) + "}";
}

double roundHalfAwayFromZero(double v) {
    return std::round(v);
}

}  // namespace orv
