// Text reads of the AT-SPI backend against the GTK test window's text view ("Notes") and text
// field. Run inside tests/platform/linux/desktop-session.sh; elsewhere every test here skips.
#if __has_include(<atspi/atspi.h>)

#include <gtest/gtest.h>

#include "platform/linux/AccessibilityStatus.h"
#include "platform/linux/LinuxDesktopSession.h"

namespace orv::linuxtest {
namespace {

using contract::waitForTitle;

Range rangeOf(const AXValue& v) {
    const Range* r = v.get<Range>();
    return r ? *r : Range{-99, -99};
}

class LinuxTextTest : public LinuxDesktopTest {
  protected:
    AXValue read(const AXUIElementRef& e, const char* attribute) {
        AXValue v;
        EXPECT_EQ(ax().copyAttributeValue(e, attribute, &v), kAXErrorSuccess) << attribute;
        return v;
    }
    AXError ask(const AXUIElementRef& e, const char* attribute, AXValue parameter, AXValue* out) {
        return ax().copyParameterizedAttributeValue(e, attribute, parameter, out);
    }
    Rect bounds(const AXUIElementRef& e, Range r) {
        AXValue v;
        if (ask(e, "AXBoundsForRange", AXValue(r), &v) != kAXErrorSuccess) return Rect();
        const Rect* rect = v.get<Rect>();
        return rect ? *rect : Rect(-1, -1, -1, -1);
    }
    // Puts the caret (or a selection) and waits until the application answers it.
    void select(const AXUIElementRef& e, Range r) {
        ASSERT_EQ(ax().setAttributeValue(e, "AXSelectedTextRange", AXValue(r)), kAXErrorSuccess);
        ASSERT_TRUE(waitUntil(
            [&] {
                AXValue v;
                return ax().copyAttributeValue(e, "AXSelectedTextRange", &v) == kAXErrorSuccess &&
                       rangeOf(v).location == r.location && rangeOf(v).length == r.length;
            },
            5.0));
    }
};

TEST_F(LinuxTextTest, LinesAreTheTextsOwnAndTheCaretKnowsItsLine) {
    AXUIElementRef notes = waitForTitle(*this, "Notes");
    ASSERT_TRUE(notes);
    ASSERT_EQ(ax().setAttributeValue(notes, "AXValue", AXValue("one\ntwo\n")), kAXErrorSuccess);
    ASSERT_TRUE(waitUntil(
        [&] {
            AXValue n;
            return ax().copyAttributeValue(notes, "AXNumberOfCharacters", &n) ==
                       kAXErrorSuccess &&
                   n == AXValue(8);
        },
        5.0));
    AXValue line;
    ASSERT_EQ(ask(notes, "AXRangeForLine", AXValue(0L), &line), kAXErrorSuccess);
    EXPECT_EQ(rangeOf(line), (Range{0, 4}));  // with its "\n"
    ASSERT_EQ(ask(notes, "AXRangeForLine", AXValue(1L), &line), kAXErrorSuccess);
    EXPECT_EQ(rangeOf(line), (Range{4, 4}));
    ASSERT_EQ(ask(notes, "AXRangeForLine", AXValue(2L), &line), kAXErrorSuccess);
    EXPECT_EQ(rangeOf(line), (Range{8, 0}));  // the empty line after the final newline
    EXPECT_EQ(ask(notes, "AXRangeForLine", AXValue(3L), &line), kAXErrorIllegalArgument);

    for (auto [caret, expected] : {std::pair{0L, 0L}, {3L, 0L}, {4L, 1L}, {6L, 1L}, {8L, 2L}}) {
        select(notes, Range{caret, 0});
        EXPECT_EQ(read(notes, "AXInsertionPointLineNumber"), AXValue(expected)) << caret;
    }
    // A selection's line is the caret's, wherever the selection starts.
    select(notes, Range{1, 5});
    EXPECT_EQ(read(notes, "AXInsertionPointLineNumber"), AXValue(1L));
}

TEST_F(LinuxTextTest, NoCharacterAnswersTheZeroRectangle) {
    AXUIElementRef notes = waitForTitle(*this, "Notes");
    ASSERT_TRUE(notes);
    ASSERT_EQ(ax().setAttributeValue(notes, "AXValue", AXValue("one\ntwo")), kAXErrorSuccess);
    ASSERT_TRUE(waitUntil([&] { return read(notes, "AXNumberOfCharacters") == AXValue(7); }, 5));
    const Rect o = bounds(notes, Range{0, 1});
    const Rect t = bounds(notes, Range{4, 1});
    ASSERT_GT(o.size.width, 0);
    ASSERT_GT(o.size.height, 0);
    EXPECT_NEAR(t.origin.x, o.origin.x, 1.0);  // each line starts at the left edge
    EXPECT_GT(t.origin.y, o.origin.y);
    // Past the last character GTK answers a rectangle without width: no character there.
    EXPECT_TRUE(bounds(notes, Range{7, 1}).isZero());
    // Its new line has no width either, but stands where the caret goes at the line's end.
    const Rect nl = bounds(notes, Range{3, 1});
    EXPECT_GT(nl.size.height, 0);
    EXPECT_NEAR(nl.origin.x, o.origin.x + 3 * o.size.width, 2.0);
    // The second character stands right of the first.
    const Rect n = bounds(notes, Range{1, 1});
    EXPECT_NEAR(n.origin.x, o.origin.x + o.size.width, 1.0);
}

TEST_F(LinuxTextTest, AFieldTellsItsCaretMoving) {
    AXUIElementRef field = waitForTitle(*this, "Name field");
    ASSERT_TRUE(field);
    pid_t pid = 0;
    ASSERT_EQ(ax().getPid(field, &pid), kAXErrorSuccess);
    int told = 0;
    AXObserverRef observer;
    ASSERT_EQ(ax().createObserver(
                  pid,
                  [&](AXObserver&, const AXUIElementRef&, const std::string&, void*) { ++told; },
                  &observer),
              kAXErrorSuccess);
    ASSERT_EQ(observer->addNotification(field, "AXSelectedTextChanged", nullptr),
              kAXErrorSuccess);
    observer->attachToMainLoop();
    ASSERT_EQ(ax().setAttributeValue(field, "AXValue", AXValue("hello")), kAXErrorSuccess);
    focus("Name field");
    select(field, Range{2, 0});
    EXPECT_TRUE(waitUntil([&] { return told > 0; }, 5.0));
    const int before = told;
    select(field, Range{1, 3});
    EXPECT_TRUE(waitUntil([&] { return told > before; }, 5.0));
}

TEST_F(LinuxTextTest, AccessibilityIsSwitchedOnForTheSession) {
    std::string why;
    ASSERT_TRUE(linuxdesk::switchOnAccessibility(&why).has_value()) << why;
    // Asked again, it is on already.
    EXPECT_EQ(linuxdesk::switchOnAccessibility(&why), std::optional<bool>(true)) << why;
}

}  // namespace
}  // namespace orv::linuxtest

#endif
