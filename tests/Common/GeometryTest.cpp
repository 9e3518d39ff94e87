#include <gtest/gtest.h>

#include "Common/Geometry.h"

namespace orv {
namespace {

TEST(Rect, IntersectionUnionAndTheNullRectangle) {
    Rect a(0, 0, 100, 50);
    Rect b(50, 25, 100, 50);
    EXPECT_EQ(a.intersection(b), Rect(50, 25, 50, 25));
    EXPECT_EQ(a.unionWith(b), Rect(0, 0, 150, 75));

    Rect far(500, 500, 10, 10);
    EXPECT_TRUE(a.intersection(far).isNull());
    EXPECT_TRUE(a.intersection(far).isEmpty());
    EXPECT_FALSE(Rect().isNull());  // all-zero is not null
    EXPECT_TRUE(Rect::null().intersection(a).isNull());

    // An empty operand contributes nothing to a union.
    EXPECT_EQ(Rect().unionWith(far), far);
    EXPECT_EQ(Rect::null().unionWith(a), a);
}

TEST(Rect, ExactEqualityAndContainment) {
    EXPECT_NE(Rect(0, 0, 10, 10), Rect(0, 0, 10, 10.0001));
    Rect r(10, 20, 30, 40);
    EXPECT_TRUE(r.contains({10, 20}));
    EXPECT_FALSE(r.contains({40, 20}));  // maximum edge is outside
    EXPECT_TRUE(Rect(0, 0, -10, -10).standardized() == Rect(-10, -10, 10, 10));
}

TEST(Rect, StandardTextForm) {
    EXPECT_EQ(Rect(100, 830, 200, 20).toString(), "{{100, 830}, {200, 20}}");
    EXPECT_EQ(Rect(0.5, -1, 2.25, 0).toString(), "{{0.5, -1}, {2.25, 0}}");
}

TEST(Rounding, HalvesAwayFromZero) {
    EXPECT_EQ(roundHalfAwayFromZero(10.5), 11);
    EXPECT_EQ(roundHalfAwayFromZero(-10.5), -11);
    EXPECT_EQ(roundHalfAwayFromZero(-10.4), -10);
    EXPECT_EQ(roundHalfAwayFromZero(2.5), 3);
}

}  // namespace
}  // namespace orv
