#include <gtest/gtest.h>

#include "platform/sim/SimDesktop.h"

using namespace orv;
using namespace orv::sim;

namespace {

class SimTextTest : public ::testing::Test {
  protected:
    void SetUp() override {
        auto& app = desk->addApplication(100, "com.example.editor", "Editor");
        // Default cells are 8 x 16 with the first one at the frame's top-left plus (2, 2).
        field = app.root()
                    ->addChild("AXWindow", "W", Rect(0, 0, 800, 600))
                    ->addChild("AXTextArea", Rect(20, 60, 300, 100));
        field->setText("ab\ncd");
    }

    AXError param(const std::string& attr, AXValue p, AXValue* out) {
        return desk->ax().copyParameterizedAttributeValue(desk->ref(field), attr, p, out);
    }
    Rect bounds(Range r) {
        AXValue v;
        EXPECT_EQ(param("AXBoundsForRange", AXValue(r), &v), kAXErrorSuccess);
        return v.get<Rect>() ? *v.get<Rect>() : Rect::null();
    }
    AXValue read(const std::string& attr) {
        AXValue v;
        EXPECT_EQ(desk->ax().copyAttributeValue(desk->ref(field), attr, &v), kAXErrorSuccess);
        return v;
    }

    std::shared_ptr<SimDesktop> desk = SimDesktop::create();
    SimNodePtr field;
};

TEST_F(SimTextTest, BoundsLinesAndCaret) {
    EXPECT_EQ(bounds({0, 1}), Rect(22, 62, 8, 16));
    EXPECT_EQ(bounds({4, 1}), Rect(30, 78, 8, 16));
    EXPECT_EQ(bounds({5, 0}), Rect(38, 78, 1, 16)) << "caret after the last character";
    EXPECT_EQ(bounds({3, 0}), Rect(22, 78, 1, 16)) << "caret at the start of the second line";
    EXPECT_EQ(bounds({2, 1}), Rect(38, 62, 8, 16)) << "the newline has a cell of its own";
    EXPECT_EQ(bounds({1, 3}), Rect(22, 62, 24, 32)) << "union over the line break";

    AXValue v;
    EXPECT_EQ(param("AXBoundsForRange", AXValue(Range{4, 2}), &v), kAXErrorIllegalArgument);
    EXPECT_EQ(param("AXBoundsForRange", AXValue(3), &v), kAXErrorIllegalArgument);
    ASSERT_EQ(param("AXRangeForLine", AXValue(0), &v), kAXErrorSuccess);
    EXPECT_EQ(*v.get<Range>(), (Range{0, 3}));
    ASSERT_EQ(param("AXRangeForLine", AXValue(1), &v), kAXErrorSuccess);
    EXPECT_EQ(*v.get<Range>(), (Range{3, 2}));
    EXPECT_EQ(param("AXRangeForLine", AXValue(2), &v), kAXErrorIllegalArgument);
    ASSERT_EQ(param("AXLineForIndex", AXValue(5), &v), kAXErrorSuccess);
    EXPECT_EQ(*v.get<int64_t>(), 1);
    ASSERT_EQ(param("AXStringForRange", AXValue(Range{1, 3}), &v), kAXErrorSuccess);
    EXPECT_EQ(*v.get<std::string>(), "b\nc");
    EXPECT_EQ(param("AXNoSuchParameter", AXValue(0), &v),
              kAXErrorParameterizedAttributeUnsupported);

    EXPECT_EQ(*read("AXNumberOfCharacters").get<int64_t>(), 5);
    field->setSelection({4, 0});
    EXPECT_EQ(*read("AXInsertionPointLineNumber").get<int64_t>(), 1);
    EXPECT_EQ(*read("AXVisibleCharacterRange").get<Range>(), (Range{0, 5}));

    // A text ending in a newline has an empty last line where the caret sits at the left edge.
    field->setText("ab\n");
    EXPECT_EQ(bounds({3, 0}), Rect(22, 78, 1, 16));
    ASSERT_EQ(param("AXRangeForLine", AXValue(1), &v), kAXErrorSuccess);
    EXPECT_EQ(*v.get<Range>(), (Range{3, 0}));
}

TEST_F(SimTextTest, CountsUtf16UnitsAndHonoursMetrics) {
    field->setText("\xC3\xA9\xF0\x9F\x98\x80x");  // e-acute, an emoji (two units), x
    EXPECT_EQ(*read("AXNumberOfCharacters").get<int64_t>(), 4);
    AXValue v;
    ASSERT_EQ(param("AXStringForRange", AXValue(Range{3, 1}), &v), kAXErrorSuccess);
    EXPECT_EQ(*v.get<std::string>(), "x");
    EXPECT_EQ(bounds({3, 1}), Rect(46, 62, 8, 16));

    field->set("AXValue", "xyz");  // a plain store re-lays the text out as well
    EXPECT_EQ(*read("AXNumberOfCharacters").get<int64_t>(), 3);
    field->setTextMetrics(TextMetrics{10, 20, 0, 4, 2});
    EXPECT_EQ(bounds({1, 0}), Rect(30, 64, 2, 20));
}

TEST_F(SimTextTest, ApplicationReportingFirstCharacterBoundsForEveryIndex) {
    field->reportFirstCharacterBounds();
    EXPECT_EQ(bounds({4, 1}), bounds({0, 1}));
    EXPECT_EQ(bounds({4, 0}), Rect(30, 78, 1, 16)) << "carets stay right";
}

TEST_F(SimTextTest, EditingHelpersUpdateTextSelectionAndNotify) {
    field->setSelection({1, 1});
    desk->typeText(field, "XY");
    EXPECT_EQ(field->text(), "aXY\ncd");
    EXPECT_EQ(field->selection(), (Range{3, 0}));
    desk->deleteBackward(field);
    EXPECT_EQ(field->text(), "aX\ncd");
    desk->select(field, {0, 99});
    EXPECT_EQ(field->selection(), (Range{0, 5})) << "clamped to the text";
    EXPECT_EQ(*read("AXSelectedText").get<std::string>(), "aX\ncd");

    const auto& posted = desk->postedNotifications();
    std::vector<std::string> names;
    for (auto& p : posted) names.push_back(p.notification);
    EXPECT_EQ(names,
              (std::vector<std::string>{"AXValueChanged", "AXSelectedTextChanged", "AXValueChanged",
                                        "AXSelectedTextChanged", "AXSelectedTextChanged"}));

    // Writes through the interface behave like the user's edits.
    auto ref = desk->ref(field);
    EXPECT_EQ(desk->ax().setAttributeValue(ref, "AXSelectedTextRange", AXValue(Range{9, 0})),
              kAXErrorIllegalArgument);
    EXPECT_EQ(desk->ax().setAttributeValue(ref, "AXSelectedTextRange", AXValue(Range{1, 0})),
              kAXErrorSuccess);
    EXPECT_EQ(desk->ax().setAttributeValue(ref, "AXValue", AXValue("z")), kAXErrorSuccess);
    EXPECT_EQ(field->text(), "z");
    EXPECT_EQ(field->selection(), (Range{1, 0}));
    EXPECT_EQ(desk->postedCount("AXValueChanged"), 3u);
}

}  // namespace
