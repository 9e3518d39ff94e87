// The bundled text-cursor scenarios played by the agent program as it ships, on virtual time:
// every --print-focus line must be the one the simulated text layout and the trackers' rules
// give. Each scenario's header explains its coordinates.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>

#include "app/AgentProcess.h"

namespace orv::test {
namespace {

constexpr double kPatience = 20;
// Poll-found changes arrive with the element's next poll, at most this long after the action.
constexpr double kPoll = 0.5;

// An area as "x y width height edgeX edgeY source", due at the action's time, or within one
// poll after it when only a poll can see the change.
struct Expected {
    double due;
    std::string area;
    bool polled = false;
};
Expected byPoll(double due, std::string area) {
    return {due, std::move(area), true};
}

struct AgentRun {
    std::vector<std::pair<double, std::string>> lines;  // time, area
    std::string log;
};

AgentRun play(const std::string& name) {
    AgentRun run;
    SilentMagnifier magnifier;
    AgentProcess agent;
    const std::string path = std::string(ORV_TESTS_DIR) + "/../scenarios/" + name;
    EXPECT_TRUE(agent.start({"--desktop=sim", "--scenario", path, "--print-focus",
                             "--magnifier-port", magnifier.portArgument(), "--verbosity", "3"}));
    const auto status = agent.waitExit(kPatience);
    EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0)
        << describeStatus(status);
    for (const auto& l : agent.err.lines) run.log += l + "\n";
    for (const auto& text : agent.out.lines) {
        double time;
        int v[7];
        const int n = std::sscanf(text.c_str(),
                                  "{\"time\":%lf,\"x\":%d,\"y\":%d,\"width\":%d,\"height\":%d,"
                                  "\"edgeX\":%d,\"edgeY\":%d,\"source\":%d}",
                                  &time, &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6]);
        EXPECT_EQ(n, 8) << "not a focus line: " << text;
        char area[96];
        std::snprintf(area, sizeof area, "%d %d %d %d %d %d %d", v[0], v[1], v[2], v[3], v[4], v[5],
                      v[6]);
        run.lines.emplace_back(time, area);
    }
    return run;
}

// The lines, one for one, in order, each in its time. The run is returned for more checks.
AgentRun expectLines(const std::string& name, const std::vector<Expected>& expected) {
    SCOPED_TRACE(name);
    AgentRun run = play(name);
    EXPECT_EQ(run.log.find("(skipped"), std::string::npos) << run.log;
    std::string got;
    for (const auto& [time, area] : run.lines) got += std::to_string(time) + ": " + area + "\n";
    EXPECT_EQ(run.lines.size(), expected.size()) << got;
    for (size_t i = 0; i < std::min(expected.size(), run.lines.size()); ++i) {
        const auto& [time, area] = run.lines[i];
        const Expected& e = expected[i];
        EXPECT_EQ(area, e.area) << "line " << i;
        EXPECT_GE(time, e.due - 1e-3) << "line " << i;
        EXPECT_LE(time, e.due + (e.polled ? kPoll : 0) + 1e-3) << "line " << i;
    }
    return run;
}

// Fields hold text at frame + (2, 2) in 8 x 16 cells; a caret is 1 x 16; y = 900 - top - height.
// Where no cursor is found the mark is (x + 4, top + 4, 1, 17) in top-left terms.
TEST(TextScenarios, TheCursorFollowsTypingSelectionsAndLineEnds) {
    expectLines("text-cursor.scn",
                {
                    {0, "126 782 1 16 0 0 1"},    // start-up: "Ada", right of cell 2
                    {1, "142 782 1 16 0 0 1"},    // "Ada L", caret 5
                    {1.5, "134 782 1 16 0 0 1"},  // backspace: "Ada ", caret 4
                    {2, "126 782 1 16 0 0 1"},    // shift-left: the start, 3, moved
                    {2.5, "118 782 1 16 0 0 1"},  // and again: 2
                    {3, "110 782 1 16 0 0 1"},    // caret 1
                    {3.5, "118 782 1 16 0 0 1"},  // shift-right: the end, 2, moved
                    {4, "134 782 1 16 0 0 1"},    // the end at the end of the text, 4
                    {4.5, "104 740 1 17 0 0 1"},  // the empty field [100 140 300 24]: the mark
                    {5, "118 742 1 16 0 0 1"},    // "Hi" typed there
                    {6, "102 682 1 16 0 0 1"},    // the body, caret 0
                    // After "Thanks.\n": the start of the line the newline closes, line 1.
                    {6.5, "102 666 1 16 0 0 1"},
                    {7, "110 650 1 16 0 0 1"},  // "P" typed on line 2
                    // Only the window moved, by 100: same place in the element, source 8.
                    {8, "210 650 1 16 0 0 8"},
                    // Focus back in "Ada " (selection 1-4, cursor 4), silently.
                    byPoll(8.2, "234 782 1 16 0 0 1"),
                    // The field moved silently to y 60; the cursor goes along.
                    byPoll(9.2, "234 822 1 16 0 0 8"),
                });
}

TEST(TextScenarios, AComboBoxListTakesFocusOncePerChange) {
    expectLines("combo-list.scn",
                {
                    {0, "126 782 1 16 0 0 1"},  // "Red", caret at the end
                    // The first entry, [100 124 200 20] under the box, by its left edge.
                    {1, "100 756 200 20 2 0 2"},
                    byPoll(1, "126 782 1 16 0 0 8"),  // the poll goes back to the cursor
                    {2, "100 716 200 20 2 0 2"},      // "Blue" picked: [100 164 200 20]
                    byPoll(2, "126 782 1 16 0 0 8"),
                    // Closed, then "Blue" with the caret after it, all silently.
                    byPoll(3.2, "134 782 1 16 0 0 1"),
                });
}

// "Rain at last" lies in [20 80 400 20], "Fields turn green" in [20 170 400 20].
TEST(TextScenarios, TheCaretInAPageIsFollowedWhenTheUserDefaultAllowsIt) {
    expectLines("web-caret.scn",
                {
                    {1.2, "62 802 1 16 0 0 1"},  // caret 5
                    {2.2, "94 802 1 16 0 0 1"},  // 5-9: the end moved
                    {3.2, "38 802 1 16 0 0 1"},  // 2-9: the start moved
                    // The tracker compares with the markers of its own last answer, so its next
                    // poll takes the unchanged selection for one whose end moved.
                    byPoll(3.2, "94 802 1 16 0 0 1"),
                    {4.2, "0 0 0 0 0 0 0"},      // a caret in the image: nowhere to show
                    {5.2, "78 712 1 16 0 0 1"},  // 20: offset 7 of the second run
                    {6.2, "54 852 1 16 0 0 1"},  // the search field, "rain", caret 4
                });
    // The same session with AllowFocusInAXWebArea=NO: the search field only.
    expectLines("web-caret-off.scn", {{6.2, "54 852 1 16 0 0 1"}});
}

TEST(TextScenarios, BadlyReportedTextStillPlacesTheCursorWhereItCan) {
    const AgentRun run = expectLines(
        "text-faults.scn",
        {
            {0, "102 782 1 16 0 0 1"},
            // Every range answers cell 0; the caret's own answer gives cell 2.
            {1.2, "118 782 1 16 0 0 1"},
            // Ranges reaching the end answer zeros: "home", caret 3, placed right of "m"...
            {2.2, "126 732 1 16 0 0 1"},
            // ... and at the very end nothing places it: the mark of [100 150 300 24].
            {3.2, "104 730 1 17 0 0 1"},
            // No selection, twice: the mark of [100 250 300 24], at the same offset in its
            // field as the last one, so source 8; then the poll finds caret 3.
            {4.2, "104 630 1 17 0 0 8"},
            byPoll(4.2, "126 632 1 16 0 0 1"),
            // A raising read: the mark of [100 300 400 200], then the poll finds caret 0.
            {5.2, "104 580 1 17 0 0 1"},
            byPoll(5.2, "102 582 1 16 0 0 1"),
        });
    const std::string said = "Error while computing text cursor bounds: ";
    const size_t first = run.log.find(said);
    ASSERT_NE(first, std::string::npos) << run.log;
    EXPECT_EQ(run.log.find(said, first + 1), std::string::npos) << "the fault lasts one read";
    EXPECT_NE(run.log.find("AXTextArea (Text) the view is being rebuilt\n", first),
              std::string::npos)
        << run.log;
}

}  // namespace
}  // namespace orv::test
