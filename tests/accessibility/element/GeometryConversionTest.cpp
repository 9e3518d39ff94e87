#include <gtest/gtest.h>

#include "accessibility/element/ORVOrientedRect.h"
#include "accessibility/element/UIElementUtilities.h"
#include "support/LogCapture.h"

namespace orv {
namespace {

// Main display 1440x900 at the origin; a secondary 1280x1024 to its right, top-aligned.
class TwoDisplays : public Displays {
  public:
    DisplayID mainDisplayID() override { return 1; }
    Rect displayBounds(DisplayID d) override {
        return d == 1 ? Rect(0, 0, 1440, 900) : Rect(1440, 0, 1280, 1024);
    }
    int32_t getDisplaysWithPoint(Point p, DisplayID* d, uint32_t* count) override {
        if (failLookup) return 1001;
        *count = 0;
        for (DisplayID id : {1u, 2u})
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
    // Bottom-left space: the secondary hangs 124 points below the main display's bottom.
    std::vector<Rect> frames{Rect(0, 0, 1440, 900), Rect(1440, -124, 1280, 1024)};
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
