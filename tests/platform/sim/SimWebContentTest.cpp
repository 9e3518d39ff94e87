#include <gtest/gtest.h>

#include "platform/sim/SimDesktop.h"
#include "platform/sim/SimWebContent.h"

using namespace orv;
using namespace orv::sim;

namespace {

TEST(TextMarkerRanges, CarryTheirTwoEndsWhateverBytesTheMarkersHold) {
    const AXTextMarker start{"a:b"}, end{std::string("c\0d", 3)};
    const AXTextMarkerRange range = makeTextMarkerRange(start, end);
    EXPECT_EQ(textMarkerRangeStart(range), start);
    EXPECT_EQ(textMarkerRangeEnd(range), end);
    const AXTextMarkerRange empty = makeTextMarkerRange(AXTextMarker{}, AXTextMarker{});
    EXPECT_EQ(textMarkerRangeStart(empty), AXTextMarker{});
    EXPECT_EQ(textMarkerRangeEnd(empty), AXTextMarker{});
    // Bytes some other way made are no range to split.
    for (const char* bad : {"", "caret", ":ab", "x:ab", "9:ab", "99999999999999999999:ab"})
        EXPECT_FALSE(textMarkerRangeStart(AXTextMarkerRange{bad})) << bad;
}

// "Hello world" (0-11), an image (11-12), "second line" (12-23).
class SimWebContentTest : public ::testing::Test {
  protected:
    void SetUp() override {
        app = &desk->addApplication(100, "com.example.browser", "Browser");
        ASSERT_TRUE(app->load(R"(
AXWindow "Browser" [0 22 1000 700] #win
  AXWebArea "Page" [0 60 1000 660] #web
    AXGroup [10 70 500 40] #para
      AXStaticText [10 70 400 20] #t1 AXValue="Hello world"
      AXImage [410 70 20 20] #img
      AXStaticText [10 90 400 20] #t2 AXValue="second line"
  AXTextField [10 600 100 20] #outside
AXWindow "Other" [0 800 100 100]
  AXWebArea [0 800 100 100] #web2
    AXStaticText [0 800 100 20] #u1 AXValue="x"
)")
                        .ok());
    }
    SimNodePtr find(const char* label) { return app->find(label); }
    AXError param(const char* label, const std::string& attr, AXValue p, AXValue* out) {
        return desk->ax().copyParameterizedAttributeValue(desk->ref(find(label)), attr, p, out);
    }
    AXError read(const char* label, const std::string& attr, AXValue* out) {
        return desk->ax().copyAttributeValue(desk->ref(find(label)), attr, out);
    }
    AXTextMarkerRange selection(const char* label = "web") {
        AXValue v;
        EXPECT_EQ(read(label, "AXSelectedTextMarkerRange", &v), kAXErrorSuccess);
        return v.get<AXTextMarkerRange>() ? *v.get<AXTextMarkerRange>() : AXTextMarkerRange{};
    }
    long indexOf(const AXTextMarker& m) {
        AXValue v;
        EXPECT_EQ(param("web", "AXIndexForTextMarker", AXValue(m), &v), kAXErrorSuccess);
        return v.get<int64_t>() ? static_cast<long>(*v.get<int64_t>()) : -99;
    }
    Rect bounds(const AXTextMarkerRange& r) {
        AXValue v;
        EXPECT_EQ(param("para", "AXBoundsForTextMarkerRange", AXValue(r), &v), kAXErrorSuccess);
        return v.get<Rect>() ? *v.get<Rect>() : Rect::null();
    }

    std::shared_ptr<SimDesktop> desk = SimDesktop::create();
    SimApp* app = nullptr;
};

TEST_F(SimWebContentTest, MarkersNameALeafAndAnOffsetAndEqualPositionsGiveEqualBytes) {
    const WebContent page(find("web"));
    EXPECT_EQ(page.length(), 23);
    // At a boundary the earlier leaf holds the position.
    EXPECT_EQ(page.markerAt(11), WebContent::marker(*find("t1"), 11));
    EXPECT_EQ(page.markerAt(12), WebContent::marker(*find("img"), 1));
    EXPECT_EQ(page.markerAt(23), WebContent::marker(*find("t2"), 11));
    EXPECT_FALSE(page.markerAt(24));

    desk->selectWebText(find("web"), 14, 3);  // either order
    const AXTextMarkerRange sel = selection();
    EXPECT_EQ(indexOf(*textMarkerRangeStart(sel)), 3);
    EXPECT_EQ(indexOf(*textMarkerRangeEnd(sel)), 14);
    // Every element of the page answers the page's selection; one outside has none.
    EXPECT_EQ(selection("t2"), sel);
    AXValue v;
    EXPECT_EQ(read("outside", "AXSelectedTextMarkerRange", &v), kAXErrorAttributeUnsupported);
    desk->selectWebText(find("web"), 3, 14);
    EXPECT_EQ(selection(), sel) << "the same positions, the same bytes";

    // The element a marker names, and markers that name nothing here.
    ASSERT_EQ(param("web", "AXUIElementForTextMarker", AXValue(*page.markerAt(11)), &v),
              kAXErrorSuccess);
    EXPECT_EQ(desk->node(*v.get<AXUIElementRef>()), find("t1"));
    const AXTextMarker foreign = WebContent::marker(*find("u1"), 0);
    EXPECT_EQ(param("web", "AXIndexForTextMarker", AXValue(foreign), &v), kAXErrorNoValue);
    EXPECT_EQ(
        param("web", "AXIndexForTextMarker", AXValue(WebContent::marker(*find("t1"), 12)), &v),
        kAXErrorNoValue);
    EXPECT_EQ(param("web", "AXIndexForTextMarker", AXValue(3), &v), kAXErrorIllegalArgument);
    EXPECT_EQ(param("outside", "AXIndexForTextMarker", AXValue(foreign), &v),
              kAXErrorParameterizedAttributeUnsupported);
}

TEST_F(SimWebContentTest, BoundsOfCaretsAndRangesAndTheUnorderedPair) {
    const WebContent page(find("web"));
    auto at = [&](long i) { return *page.markerAt(i); };
    // Cells of t1 start at (12, 72), 8 x 16; the caret is 1 wide.
    EXPECT_EQ(bounds(makeTextMarkerRange(at(3), at(3))), Rect(36, 72, 1, 16));
    EXPECT_EQ(bounds(makeTextMarkerRange(at(3), at(5))), Rect(36, 72, 16, 16));
    // Over the image into the second run: the union of the pieces.
    EXPECT_EQ(bounds(makeTextMarkerRange(at(0), at(14))), Rect(12, 70, 418, 38));
    const AXTextMarker inImage = WebContent::marker(*find("img"), 0);
    EXPECT_EQ(bounds(makeTextMarkerRange(inImage, inImage)), Rect(410, 70, 1, 20));

    AXValue v;
    ASSERT_EQ(param("t1", "AXTextMarkerRangeForUnorderedTextMarkers",
                    AXValue(AXArray{AXValue(at(9)), AXValue(at(2))}), &v),
              kAXErrorSuccess);
    EXPECT_EQ(*v.get<AXTextMarkerRange>(), makeTextMarkerRange(at(2), at(9)));
    EXPECT_EQ(param("t1", "AXTextMarkerRangeForUnorderedTextMarkers", AXValue(AXArray{}), &v),
              kAXErrorIllegalArgument);
}

TEST_F(SimWebContentTest, MovingTheCaretPostsOnThePageAndOnAFocusedElementInIt) {
    EXPECT_EQ(desk->postedCount("AXSelectedTextChanged"), 0u);
    desk->moveWebCaret(find("web"), 2);
    EXPECT_EQ(desk->postedCount("AXSelectedTextChanged"), 1u);
    desk->focus(find("para"));
    desk->clearPostedNotifications();
    desk->moveWebCaretInto(find("img"), 0);
    ASSERT_EQ(desk->postedCount("AXSelectedTextChanged"), 2u);
    EXPECT_EQ(desk->postedNotifications()[0].nodeId, find("web")->id());
    EXPECT_EQ(desk->postedNotifications()[1].nodeId, find("para")->id());
    // A leaf of another page, or an offset past the leaf, moves nothing.
    desk->clearPostedNotifications();
    desk->moveWebCaretInto(find("img"), 2);
    desk->moveWebCaretInto(find("outside"), 0);
    EXPECT_EQ(desk->postedCount("AXSelectedTextChanged"), 0u);
}

TEST_F(SimWebContentTest, AComboBoxListOpensIsSelectedAndCloses) {
    auto combo = find("win")->addChild("AXComboBox", Rect(10, 600, 100, 20));
    combo->addChild("AXButton", Rect(100, 600, 10, 20));
    auto list = desk->openComboBoxList(combo, {"a", "b"}, 1);
    ASSERT_NE(list, nullptr);
    auto scroll = list->parent();
    EXPECT_EQ(scroll->role(), "AXScrollArea");
    EXPECT_EQ(combo->children().size(), 2u);
    EXPECT_EQ(list->children()[1]->frame(), Rect(10, 640, 100, 20));
    ASSERT_EQ(desk->postedNotifications().back().notification, "AXCreated");
    EXPECT_EQ(desk->postedNotifications().back().nodeId, scroll->id());
    AXValue v;
    ASSERT_EQ(desk->ax().copyAttributeValue(desk->ref(list), "AXSelectedChildren", &v),
              kAXErrorSuccess);
    ASSERT_EQ(v.get<AXArray>()->size(), 1u);
    EXPECT_EQ(desk->node(*(*v.get<AXArray>())[0].get<AXUIElementRef>()), list->children()[1]);

    desk->selectListEntry(list, 0);
    EXPECT_EQ(desk->postedNotifications().back().notification, "AXSelectedChildrenChanged");
    desk->closeComboBoxList(combo);
    EXPECT_EQ(desk->postedNotifications().back().notification, "AXUIElementDestroyed");
    EXPECT_FALSE(list->isAlive());
    EXPECT_EQ(combo->children().size(), 1u);
}

TEST_F(SimWebContentTest, TextBoundsCanBeZeroAtTheEndAndFocusCanMoveSilently) {
    auto field = find("outside");
    field->setText("abc");
    field->reportZeroBoundsAtEnd();
    AXValue v;
    auto boundsOf = [&](Range r) {
        EXPECT_EQ(desk->ax().copyParameterizedAttributeValue(desk->ref(field), "AXBoundsForRange",
                                                             AXValue(r), &v),
                  kAXErrorSuccess);
        return *v.get<Rect>();
    };
    EXPECT_EQ(boundsOf({1, 1}), Rect(20, 602, 8, 16));
    EXPECT_TRUE(boundsOf({2, 1}).isZero());
    EXPECT_TRUE(boundsOf({3, 0}).isZero());

    desk->focusSilently(field);
    EXPECT_TRUE(desk->postedNotifications().empty());
    ASSERT_EQ(
        desk->ax().copyAttributeValue(desk->ax().createApplication(100), "AXFocusedUIElement", &v),
        kAXErrorSuccess);
    EXPECT_EQ(desk->node(*v.get<AXUIElementRef>()), field);
    EXPECT_EQ(app->focusedWindow(), find("win"));
}

}  // namespace
