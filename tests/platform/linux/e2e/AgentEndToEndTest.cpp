// The whole focus road on a real desktop: the agent follows the GTK test window through AT-SPI
// and the magnifier stand-in must hear one focus area per focus change, equal to the extents the
// window itself reports from GTK, turned to the agent's bottom-left origin. Run inside
// tests/platform/linux/desktop-session.sh; elsewhere every test skips.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string_view>

#include "AgentFixture.h"

namespace orv::e2e {
namespace {

class AgentEndToEnd : public AgentFixture {};

TEST_F(AgentEndToEnd, EveryFocusChangeSendsTheWidgetsExtentsAndWindowMovesFollow) {
    TestWindow& w = startWindow();
    ASSERT_NO_FATAL_FAILURE(startAgent(w));

    // Tab through the window: buttons, text fields, a check box, a radio button, list rows
    // (announced before they take focus), and the text area.
    for (const char* name : {"Second", "Name field", "Password field", "Check me", "Radio A",
                             "Row 1", "Row 2", "Row 3", "Notes"}) {
        const Area want = change(w, [&] { tab(); });
        ASSERT_EQ(w.focusName(), name) << "the Tab order changed";
        expectFocusArea(w, want, std::string("Tab to ") + name);
    }
    // The window moves focus itself; with nothing focused the window is the focus.
    for (const char* command : {"focus Radio B", "unfocus", "focus First", "next"}) {
        const Area want = change(w, [&] { w.proc.send(command); });
        expectArea(want, command);
    }

    // Moved by the window manager at the request of another client, then of the window.
    ASSERT_NO_FATAL_FAILURE(moveWindow(w, 300, 150, true));
    expectArea(w.expected(), "the window moved by another client");
    ASSERT_NO_FATAL_FAILURE(moveWindow(w, 120, 90));
    expectArea(w.expected(), "the window moved by itself");
    // A last change: nothing stray came after the move.
    expectCaretIn(change(w, [&] { w.proc.send("focus Notes"); }), "focus Notes");
}

// A window whose top-left corner is off the screen (moved past the left edge, a header bar above
// the top) keeps its focus: every change sends the part of the widget on the screen.
TEST_F(AgentEndToEnd, WindowPastTheScreenEdgeKeepsItsFocus) {
    TestWindow& w = startWindow();
    ASSERT_NO_FATAL_FAILURE(startAgent(w));
    for (const auto& [x, y] : {std::pair{-60, 100}, std::pair{150, -30}}) {
        const std::string at = " at " + std::to_string(x) + "," + std::to_string(y);
        ASSERT_NO_FATAL_FAILURE(moveWindow(w, x, y));
        expectArea(w.expected(), "the window moved" + at);
        for (const char* command :
             {"focus Second", "focus Check me", "focus Radio B", "focus Row 2", "unfocus"}) {
            expectArea(change(w, [&] { w.proc.send(command); }), command + at);
        }
        // Nothing focused: the last report is the frame, whose corner must be off the screen
        // for this to test anything.
        const FocusReport frame = w.reports().back();
        ASSERT_EQ(frame.name, "(window)");
        EXPECT_TRUE(frame.x < w.screenX || frame.y < w.screenY)
            << "the window manager kept the window" << at << " on the screen: " << frame.x << ","
            << frame.y;
        expectArea(change(w, [&] { w.proc.send("focus First"); }), "focus First" + at);
    }
}

TEST_F(AgentEndToEnd, HungApplicationDoesNotHoldTheAgentFromAnother) {
    TestWindow& hung = startWindow();
    TestWindow& other = startWindow();
    // Apart, so that their areas differ.
    ASSERT_NO_FATAL_FAILURE(moveWindow(other, 640, 300));
    ASSERT_NO_FATAL_FAILURE(startAgent(other));

    ASSERT_NO_FATAL_FAILURE(activate(hung));
    expectArea(hung.expected(), "the first window activated");
    expectArea(change(hung, [&] { tab(); }), "Tab in the first window");

    // Stopped while the agent follows it: the agent runs into it on its next read.
    hung.proc.signal(SIGSTOP);
    EXPECT_TRUE(waitFor(
        all(), [&] { return !stalls().empty(); }, kPatience))
        << "the agent never waited on the stopped window (nothing tested)";

    const auto activated = Clock::now();
    ASSERT_NO_FATAL_FAILURE(activate(other));
    // The read that found the window stopped left its focus without bounds.
    const auto arrived = expectArea(other.expected(), "the other window activated", true);
    EXPECT_LT(secondsBetween(activated, arrived), 1.0);
    for (int i = 0; i < 3; ++i) {
        const size_t at = other.proc.out.lines.size();
        const Area want = change(other, [&] { tab(); });
        const auto sent = other.proc.out.times[at];
        EXPECT_LT(secondsBetween(sent, expectFocusArea(other, want, "Tab in the other window")), 0.5)
            << "the agent lagged behind the other window";
    }

    hung.proc.signal(SIGCONT);
    ASSERT_NO_FATAL_FAILURE(activate(hung));
    expectArea(hung.expected(), "the first window again after SIGCONT");
    expectFocusArea(hung, change(hung, [&] { tab(); }), "Tab in the first window after SIGCONT");

    const auto all = stalls();
    const int longest = all.empty() ? 0 : *std::max_element(all.begin(), all.end());
    EXPECT_LE(longest, 250) << "the main loop was held longer than 0.25 s\n" << agentLog();
}

TEST_F(AgentEndToEnd, ApplicationQuittingWhileFocusedLeavesTheAgentFollowing) {
    TestWindow& other = startWindow();
    ASSERT_NO_FATAL_FAILURE(moveWindow(other, 640, 300));
    TestWindow& quitting = startWindow();
    ASSERT_NO_FATAL_FAILURE(startAgent(quitting));
    expectArea(change(quitting, [&] { tab(); }), "Tab before quitting");

    // Quits in order, then is killed outright, each time with the focus.
    for (const char* how : {"quit", "SIGKILL"}) {
        TestWindow& going = std::string(how) == "quit" ? quitting : startWindow();
        if (&going != &quitting) expectArea(going.expected(), "a new window");
        if (std::string(how) == "quit")
            going.proc.send("quit");
        else
            going.proc.signal(SIGKILL);
        ASSERT_TRUE(waitFor(
            all(), [&] { return !going.proc.running(); }, kPatience));
        ASSERT_NO_FATAL_FAILURE(activate(other));
        // The focus went with the window: "none" may come before the next.
        expectArea(other.expected(), std::string("the remaining window after ") + how, true);
        expectFocusArea(other, change(other, [&] { tab(); }), std::string("Tab after ") + how);
    }
}

// Where the agent must put the text cursor for one position.
enum class CaretRule {
    // On GTK's cursor: x within 2 px, the vertical spans overlapping.
    AtCursor,
    // At the start of a line with no character to place the mark by (after a final new line)
    // the agent's rule takes the line before the insertion line on purpose: the mark goes to
    // that line's start, not to GTK's cursor.
    PreviousLineStart,
    // An empty field has no character to place it by: the agent's mark 4 px inside the field's
    // left edge, 1x17 with its bottom 20 px below the field's top.
    EmptyField,
};

struct CaretStep {
    const char* action;  // a window command, or "key ..." typed through the X server
    const char* widget;
    int offset;  // where GTK's cursor lands
    CaretRule rule = CaretRule::AtCursor;
    int lineStart = 0;  // PreviousLineStart: the offset of that line's start
};

// Every place the cursor can stand in a line of text, in the text area and in the text field,
// each checked against GTK's own cursor rectangle (the window's caret lines). Each step lands
// somewhere other than the step before, and only an area newer than the step counts.
TEST_F(AgentEndToEnd, TextCursorFollowsGtksOwnCursor) {
    TestWindow& w = startWindow();
    ASSERT_NO_FATAL_FAILURE(startAgent(w));
    w.proc.send("notes alpha beta\\n\\ngamma\\n");
    w.proc.send("text hello world");
    w.proc.send("sync");
    ASSERT_TRUE(waitFor(
        all(),
        [&] { return std::count(w.proc.out.lines.begin(), w.proc.out.lines.end(), "synced"); },
        kPatience));

    const std::vector<CaretStep> steps = {
        {"caret Notes 3", "Notes", 3},  // middle of a line
        {"key Home", "Notes", 0},
        {"key End", "Notes", 10},         // end of a line, before its new line
        {"caret Notes 12", "Notes", 12},  // after a new line
        {"caret Notes 11", "Notes", 11},  // an empty line: GTK places its new line
        {"caret Notes 17", "Notes", 17},
        {"caret Notes 18", "Notes", 18, CaretRule::PreviousLineStart, 12},  // end, after a new line
        {"caret Notes 2", "Notes", 2},
        {"key shift+Right shift+Right shift+Right", "Notes", 5},  // selection extended right
        {"caret Notes 9", "Notes", 9},
        {"select Notes 9 4", "Notes", 4},  // extended left
        {"caret Name field 4", "Name field", 4},
        {"key Home", "Name field", 0},
        {"key End", "Name field", 11},  // end of text
        {"select Name field 5 8", "Name field", 8},
        {"caret Name field 6", "Name field", 6},
        {"key shift+Left shift+Left shift+Left", "Name field", 3},
        {"text", "Name field", 0, CaretRule::EmptyField},
    };
    auto toAgent = [&](int x, int y, int width, int height) {
        return Area{x - w.screenX, w.screenHeight - (y - w.screenY) - height, width, height};
    };
    auto lastCaret = [&](const std::string& widget, int offset, size_t from) {
        std::optional<CaretReport> found;
        for (size_t i = from; i < w.proc.out.lines.size(); ++i)
            if (auto c = parseCaret(w.proc.out.lines[i]);
                c && c->name == widget && c->offset == offset)
                found = c;
        return found;
    };
    for (const CaretStep& s : steps) {
        const std::string what =
            std::string(s.action) + " (" + s.widget + " at " + std::to_string(s.offset) + ")";
        const size_t lines = w.proc.out.lines.size(), areas = agent_.out.lines.size();
        if (std::string_view(s.action).starts_with("key ")) {
            std::vector<std::string> argv{"xdotool", "key"};
            std::istringstream keys(s.action + 4);
            for (std::string k; keys >> k;) argv.push_back(k);
            ASSERT_EQ(runTool(argv), 0);
        } else {
            w.proc.send(s.action);
            // Emptied, the field is given its cursor again: the window reports it then.
            if (s.rule == CaretRule::EmptyField) w.proc.send("caret Name field 0");
        }
        std::optional<CaretReport> caret;
        ASSERT_TRUE(waitFor(
            all(), [&] { return (caret = lastCaret(s.widget, s.offset, lines)).has_value(); },
            kPatience))
            << "the window reported no cursor for " << what;

        Area gtk = toAgent(caret->x, caret->y, caret->width, caret->height);
        std::ostringstream want;
        std::function<bool(const Area&)> ok;
        if (s.rule == CaretRule::EmptyField) {
            FocusReport field;
            for (const auto& r : w.reports())
                if (r.name == s.widget) field = r;
            const Area f = toAgent(field.x, field.y, field.width, field.height);
            const Area mark{f.x + 4, f.y + f.height - 20, 1, 17};
            want << "the empty field's mark " << mark;
            ok = [mark](const Area& a) {
                return a.x == mark.x && a.y == mark.y && a.width == 1 && a.height == 17;
            };
        } else {
            if (s.rule == CaretRule::PreviousLineStart) {
                const auto start = lastCaret(s.widget, s.lineStart, 0);
                ASSERT_TRUE(start) << "no cursor was reported at the line's start";
                gtk = toAgent(start->x, start->y, start->width, start->height);
                want << "(the agent's rule: the line before's start) ";
            }
            want << "a 1-wide mark within 2 px of GTK's cursor at " << gtk;
            ok = [gtk](const Area& a) {
                return a.width == 1 && std::abs(a.x - gtk.x) <= 2 && a.y < gtk.y + gtk.height &&
                       gtk.y < a.y + a.height;
            };
        }
        std::optional<Area> last;
        const bool followed = waitFor(
            all(),
            [&] {
                for (size_t i = areas; i < agent_.out.lines.size(); ++i)
                    if (auto a = parseArea(agent_.out.lines[i])) last = a;
                return last && ok(*last);
            },
            kPatience);
        std::ostringstream got;
        if (last) got << *last;
        EXPECT_TRUE(followed) << what << ": the agent's last area is "
                              << (last ? got.str() : "none since") << " where " << want.str()
                              << " was due";
    }
}

}  // namespace
}  // namespace orv::e2e
