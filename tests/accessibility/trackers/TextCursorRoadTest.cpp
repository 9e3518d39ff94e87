#include <gtest/gtest.h>

#include "accessibility/trackers/ORVAXTextElementTracker.h"
#include "accessibility/trackers/ORVAXWebAreaElementTracker.h"
#include "support/AgentHarness.h"

namespace orv {
namespace {

using test::area;
using test::FocusDatagram;

// The whole agent: the cursor inside a focused element reaches the magnifier. Cells are 8 x 16
// from the frame's top-left plus (2, 2); main display 900 high.
class TextCursorRoad : public ::testing::Test {
  protected:
    void SetUp() override {
        ORVAXPlainTextElementTracker::resetClassStateForTesting();
        ORVAXWebAreaElementTracker::resetClassStateForTesting();
        auto& editor = h.desk->addApplication(100, "com.example.editor", "Editor");
        ASSERT_TRUE(editor
                        .load(R"(
AXWindow/AXStandardWindow "Doc" [0 22 800 600] #win AXMain=true
  AXTextField "Name" [20 100 200 22] #field AXValue="hello" AXSelectedTextRange=range(5 0)
  AXWebArea "Page" [20 200 600 300] #web
    AXStaticText [20 200 400 20] #run AXValue="Read me"
)")
                        .ok());
        h.desk->focus(editor.find("field"));
        h.desk->runUntilIdle();
        h.startAgent();
        h.takeFocusAreas();  // the start-up area is dropped before the link is up
    }
    void TearDown() override {
        ORVAXPlainTextElementTracker::resetClassStateForTesting();
        ORVAXWebAreaElementTracker::resetClassStateForTesting();
    }

    sim::SimNodePtr find(const char* label) { return h.desk->application(100)->find(label); }

    test::AgentHarness h;
};

TEST_F(TextCursorRoad, TypingAndCaretMovesSendTheCursorAndAWindowMoveSendsItAsSource8) {
    // "hello!": the cursor after the last character, at the right edge of the "!".
    h.desk->typeText(find("field"), "!");
    h.settle();
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(70, 782, 1, 16, 0, 0, 1)});

    h.desk->moveCaret(find("field"), 2);
    h.settle();
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(38, 782, 1, 16, 0, 0, 1)});

    // Shift-left: the start of the selection is the cursor.
    h.desk->select(find("field"), Range{1, 1});
    h.settle();
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(30, 782, 1, 16, 0, 0, 1)});

    h.desk->move(find("win"), Point{100, 122});
    h.settle();
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(130, 682, 1, 16, 0, 0, 8)});

    // A steady cursor: the polls send nothing.
    h.advance(2.0);
    EXPECT_TRUE(h.takeFocusAreas().empty());

    // A caret moved without a notification is found by the half-second poll.
    find("field")->setSelection(Range{4, 0});
    h.advance(0.5);
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(154, 682, 1, 16, 0, 0, 1)});
}

TEST_F(TextCursorRoad, TheCaretInAFocusedWebAreaReachesTheMagnifier) {
    h.desk->moveWebCaret(find("web"), 1);
    h.desk->focus(find("web"));
    h.settle();
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(30, 682, 1, 16, 0, 0, 1)});
    h.desk->moveWebCaret(find("web"), 4);
    h.settle();
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(54, 682, 1, 16, 0, 0, 1)});
}

}  // namespace
}  // namespace orv
