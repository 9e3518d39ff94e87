#pragma once

// The agent, the magnifier stand-in (visor) and the GTK test window run as processes for the
// end-to-end tests; inside tests/platform/linux/desktop-session.sh only, elsewhere they skip.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "EndToEndProcesses.h"

namespace orv::e2e {

#if defined(ORV_GTK_TESTAPP) && defined(ORV_AGENT_EXE) && defined(ORV_VISOR_EXE)
inline constexpr bool kBuilt = true;
inline const char* const kTestApp = ORV_GTK_TESTAPP;
inline const char* const kAgent = ORV_AGENT_EXE;
inline const char* const kVisor = ORV_VISOR_EXE;
#else
inline constexpr bool kBuilt = false;
inline const char* const kTestApp = "";
inline const char* const kAgent = "";
inline const char* const kVisor = "";
#endif

// The test window's editable text widgets (the password field shows no cursor to follow).
inline bool isTextWidget(const std::string& name) {
    return name == "Name field" || name == "Notes";
}

// Bound on every wait for something the desktop should do at once.
inline constexpr double kPatience = 5;

inline double secondsBetween(Clock::time_point a, Clock::time_point b) {
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

class AgentFixture : public ::testing::Test {
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

    // Starts the agent (with `extra` arguments) and waits until it has connected and decided the
    // focus of `front`.
    void startAgent(const TestWindow& front, const std::vector<std::string>& extra = {}) {
        std::string why;
        std::vector<std::string> argv{kAgent, "--desktop=linux", "--magnifier-port",
                                      port_,  "--print-focus",   "--verbosity",
                                      "3",    "--report-stalls", "100"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        agentStarted_ = agent_.start(argv, false, &why);
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

}  // namespace orv::e2e
