// The whole focus road on a real desktop: the agent follows the GTK test window through AT-SPI
// and the magnifier stand-in must hear one focus area per focus change, equal to the extents the
// window itself reports from GTK, turned to the agent's bottom-left origin. Run inside
// tests/platform/linux/desktop-session.sh; elsewhere every test skips.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <sstream>
#include <string_view>

#include "EndToEndProcesses.h"

namespace orv::e2e {
namespace {

#if defined(ORV_GTK_TESTAPP) && defined(ORV_AGENT_EXE) && defined(ORV_VISOR_EXE)
constexpr bool kBuilt = true;
const char* const kTestApp = ORV_GTK_TESTAPP;
const char* const kAgent = ORV_AGENT_EXE;
const char* const kVisor = ORV_VISOR_EXE;
#else
constexpr bool kBuilt = false;
const char* const kTestApp = "";
const char* const kAgent = "";
const char* const kVisor = "";
#endif

// The test window's editable text widgets (the password field shows no cursor to follow).
bool isTextWidget(const std::string& name) {
    return name == "Name field" || name == "Notes";
}

// Bound on every wait for something the desktop should do at once.
constexpr double kPatience = 5;

double secondsBetween(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

// The test window with its focus reports.
class TestWindow {
  public:
    Child proc;
    int screenX = 0, screenY = 0, screenHeight = 0;
    std::string xid;

    std::vector<FocusReport> reports() const {
        std::vector<FocusReport> out;
        for (const auto& l : proc.out.lines)
            if (auto r = parseReport(l)) out.push_back(*r);
        return out;
    }
    size_t focusChanges() const {
        size_t n = 0;
        for (const auto& r : reports()) n += r.kind == "focus";
        return n;
    }
    // Where the agent should put the focus now: the last report, in agent coordinates, with the
    // edges and source of the tracker chosen for the widget's role. Past the screen's left or
    // bottom edge only the part on the screen counts.
    Area expected() const {
        auto all = reports();
        if (all.empty()) return {};
        const FocusReport& r = all.back();
        Area a{
            r.x - screenX, screenHeight - (r.y - screenY) - r.height, r.width, r.height, 0, 0, 2};
        if (a.x < 0) a.width += a.x, a.x = 0;
        if (a.y < 0) a.height += a.y, a.y = 0;
        if (r.name == "Check me" || r.name == "Radio A" || r.name == "Radio B") a.edgeX = 2;
        if (r.name == "(window)") a.edgeY = 1, a.source = 6;
        return a;
    }
    std::string focusName() const {
        auto all = reports();
        return all.empty() ? std::string() : all.back().name;
    }
};

class AgentEndToEnd : public ::testing::Test {
  protected:
    void SetUp() override {
        const bool inSession = std::getenv("ORV_DESKTOP_SESSION") != nullptr;
        if (!inSession)
            GTEST_SKIP() << "not inside tests/platform/linux/desktop-session.sh: the agent would "
                            "follow the user's own desktop";
        if (!kBuilt)
            FAIL() << "built without the GTK test window, the agent or the visor (GTK 3 and "
                      "libatspi development files are needed)";
        if (runTool({"xdotool", "version"}) != 0) FAIL() << "xdotool is missing";
        std::string why;
        ASSERT_TRUE(visor_.start({kVisor, "--port", "0", "--json", "--no-input"}, false, &why))
            << why;
        ASSERT_TRUE(waitFor(
            all(), [&] { return port_ = visorPort(), !port_.empty(); }, kPatience))
            << "the visor did not say where it listens";
    }

    void TearDown() override {
        if (HasFailure()) {
            std::string log = "agent:\n" + agentLog();
            for (auto& w : windows_) {
                log += "window " + w->xid + ":\n";
                for (const auto& l : w->proc.out.lines) log += l + "\n";
            }
            log += "visor:\n";
            for (const auto& l : visor_.out.lines) log += l + "\n";
            std::fputs(log.c_str(), stderr);
        }
        // The agent must still be there, and end in order when asked.
        if (agentStarted_) {
            EXPECT_TRUE(agent_.running())
                << "the agent ended by itself: status " << agent_.status().value_or(-1) << "\n"
                << agentLog();
            agent_.signal(SIGTERM);
            EXPECT_TRUE(waitFor(
                all(), [&] { return !agent_.running(); }, kPatience));
            if (auto st = agent_.status()) {
                EXPECT_TRUE(WIFEXITED(*st) && WEXITSTATUS(*st) == 0)
                    << "the agent did not end in order: status " << *st;
            }
        }
        agent_.kill();
        windows_.clear();
    }

    std::vector<Child*> all() {
        std::vector<Child*> out{&visor_, &agent_};
        for (auto& w : windows_) out.push_back(&w->proc);
        return out;
    }

    std::string visorPort() const {
        for (const auto& l : visor_.err.lines)
            if (auto at = l.find("listening on 127.0.0.1:"); at != std::string::npos)
                return l.substr(at + 23);
        return {};
    }

    std::string agentLog() const {
        std::string s;
        for (const auto& l : agent_.err.lines) s += l + "\n";
        return s;
    }

    TestWindow& startWindow() {
        windows_.push_back(std::make_unique<TestWindow>());
        TestWindow& w = *windows_.back();
        std::string why;
        EXPECT_TRUE(w.proc.start({kTestApp, "--report"}, true, &why)) << why;
        auto has = [&w](const char* prefix) {
            return std::any_of(w.proc.out.lines.begin(), w.proc.out.lines.end(),
                               [&](const std::string& l) { return l.rfind(prefix, 0) == 0; });
        };
        EXPECT_TRUE(waitFor(
            all(), [&] { return has("ready") && has("xid ") && has("screen "); }, kPatience))
            << "the test window did not show";
        for (const auto& l : w.proc.out.lines) {
            int sx, sy, sw, sh;
            if (std::sscanf(l.c_str(), "screen %d %d %d %d", &sx, &sy, &sw, &sh) == 4)
                w.screenX = sx, w.screenY = sy, w.screenHeight = sh;
            if (l.rfind("xid ", 0) == 0) w.xid = l.substr(4);
        }
        return w;
    }

    // Starts the agent and waits until it has connected and decided the focus of `front`.
    void startAgent(const TestWindow& front) {
        std::string why;
        agentStarted_ =
            agent_.start({kAgent, "--desktop=linux", "--magnifier-port", port_, "--print-focus",
                          "--verbosity", "3", "--report-stalls", "100"},
                         false, &why);
        ASSERT_TRUE(agentStarted_) << why;
        const Area want = front.expected();
        auto connected = [&] {
            return std::any_of(agent_.err.lines.begin(), agent_.err.lines.end(),
                               [](const std::string& l) {
                                   return l.find("Established connection") != std::string::npos;
                               });
        };
        auto decided = [&] {
            return std::any_of(agent_.out.lines.begin(), agent_.out.lines.end(),
                               [&](const std::string& l) { return parseArea(l) == want; });
        };
        ASSERT_TRUE(waitFor(
            all(), [&] { return connected() && decided(); }, kPatience))
            << "the agent did not connect and take the focus " << want << "\n"
            << agentLog();
        // The area decided at start-up may or may not have made it onto the link.
        for (; seen_ < visor_.out.lines.size(); ++seen_) {
            if (auto a = parseArea(visor_.out.lines[seen_])) {
                EXPECT_EQ(*a, want) << "at start-up";
            }
        }
    }

    // Does `action`, waits for the window to report a focus change; the area to expect.
    Area change(TestWindow& w, const std::function<void()>& action) {
        const size_t before = w.focusChanges();
        action();
        EXPECT_TRUE(waitFor(
            all(), [&] { return w.focusChanges() > before; }, kPatience))
            << "the window reported no focus change";
        return w.expected();
    }

    // The next areas at the magnifier, up to one equal to `want`: every other one is an error,
    // but for one all-zero area ("no visible focus") where `zeroMayComeFirst` says the focus
    // really was gone. Returns when the wanted one arrived (or the bound passed).
    Clock::time_point expectArea(const Area& want, const std::string& what,
                                 bool zeroMayComeFirst = false) {
        std::ostringstream wanted;
        wanted << want;
        return expectAreaWhere([&](const Area& a) { return a == want; }, wanted.str(), what,
                               zeroMayComeFirst);
    }

    // A text widget's focus is its text cursor: a 1-point-wide mark from the cursor trackers,
    // inside the widget. GTK's own caret place is not reported by the test window, so the test
    // holds the agent to the widget it is in, not to the exact character.
    Clock::time_point expectCaretIn(const Area& field, const std::string& what) {
        std::ostringstream wanted;
        wanted << "a cursor mark inside " << field;
        return expectAreaWhere(
            [&](const Area& a) {
                return a.width == 1 && a.height > 0 && (a.source == 1 || a.source == 8) &&
                       a.x >= field.x && a.x < field.x + field.width && a.y >= field.y &&
                       a.y + a.height <= field.y + field.height;
            },
            wanted.str(), what);
    }

    // The area due for the window's focused widget: its extents, or a cursor inside a text widget.
    Clock::time_point expectFocusArea(const TestWindow& w, const Area& want,
                                      const std::string& what) {
        return isTextWidget(w.focusName()) ? expectCaretIn(want, what) : expectArea(want, what);
    }

    Clock::time_point expectAreaWhere(const std::function<bool(const Area&)>& matches,
                                      const std::string& want, const std::string& what,
                                      bool zeroMayComeFirst = false) {
        const double seconds = kPatience;
        Clock::time_point arrived{};
        bool found = false;
        waitFor(
            all(),
            [&] {
                for (; !found && seen_ < visor_.out.lines.size(); ++seen_) {
                    auto a = parseArea(visor_.out.lines[seen_]);
                    if (!a) continue;
                    if (matches(*a)) {
                        found = true;
                        arrived = visor_.out.times[seen_];
                    } else if (zeroMayComeFirst && *a == Area{}) {
                        zeroMayComeFirst = false;
                    } else {
                        ADD_FAILURE()
                            << "area " << *a << " where " << want << " (" << what << ") was due";
                    }
                }
                return found;
            },
            seconds);
        EXPECT_TRUE(found) << "no area " << want << " for " << what << "\n" << agentLog();
        return arrived;
    }

    // Moves the window (through xdotool, or asking the window) and waits until it has moved.
    void moveWindow(TestWindow& w, int x, int y, bool byAnotherClient = false) {
        const size_t before = w.reports().size();
        if (byAnotherClient) {
            ASSERT_EQ(
                runTool({"xdotool", "windowmove", w.xid, std::to_string(x), std::to_string(y)}), 0);
        } else {
            w.proc.send("move " + std::to_string(x) + " " + std::to_string(y));
        }
        ASSERT_TRUE(waitFor(
            all(),
            [&] {
                auto r = w.reports();
                return r.size() > before && r.back().kind == "at";
            },
            kPatience))
            << "the window did not move";
    }

    void tab() { ASSERT_EQ(runTool({"xdotool", "key", "Tab"}), 0); }
    void activate(const TestWindow& w) {
        ASSERT_EQ(runTool({"xdotool", "windowactivate", "--sync", w.xid}), 0);
    }

    // Stalls the agent reported, in milliseconds.
    std::vector<int> stalls() const {
        std::vector<int> out;
        for (const auto& l : agent_.err.lines) {
            int ms = 0;
            if (std::sscanf(l.c_str(), "ocuvane-agent: main loop stalled for %d ms", &ms) == 1)
                out.push_back(ms);
        }
        return out;
    }

    Child visor_, agent_;
    bool agentStarted_ = false;
    std::string port_;
    size_t seen_ = 0;
    std::vector<std::unique_ptr<TestWindow>> windows_;
};

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
