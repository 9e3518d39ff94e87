#pragma once

#include <cstdint>
#include <string>

namespace orv {

struct Point {
    double x = 0;
    double y = 0;
    friend bool operator==(const Point&, const Point&) = default;
};

struct Size {
    double width = 0;
    double height = 0;
    friend bool operator==(const Size&, const Size&) = default;
};

// A text or index range; location -1 stands for "no range" where the getters fail.
struct Range {
    long location = 0;
    long length = 0;
    friend bool operator==(const Range&, const Range&) = default;
};

// Rectangle with origin and size, compared exactly: a fraction of a point is a difference.
// The null rectangle (infinite origin) is what an intersection of two disjoint rectangles gives;
// it is distinct from the all-zero rectangle.
struct Rect {
    Point origin;
    Size size;

    Rect() = default;
    Rect(double x, double y, double w, double h) : origin{x, y}, size{w, h} {}
    Rect(Point o, Size s) : origin(o), size(s) {}

    static Rect null();
    static Rect zero() { return {}; }

    bool isNull() const;
    // Empty: null, or zero (or negative) width or height.
    bool isEmpty() const;
    bool isZero() const { return *this == Rect(); }

    double minX() const;
    double minY() const;
    double maxX() const;
    double maxY() const;
    double midX() const { return minX() + size.width * 0.5; }
    double midY() const { return minY() + size.height * 0.5; }

    // Sizes are made non-negative first, as the platform does.
    Rect standardized() const;
    Rect intersection(const Rect& other) const;
    bool intersects(const Rect& other) const { return !intersection(other).isNull(); }
    // Union where an empty operand contributes nothing.
    Rect unionWith(const Rect& other) const;
    // Half-open on the maximum edges.
    bool contains(const Point& p) const;

    // "{{x, y}, {w, h}}"
    std::string toString() const;

    friend bool operator==(const Rect& a, const Rect& b);
};

std::string toString(const Point& p);  // "{x, y}"
std::string toString(const Size& s);   // "{w, h}"
std::string toString(const Range& r);  // "{location, length}"

// Rounds halves away from zero, as the wire format and the focus normalisation need.
double roundHalfAwayFromZero(double v);

}  // namespace orv
