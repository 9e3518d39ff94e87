#include <gtest/gtest.h>

#include "support/FocusShape.h"
#include "accessibility/element/ORVAXElement.h"
#include "accessibility/focus/ORVAXFocusTracker.h"
#include "accessibility/trackers/ORVAXTextElementTracker.h"
#include "platform/sim/SimDesktop.h"
#include "support/LogCapture.h"

namespace orv {
namespace {

// Cells are 8 x 16 from the frame's top-left plus (2, 2); the main display is 900 high, so a
// cell whose top is at y lies at 900 - y - 16 in agent coordinates. In the field: x = 22 + 8i,
// y = 782.
class TextTrackers : public ::testing::Test {
  protected:
    void SetUp() override {
        desk->install();
        ORVAXPlainTextElementTracker::resetClassStateForTesting();
        app = &desk->addApplication(100, "com.example.app", "App");
        ASSERT_TRUE(app->load(R"(
AXWindow "Doc" [0 22 800 600] #win
  AXTextField "Name" [20 100 200 22] #field AXSelectedTextRange=range(10 0) AXValue="hello world"
  AXTextArea [20 200 400 100] #area AXValue="abc\ndef\n"
  AXTextField "Empty" [20 400 200 22] #empty
  AXTextField "Other" [300 400 200 22] #empty2
  AXComboBox "City" [20 500 200 22] #combo AXValue="Paris"
    AXButton [200 500 20 22] #arrow
)")
                        .ok());
        appElement = ORVAXElement::newForApplication(100);
    }
    void TearDown() override {
        ORVAXFocusTracker::resetForTesting();
        desk->uninstall();
    }

    template <typename T = ORVAXPlainTextElementTracker>
    std::shared_ptr<T> trackerFor(const char* label) {
        auto t = ORVAXElementTracker::newFor(
            ORVAXElement::newForElement(desk->ref(app->find(label))), appElement);
        return std::dynamic_pointer_cast<T>(t);
    }
    sim::SimNodePtr node(const char* label) { return app->find(label); }
    static std::string shape(const ORVOrientedRectRef& r) { return test::focusShape(r); }

    std::shared_ptr<sim::SimDesktop> desk = sim::SimDesktop::create();
    sim::SimApp* app = nullptr;
    ORVAXElementRef appElement;
};

TEST_F(TextTrackers, TheCursorIsAtTheEndOfTheSelectionThatMoved) {
    auto t = trackerFor("field");
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->prevCursorPosition(), 10);
    auto at = [&](Range r) {
        node("field")->setSelection(r);
        return t->getCursorPositionForTextElement();
    };
    // Shift-left from a collapsed cursor at 10: the end stayed put, so the start is the cursor.
    EXPECT_EQ(at({9, 1}), 9);
    EXPECT_EQ(at({9, 1}), 9) << "an unchanged selection keeps the cursor where it was";
    EXPECT_EQ(at({8, 2}), 8);
    EXPECT_EQ(at({10, 0}), 10);
    // Shift-right from 10: the start stayed, the length changed, so the end is the cursor.
    EXPECT_EQ(at({10, 1}), 11);
    EXPECT_EQ(at({10, 1}), 11);
    // A selection that moved as a whole puts the cursor at its end.
    EXPECT_EQ(at({2, 3}), 5);

    // No selection: -1, and what was seen before is kept for the next read.
    node("field")->set("AXSelectedTextRange", AXValue());
    EXPECT_EQ(t->getCursorPositionForTextElement(), -1);
    EXPECT_EQ(t->prevTextRange(), (Range{2, 3}));
    EXPECT_EQ(at({2, 4}), 6);
}

TEST_F(TextTrackers, TheCursorRectangleIsOneWideAtTheCursorWithTheFallbacks) {
    auto field = trackerFor("field");
    auto cursorAt = [&](const std::shared_ptr<ORVAXPlainTextElementTracker>& t, const char* label,
                        long index) {
        node(label)->setSelection(Range{index, 0});
        return t->getTextCursorBounds();
    };
    EXPECT_EQ(cursorAt(field, "field", 0), Rect(22, 782, 1, 16));
    EXPECT_EQ(cursorAt(field, "field", 4), Rect(54, 782, 1, 16));
    // After the last character of a line without a newline: the right edge of that character.
    EXPECT_EQ(cursorAt(field, "field", 11), Rect(110, 782, 1, 16));

    // An application answering the first character's rectangle for every character: the
    // zero-length range at the cursor corrects it.
    node("field")->reportFirstCharacterBounds();
    EXPECT_EQ(cursorAt(field, "field", 4), Rect(54, 782, 1, 16));
    EXPECT_EQ(cursorAt(field, "field", 0), Rect(22, 782, 1, 16));
    node("field")->reportFirstCharacterBounds(false);

    // The character's bounds fail (zero for the last character): the right edge of the one
    // before stands in.
    node("field")->reportZeroBoundsAtEnd();
    EXPECT_EQ(cursorAt(field, "field", 10), Rect(102, 782, 1, 16));

    // After a final newline the line before the insertion line places the cursor: "def\n" is
    // line 1 (top 218), the insertion line 2 would be 16 lower.
    auto area = trackerFor("area");
    EXPECT_EQ(cursorAt(area, "area", 8), Rect(22, 666, 1, 16));
    // At the start of a line that has characters, the character itself places the cursor.
    EXPECT_EQ(cursorAt(area, "area", 4), Rect(22, 666, 1, 16));

    // Nothing to be found in an empty field.
    EXPECT_TRUE(trackerFor("empty")->getTextCursorBounds().isZero());
}

TEST_F(TextTrackers, WithoutACursorTheMarkNearTheEdgeIsReportedAndItsSourceFollowsItsOffset) {
    // Visible bounds of the empty field: (20, 478, 200, 22).
    auto empty = trackerFor("empty");
    EXPECT_EQ(shape(empty->focus()), "{{24, 480}, {1, 17}} 0,0 1");
    EXPECT_EQ(shape(empty->focus()), "{{24, 480}, {1, 17}} 0,0 8") << "asked again unchanged";
    // Another field at the same offset from its own origin is not a move within its element.
    EXPECT_EQ(shape(trackerFor("empty2")->focus()), "{{304, 480}, {1, 17}} 0,0 8");

    // The cursor in a field: new within its element; a window move keeps its place in the
    // element, so it is source 8.
    auto field = trackerFor("field");
    EXPECT_EQ(shape(field->focus()), "{{102, 782}, {1, 16}} 0,0 1");
    desk->move(node("win"), Point{100, 122});
    EXPECT_EQ(shape(field->focus()), "{{202, 682}, {1, 16}} 0,0 8");
    node("field")->setSelection(Range{3, 0});
    EXPECT_EQ(shape(field->focus()), "{{146, 682}, {1, 16}} 0,0 1");
}

TEST_F(TextTrackers, ARaisingApplicationIsLoggedToTheSystemLogAndTheMarkStandsIn) {
    test::LogCapture log(1);
    auto field = trackerFor("field");
    node("field")->raiseOnRead("AXNumberOfCharacters", "app busy");
    EXPECT_EQ(shape(field->focus()), "{{24, 780}, {1, 17}} 0,0 1");
    // Written straight to the system log (no level prefix), whatever the verbosity.
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Error while computing text cursor bounds: "
                                                    "com.example.app:AXApplication (App)\\AXWindow "
                                                    "(Doc)\\AXTextField (Name) app busy"});

    // An error code is an ordinary failure: no line, and the fallbacks carry on.
    log.clear();
    node("field")->clearFaults();
    node("field")->failRead("AXBoundsForRange", kAXErrorFailure);
    EXPECT_TRUE(field->getTextCursorBounds().isZero());
    EXPECT_EQ(log.countContaining("Error while computing"), 0u);

    // Raising again while the path is read for the line, and again in the fallback: the line
    // names the element as the platform describes it and the result is the zero rectangle.
    // (A new tracker: the first wrapper keeps the path it has read.)
    log.clear();
    node("field")->clearFaults();
    auto fresh = trackerFor("field");
    node("field")->raiseOnRead("AXNumberOfCharacters", "app busy");
    node("field")->raiseOnRead("AXParent", "no parent today");
    EXPECT_TRUE(fresh->focus()->rect().isZero());
    ASSERT_EQ(log.count(), 1u);
    EXPECT_NE(log.lines()[0].find("<AXUIElement"), std::string::npos) << log.lines()[0];
}

TEST_F(TextTrackers, TextChangesReachTheFocusTrackerAndTheTrackerIsNotKeptAlive) {
    ORVAXFocusTracker::setFocusedElement(ORVAXElement::newForElement(desk->ref(node("field"))),
                                         appElement);
    auto current = ORVAXFocusTracker::currentTracker();
    ASSERT_STREQ(current->className(), "ORVAXPlainTextElementTracker");
    desk->moveCaret(node("field"), 2);
    desk->runUntilIdle();  // the notification only; no poll has run
    ASSERT_NE(current->lastVisibleFocus(), nullptr);
    EXPECT_EQ(current->lastVisibleFocus()->rect(), Rect(38, 782, 1, 16));
    desk->typeText(node("field"), "XY");
    desk->runUntilIdle();
    EXPECT_EQ(current->lastVisibleFocus()->rect(), Rect(54, 782, 1, 16));

    // The element's subscriptions hold the tracker weakly.
    std::weak_ptr<ORVAXElementTracker> weak = current;
    current.reset();
    ORVAXFocusTracker::setFocusedElement(nullptr, nullptr);
    EXPECT_TRUE(weak.expired());
    std::weak_ptr<ORVAXElementTracker> combo = trackerFor<ORVAXComboBoxElementTracker>("combo");
    EXPECT_TRUE(combo.expired());
}

TEST_F(TextTrackers, AnOpenComboBoxListIsFollowedOncePerListChange) {
    auto combo = trackerFor<ORVAXComboBoxElementTracker>("combo");
    ASSERT_NE(combo, nullptr);
    node("combo")->setSelection(Range{5, 0});
    const Rect cursor(62, 382, 1, 16);
    EXPECT_EQ(combo->focus()->rect(), cursor);

    // Entries are 20 high below the box (top 522): entry i lies at 900 - 542 - 20i.
    auto list = desk->openComboBoxList(node("combo"), {"Oslo", "Paris", "Rome"}, 1);
    desk->runUntilIdle();
    ASSERT_NE(combo->list(), nullptr);
    EXPECT_EQ(shape(combo->focus()), "{{20, 338}, {200, 20}} 2,0 2");
    EXPECT_EQ(combo->focus()->rect(), cursor);

    desk->selectListEntry(list, 2);
    desk->runUntilIdle();
    EXPECT_EQ(shape(combo->focus()), "{{20, 318}, {200, 20}} 2,0 2");
    EXPECT_EQ(combo->focus()->rect(), cursor);

    // With nothing selected the cursor is reported and the list flag is spent.
    desk->selectListEntry(list, -1);
    desk->runUntilIdle();
    EXPECT_TRUE(combo->focusChangedDueToList());
    EXPECT_EQ(combo->focus()->rect(), cursor);
    EXPECT_FALSE(combo->focusChangedDueToList());

    // After ceaseObservation neither the application nor the list is heard.
    combo->ceaseObservation();
    EXPECT_EQ(combo->list(), nullptr);
    desk->selectListEntry(list, 0);
    desk->openComboBoxList(node("combo"), {"Bern"}, 0);
    desk->runUntilIdle();
    EXPECT_EQ(combo->list(), nullptr);
    EXPECT_FALSE(combo->focusChangedDueToList());
}

TEST_F(TextTrackers, AComboBoxWithoutItsExtraChildrenKeepsReportingTheCursor) {
    // A box that shows its list elsewhere has a single child while the list is open.
    auto lone = app->root()->addChild("AXWindow", "Pop", Rect(0, 600, 200, 200));
    auto box = lone->addChild("AXComboBox", Rect(10, 610, 100, 22));
    box->setText("Rome");
    box->setSelection(Range{0, 0});
    auto t = std::dynamic_pointer_cast<ORVAXComboBoxElementTracker>(
        ORVAXElementTracker::newFor(ORVAXElement::newForElement(desk->ref(box)), appElement));
    desk->openComboBoxList(box, {"Oslo"}, 0);
    desk->runUntilIdle();
    ASSERT_TRUE(t->focusChangedDueToList());
    EXPECT_EQ(t->focus()->edgeX(), 0u);
    EXPECT_TRUE(t->focusChangedDueToList()) << "the flag waits for the list to show";
}

}  // namespace
}  // namespace orv
