#include <gtest/gtest.h>

#include "accessibility/element/ORVOrientedRect.h"
#include "accessibility/element/UIElementUtilities.h"
#include "support/LogCapture.h"

namespace orv {

// Readable failures instead of the rectangle's bytes.
inline void PrintTo(const Rect& r, std::ostream* os) {
    *os << r.toString();
}

namespace {

// Displays by their top-left-origin bounds, the main one first (at the origin); the screen
// frames are their flips against the main display's height, main first.
class FakeDisplays : public Displays {
  public:
    explicit FakeDisplays(std::vector<Rect> bounds) : bounds_(std::move(bounds)) {
        const double h = bounds_.front().size.height;
        for (const Rect& b : bounds_)
            frames.emplace_back(b.origin.x, h - b.maxY(), b.size.width, b.size.height);
    }
    DisplayID mainDisplayID() override { return 1; }
    Rect displayBounds(DisplayID d) override {
        return d >= 1 && d <= bounds_.size() ? bounds_[d - 1] : Rect();
    }
    int32_t getDisplaysWithPoint(Point p, DisplayID* d, uint32_t* count) override {
        if (failLookup) return 1001;
        *count = 0;
        for (DisplayID id = 1; id <= bounds_.size(); ++id)
            if (displayBounds(id).contains(p)) {
                *d = id;
                *count = 1;
                return 0;
            }
        return 0;
    }
    std::vector<Rect> screenFrames() override { return frames; }
    Point mouseLocation() override { return {}; }

    bool failLookup = false;
    std::vector<Rect> frames;

  private:
    std::vector<Rect> bounds_;
};

// Main display 1440x900 at the origin; a secondary 1280x1024 to its right, top-aligned (in the
// bottom-left space it hangs 124 points below the main display's bottom).
class TwoDisplays : public FakeDisplays {
  public:
    TwoDisplays() : FakeDisplays({Rect(0, 0, 1440, 900), Rect(1440, 0, 1280, 1024)}) {}
};

TEST(ScreenGeometry, RectanglesFlipAgainstTheMainDisplayWithTheSecondaryAsymmetry) {
    TwoDisplays d;
    EXPECT_EQ(UIElementUtilities::cocoaScreenRectFromCarbonScreenRect(d, Rect(100, 50, 200, 20)),
              Rect(100, 830, 200, 20));
    // Origin on the secondary display: the height is deliberately not subtracted.
    EXPECT_EQ(UIElementUtilities::cocoaScreenRectFromCarbonScreenRect(d, Rect(1500, 50, 200, 20)),
              Rect(1500, 850, 200, 20));

    test::LogCapture cap(1);
    d.failLookup = true;
    EXPECT_EQ(UIElementUtilities::cocoaScreenRectFromCarbonScreenRect(d, Rect(1, 2, 3, 4)),
              Rect(1, 2, 3, 4));
    EXPECT_EQ(cap.lines(), std::vector<std::string>{
                               "failed to get display with point (1.000000, 2.000000): 1001"});
}

// A window dragged past the screen's edge begins on no display. Flipped as on a secondary
// display it would land above the screen, and every widget clipped to it would vanish.
TEST(ScreenGeometry, AnOriginOnNoDisplayFlipsAsOnTheDisplayNearestTheRectangle) {
    FakeDisplays one({Rect(0, 0, 1440, 900)});
    auto flip = [](Displays& d, Rect r) {
        return UIElementUtilities::cocoaScreenRectFromCarbonScreenRect(d, r);
    };
    // Left of, above and past the top-left corner of the only display.
    EXPECT_EQ(flip(one, Rect(-60, 100, 400, 300)), Rect(-60, 500, 400, 300));
    EXPECT_EQ(flip(one, Rect(150, -30, 400, 300)), Rect(150, 630, 400, 300));
    EXPECT_EQ(flip(one, Rect(-60, -30, 400, 300)), Rect(-60, 630, 400, 300));
    // Wholly off it, beside and past the bottom-right corner: still the nearest display.
    EXPECT_EQ(flip(one, Rect(-500, 100, 100, 20)), Rect(-500, 780, 100, 20));
    EXPECT_EQ(flip(one, Rect(1500, 950, 10, 10)), Rect(1500, -60, 10, 10));

    // The display holding most of the rectangle decides; a secondary keeps its asymmetry.
    TwoDisplays two;
    EXPECT_EQ(flip(two, Rect(1000, -30, 500, 300)), Rect(1000, 630, 500, 300));  // 440 on main
    EXPECT_EQ(flip(two, Rect(1300, -30, 500, 300)), Rect(1300, 930, 500, 300));  // 360 beside
    // Below the main display, in the gap beside the taller secondary: the nearer one by distance.
    EXPECT_EQ(flip(two, Rect(1000, 950, 100, 20)), Rect(1000, -70, 100, 20));
    EXPECT_EQ(flip(two, Rect(1400, 950, 30, 20)), Rect(1400, -50, 30, 20));
    // Zero width covers nothing: the display it touches is the nearest.
    EXPECT_EQ(flip(two, Rect(1500, -30, 0, 100)), Rect(1500, 930, 0, 100));

    // An origin on a real secondary display keeps the asymmetry, however much of the rectangle
    // lies on the main display.
    FakeDisplays leftSecondary({Rect(0, 0, 1440, 900), Rect(-1280, 0, 1280, 1024)});
    EXPECT_EQ(flip(leftSecondary, Rect(-10, 50, 400, 20)), Rect(-10, 850, 400, 20));
}

TEST(ScreenGeometry, PointsFlipAgainstTheirOwnScreenAndTheLastContainingOneWins) {
    TwoDisplays d;
    EXPECT_EQ(UIElementUtilities::carbonScreenPointFromCocoaScreenPoint(d, {10, 800}),
              (Point{10, 100}));
    EXPECT_EQ(UIElementUtilities::carbonScreenPointFromCocoaScreenPoint(d, {1500, 0}),
              (Point{1500, 900}));

    d.frames.push_back(Rect(0, 0, 100, 2000));  // overlaps the main screen
    EXPECT_EQ(UIElementUtilities::carbonScreenPointFromCocoaScreenPoint(d, {10, 800}),
              (Point{10, 1200}));

    test::LogCapture cap(1);
    EXPECT_EQ(UIElementUtilities::carbonScreenPointFromCocoaScreenPoint(d, {-5, -5}),
              (Point{0, 0}));
    EXPECT_EQ(cap.lines(), std::vector<std::string>{
                               "failed to find screen containing point: -5.000000,-5.000000"});
}

TEST(ScreenGeometry, FirstScreenFlipAndAllScreens) {
    TwoDisplays d;
    EXPECT_EQ(UIElementUtilities::flippedScreenBounds(d, Rect(10, 20, 30, 40)),
              Rect(10, 840, 30, 40));
    EXPECT_EQ(UIElementUtilities::allScreensFrame(d), Rect(0, -124, 2720, 1024));
}

TEST(ScreenGeometry, ValueDescriptions) {
    EXPECT_EQ(UIElementUtilities::stringDescriptionOfAXValue(AXValue(Rect(1, 2, 3.5, 4)), true),
              "<AXRectValue  x=1 y=2 w=3.5 h=4>");
    EXPECT_EQ(UIElementUtilities::stringDescriptionOfAXValue(AXValue(Point{1, 2}), false),
              "x=1 y=2");
    EXPECT_EQ(UIElementUtilities::stringDescriptionOfAXValue(AXValue(Size{5, 6}), true),
              "<AXSizeValue w=5 h=6>");
    EXPECT_EQ(UIElementUtilities::stringDescriptionOfAXValue(AXValue(Range{3, 4}), false),
              "pos=3 len=4");
    EXPECT_EQ(UIElementUtilities::stringDescriptionOfAXValue(AXValue("text"), true), "AXValue???");
}

TEST(OrientedRect, AnchorsByEdgeCodes) {
    const Rect r(10, 20, 100, 50);
    EXPECT_EQ(ORVOrientedRect(r, 1, 1, 2).focus(), (Point{110, 70}));
    EXPECT_EQ(ORVOrientedRect(r, 2, 2, 2).focus(), (Point{10, 20}));
    EXPECT_EQ(ORVOrientedRect(r, 0, 0, 2).focus(), (Point{60, 45}));
    EXPECT_EQ(ORVOrientedRect(r, 7, 9, 2).focus(), (Point{60, 45}));
    for (uint32_t e : {0u, 1u, 2u})
        EXPECT_EQ(ORVOrientedRect(Rect(5, 6, 0, 0), e, e, 1).focus(), (Point{5, 6}));
}

TEST(OrientedRect, EqualityIsExactOverEveryField) {
    auto a = ORVOrientedRect::initWithRect(Rect(1, 2, 3, 4), 0, 0, 2);
    auto b = ORVOrientedRect::initWithRect(Rect(1, 2, 3, 4), 0, 0, 2);
    EXPECT_TRUE(a->isEqual(b));
    EXPECT_FALSE(a->isEqual(ORVOrientedRect::initWithRect(Rect(1, 2, 3, 4), 0, 0, 8)));
    EXPECT_FALSE(a->isEqual(ORVOrientedRect::initWithRect(Rect(1, 2, 3, 4.001), 0, 0, 2)));
    EXPECT_FALSE(a->isEqual(ORVOrientedRect::initWithRect(Rect(1, 2, 3, 4), 2, 0, 2)));
    EXPECT_FALSE(a->isEqual(nullptr));
    EXPECT_NE(a->description().find("source:2, rect:{{1, 2}, {3, 4}}>"), std::string::npos);
    EXPECT_EQ(a->description().rfind("<ORVOrientedRect: 0x", 0), 0u);
}

}  // namespace
}  // namespace orv
