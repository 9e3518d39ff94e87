// The AT-SPI backend against a real GTK3 window. Run inside
// tests/platform/linux/desktop-session.sh; elsewhere every test here skips.
// Built only with the backend: without libatspi's headers there is nothing to test.
#if __has_include(<atspi/atspi.h>)

#include <atspi/atspi.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <deque>
#include <set>
#include <thread>

#include "platform/linux/AtspiAccessibility.h"
#include "platform/linux/AtspiDesktop.h"
#include "platform/linux/LinuxDesktopSession.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/X11Displays.h"

extern char** environ;

namespace orv::linuxtest {
namespace {

using contract::elementAttr;
using contract::stringAttr;
using contract::waitForTitle;

// --- The shared contract ---------------------------------------------------------------------

TEST_F(LinuxDesktopTest, ContractRoles) {
    contract::checkRoles(*this);
}
TEST_F(LinuxDesktopTest, ContractFocusAndParents) {
    contract::checkFocusAndParents(*this);
}
TEST_F(LinuxDesktopTest, ContractBounds) {
    contract::checkBounds(*this);
}
TEST_F(LinuxDesktopTest, ContractFocusNotifications) {
    contract::checkFocusNotifications(*this);
}
TEST_F(LinuxDesktopTest, ContractGoneApplication) {
    contract::checkGoneApplication(*this);
}

// --- Linux specifics ---------------------------------------------------------------------------

TEST_F(LinuxDesktopTest, TextRolesAndSubroles) {
    struct Case {
        const char* title;
        const char* role;
        const char* subrole;
    };
    for (const Case& c : {Case{"Name field", "AXTextField", nullptr},
                          Case{"Password field", "AXTextField", "AXSecureTextField"},
                          Case{"Notes", "AXTextArea", nullptr}}) {
        AXUIElementRef e = waitForTitle(*this, c.title);
        ASSERT_TRUE(e) << c.title;
        EXPECT_EQ(stringAttr(ax(), e, "AXRole"), c.role) << c.title;
        AXValue sub;
        if (c.subrole) {
            ASSERT_EQ(ax().copyAttributeValue(e, "AXSubrole", &sub), kAXErrorSuccess);
            EXPECT_EQ(sub, AXValue(c.subrole));
        } else {
            EXPECT_EQ(ax().copyAttributeValue(e, "AXSubrole", &sub), kAXErrorNoValue) << c.title;
        }
    }
    AXUIElementRef notes = waitForTitle(*this, "Notes");
    EXPECT_EQ(stringAttr(ax(), notes, "AXValue"), "one\ntwo");
    AXValue count;
    ASSERT_EQ(ax().copyAttributeValue(notes, "AXNumberOfCharacters", &count), kAXErrorSuccess);
    EXPECT_EQ(count, AXValue(7));
}

TEST_F(LinuxDesktopTest, MovingTheWindowNotifiesAndMovesItsChildren) {
    AXUIElementRef button = waitForTitle(*this, "First");
    AXUIElementRef window = elementAttr(ax(), button, "AXTopLevelUIElement");
    ASSERT_TRUE(window);
    AXValue before;
    ASSERT_EQ(ax().copyAttributeValue(window, "AXPosition", &before), kAXErrorSuccess);
    AXValue buttonBefore;
    ASSERT_EQ(ax().copyAttributeValue(button, "AXPosition", &buttonBefore), kAXErrorSuccess);

    std::vector<AXUIElementRef> moved;
    AXObserverRef observer;
    ASSERT_EQ(ax().createObserver(
                  appPid(),
                  [&](AXObserver&, const AXUIElementRef& e, const std::string&, void*) {
                      moved.push_back(e);
                  },
                  &observer),
              kAXErrorSuccess);
    AXUIElementRef app = ax().createApplication(appPid());
    ASSERT_EQ(observer->addNotification(app, "AXWindowMoved", nullptr), kAXErrorSuccess);
    observer->attachToMainLoop();

    app_->send("move 300 200");
    Point now;
    ASSERT_TRUE(waitUntil(
        [&] {
            AXValue p;
            if (ax().copyAttributeValue(window, "AXPosition", &p) != kAXErrorSuccess) return false;
            now = *p.get<Point>();
            return now != *before.get<Point>();
        },
        5));
    EXPECT_TRUE(waitUntil([&] { return !moved.empty(); }, 5));
    if (!moved.empty()) {
        EXPECT_TRUE(axEqual(moved.back(), window));
    }
    // Children move with the window by the same offset.
    AXValue buttonAfter;
    ASSERT_EQ(ax().copyAttributeValue(button, "AXPosition", &buttonAfter), kAXErrorSuccess);
    const Point d1{now.x - before.get<Point>()->x, now.y - before.get<Point>()->y};
    const Point d2{buttonAfter.get<Point>()->x - buttonBefore.get<Point>()->x,
                   buttonAfter.get<Point>()->y - buttonBefore.get<Point>()->y};
    EXPECT_EQ(d1, d2);
}

TEST_F(LinuxDesktopTest, TheFocusedWindowMovingOrResizingComesFromTheXServer) {
    // GTK sends no bounds-changed when its window is moved: the X server's word is taken.
    auto* displays = dynamic_cast<linuxdesk::X11Displays*>(platform_->displays.get());
    ASSERT_TRUE(displays);
    int told = 0;
    struct Restore {
        linuxdesk::X11Displays* d;
        std::function<void()> saved;
        ~Restore() { d->onFocusedWindowMoved = saved; }
    } restore{displays, displays->onFocusedWindowMoved};
    displays->onFocusedWindowMoved = [&] { ++told; };
    const std::vector<std::string> window{"xdotool",       "search",      "--all",
                                          "--onlyvisible", "--pid",       std::to_string(appPid()),
                                          "--name",        "Ocuvane Test"};
    // A window that is gone by the time it is asked about (its application was killed) is
    // nobody's: Xlib's default would have ended the process.
    EXPECT_EQ(displays->topLevelOf(0x7ffffff0), 0u);
    for (const std::vector<std::string>& change :
         {std::vector<std::string>{"windowmove", "250", "120"},
          std::vector<std::string>{"windowsize", "500", "400"}}) {
        told = 0;
        std::vector<std::string> args = window;
        args.insert(args.end(), change.begin(), change.end());
        ASSERT_EQ(runTool(args), 0);
        EXPECT_TRUE(waitUntil([&] { return told > 0; }, 5)) << change[0];
    }

    // The front application's active window tells its observers.
    AXUIElementRef app = ax().createApplication(appPid());
    AXUIElementRef active = elementAttr(ax(), app, "AXFocusedWindow");
    ASSERT_TRUE(active);
    std::vector<std::string> seen;
    AXObserverRef observer;
    ASSERT_EQ(ax().createObserver(
                  appPid(),
                  [&](AXObserver&, const AXUIElementRef& e, const std::string& n, void*) {
                      if (axEqual(e, active)) seen.push_back(n);
                  },
                  &observer),
              kAXErrorSuccess);
    ASSERT_EQ(observer->addNotification(app, "AXWindowMoved", nullptr), kAXErrorSuccess);
    ASSERT_EQ(observer->addNotification(app, "AXWindowResized", nullptr), kAXErrorSuccess);
    observer->attachToMainLoop();
    linuxdesk::atspiDesktopOf(*platform_)->focusedWindowMoved();
    EXPECT_TRUE(waitUntil(
        [&] {
            return std::count(seen.begin(), seen.end(), "AXWindowMoved") &&
                   std::count(seen.begin(), seen.end(), "AXWindowResized");
        },
        5));
}

TEST_F(LinuxDesktopTest, ReallocationsInPlaceAreNoMoves) {
    // A text field taking focus is re-allocated on every frame of its style transition, each time
    // saying bounds-changed with the same rectangle: the agent re-read its focus each time.
    AXUIElementRef field = waitForTitle(*this, "Name field");
    ASSERT_TRUE(field);
    int fieldMoves = 0, fieldResizes = 0;
    AXObserverRef observer;
    ASSERT_EQ(ax().createObserver(
                  appPid(),
                  [&](AXObserver&, const AXUIElementRef& e, const std::string& n, void*) {
                      if (!axEqual(e, field)) return;
                      (n == "AXMoved" ? fieldMoves : fieldResizes)++;
                  },
                  &observer),
              kAXErrorSuccess);
    AXUIElementRef app = ax().createApplication(appPid());
    ASSERT_EQ(observer->addNotification(app, "AXMoved", nullptr), kAXErrorSuccess);
    ASSERT_EQ(observer->addNotification(app, "AXResized", nullptr), kAXErrorSuccess);
    observer->attachToMainLoop();
    auto desktop = linuxdesk::atspiDesktopOf(*platform_);
    const uint64_t dropped = desktop->stats().unchangedBounds;
    focus("Name field");
    ASSERT_TRUE(waitUntil([&] { return desktop->stats().unchangedBounds >= dropped + 5; }, 5))
        << "GTK did not re-allocate the focused field in place";
    EXPECT_LE(fieldMoves, 1);

    // A real change of size still tells.
    fieldResizes = 0;
    ASSERT_EQ(
        runTool({"xdotool", "search", "--all", "--onlyvisible", "--pid", std::to_string(appPid()),
                 "--name", "Ocuvane Test", "windowsize", "560", "480"}),
        0);
    EXPECT_TRUE(waitUntil([&] { return fieldResizes > 0; }, 5));
}

// Compares, on every focus change, where the seam says the focus and each of its ancestors are
// with what the application says when asked directly.
struct ChainChecker {
    explicit ChainChecker(AccessibilityAPI& api) : ax(api) {}
    AccessibilityAPI& ax;
    std::vector<std::string> mismatches;
    int checked = 0;
    void check(const AXUIElementRef& focus) {
        for (AXUIElementRef cur = focus; cur; cur = elementAttr(ax, cur, "AXParent")) {
            if (stringAttr(ax, cur, "AXRole") == "AXApplication") break;
            AXValue pos, size;
            if (ax.copyAttributeValue(cur, "AXPosition", &pos) != kAXErrorSuccess ||
                ax.copyAttributeValue(cur, "AXSize", &size) != kAXErrorSuccess)
                continue;
            AtspiComponent* c =
                atspi_accessible_get_component_iface(linuxdesk::asAtspi(cur)->accessible());
            AtspiRect* r =
                c ? atspi_component_get_extents(c, ATSPI_COORD_TYPE_SCREEN, nullptr) : nullptr;
            const Rect direct = r ? Rect(r->x, r->y, r->width, r->height) : Rect();
            if (Rect(*pos.get<Point>(), *size.get<Size>()) != direct)
                mismatches.push_back(stringAttr(ax, cur, "AXRole"));
            ++checked;
            g_free(r);
            if (c) g_object_unref(c);
        }
    }
};

TEST_F(LinuxDesktopTest, ANewFocusIsLocatedInOneRound) {
    // Where a new focus, its container and its window are is asked in one round as the focus-in
    // arrives (or was kept from an earlier focus); the readers then get exactly what the
    // application says.
    auto* access = dynamic_cast<linuxdesk::AtspiAccessibility*>(platform_->ax.get());
    ASSERT_TRUE(access);
    AXUIElementRef app = ax().createApplication(appPid());
    AXUIElementRef second = waitForTitle(*this, "Second");
    ASSERT_TRUE(second);
    ChainChecker chain(ax());
    AXObserverRef observer;
    ASSERT_EQ(ax().createObserver(
                  appPid(),
                  [&](AXObserver&, const AXUIElementRef& e, const std::string&, void*) {
                      chain.check(e);
                  },
                  &observer),
              kAXErrorSuccess);
    ASSERT_EQ(observer->addNotification(app, "AXFocusedUIElementChanged", nullptr),
              kAXErrorSuccess);
    observer->attachToMainLoop();
    const auto& extents = access->turnExtents();
    const uint64_t before = extents.requests() + extents.steadyHits();
    focus("Second");
    ASSERT_TRUE(waitUntil([&] { return chain.checked >= 3; }, 5));
    EXPECT_TRUE(chain.mismatches.empty()) << ::testing::PrintToString(chain.mismatches);
    // The button, its box and its window at least.
    EXPECT_GE(extents.requests() + extents.steadyHits() - before, 3u);
}

TEST_F(LinuxDesktopTest, KeptContainersAndWindowsFollowTheirMoves) {
    // A focus's container and window are kept across focus changes once the application is
    // heard saying bounds-changed: the next focus beside them costs one request. A window moved
    // on the X server, or a re-layout, is never answered from what was kept.
    auto* access = dynamic_cast<linuxdesk::AtspiAccessibility*>(platform_->ax.get());
    ASSERT_TRUE(access);
    AXUIElementRef app = ax().createApplication(appPid());
    AXUIElementRef first = waitForTitle(*this, "First");
    ASSERT_TRUE(first);
    const std::string bus = linuxdesk::asAtspi(first)->busName();
    ChainChecker chain(ax());
    auto isFocused = [&](const AXUIElementRef& e) {
        return axEqual(elementAttr(ax(), app, "AXFocusedUIElement"), e);
    };
    AXObserverRef observer;
    ASSERT_EQ(ax().createObserver(
                  appPid(),
                  [&](AXObserver&, const AXUIElementRef& e, const std::string& n, void*) {
                      if (n == "AXFocusedUIElementChanged") chain.check(e);
                  },
                  &observer),
              kAXErrorSuccess);
    ASSERT_EQ(observer->addNotification(app, "AXFocusedUIElementChanged", nullptr),
              kAXErrorSuccess);
    ASSERT_EQ(observer->addNotification(app, "AXMoved", nullptr), kAXErrorSuccess);
    observer->attachToMainLoop();
    const std::vector<std::string> window{"xdotool",       "search",      "--all",
                                          "--onlyvisible", "--pid",       std::to_string(appPid()),
                                          "--name",        "Ocuvane Test"};
    auto resize = [&](const char* w, const char* h) {
        std::vector<std::string> args = window;
        args.insert(args.end(), {"windowsize", w, h});
        return runTool(args);
    };
    const auto& extents = access->turnExtents();
    // GTK goes on re-allocating for a while after a resize; nothing is kept until it is done.
    auto settled = [&] {
        return linuxtest::waitForQuiet(
            *platform_, [&] { return extents.forgets(); }, 0.5, 10);
    };
    // A re-layout makes GTK say bounds-changed: from then on its moves are heard.
    ASSERT_EQ(resize("520", "620"), 0);
    ASSERT_TRUE(waitUntil([&] { return access->sharedDesktop()->hearsMoves(bus); }, 5));
    ASSERT_TRUE(settled());

    auto focusAndCheck = [&](const std::string& title) {
        const int was = chain.checked;
        app_->send("focus " + title);
        return waitUntil([&] { return chain.checked >= was + 3; }, 5);
    };
    ASSERT_TRUE(focusAndCheck(isFocused(first) ? "Second" : "First"));
    ASSERT_TRUE(focusAndCheck(isFocused(first) ? "Second" : "First"));
    ASSERT_TRUE(isFocused(first) || focusAndCheck("First"));
    EXPECT_GT(extents.steadyKept(), 0u);
    const uint64_t asked = extents.requests();
    ASSERT_TRUE(focusAndCheck("Second"));
    EXPECT_EQ(extents.requests() - asked, 1u) << "the button alone is asked for";
    EXPECT_TRUE(chain.mismatches.empty()) << ::testing::PrintToString(chain.mismatches);

    // Once the application stops answering, what was kept of it is not answered for either;
    // a position it answered before stands for it (a busy application jumped the focus to
    // nothing at every poll).
    AXUIElementRef win = elementAttr(ax(), first, "AXTopLevelUIElement");
    ASSERT_TRUE(win);
    ASSERT_GT(extents.steadyKept(), 0u);
    AXValue winBefore;
    ASSERT_EQ(ax().copyAttributeValue(win, "AXPosition", &winBefore), kAXErrorSuccess);
    app_->kill(SIGSTOP);
    AXError err = kAXErrorSuccess;
    for (const char* attr : {"AXPosition", "AXSize", "AXValue", "AXChildren"}) {
        AXValue v;
        err = ax().copyAttributeValue(first, attr, &v);
        if (err == kAXErrorCannotComplete) break;
    }
    EXPECT_EQ(err, kAXErrorCannotComplete);
    EXPECT_EQ(extents.steadyKept(), 0u);
    AXValue winPos;
    EXPECT_EQ(ax().copyAttributeValue(win, "AXPosition", &winPos), kAXErrorSuccess);
    EXPECT_EQ(winPos, winBefore);
    app_->kill(SIGCONT);

    // The window moves on the X server (GTK says nothing of it), then resizes (a re-layout).
    app_->send("move 260 140");
    ASSERT_TRUE(waitUntil(
        [&] {
            AtspiComponent* c =
                atspi_accessible_get_component_iface(linuxdesk::asAtspi(win)->accessible());
            AtspiRect* r =
                c ? atspi_component_get_extents(c, ATSPI_COORD_TYPE_SCREEN, nullptr) : nullptr;
            const bool there = r && r->x >= 250 && r->y >= 130;
            g_free(r);
            if (c) g_object_unref(c);
            return there;
        },
        5));
    ASSERT_TRUE(focusAndCheck("First"));
    ASSERT_EQ(resize("480", "660"), 0);
    ASSERT_TRUE(waitUntil([&] { return extents.steadyKept() == 0; }, 5));
    ASSERT_TRUE(focusAndCheck("Second"));
    EXPECT_TRUE(chain.mismatches.empty()) << ::testing::PrintToString(chain.mismatches);
}

TEST_F(LinuxDesktopTest, BoundsAreWhereTheWidgetIsOnScreen) {
    // A click at the centre of the reported bounds, made by the X server, toggles the check box:
    // the bounds are the widget's screen extents, not merely what AT-SPI says about itself.
    AXUIElementRef check = waitForTitle(*this, "Check me");
    ASSERT_TRUE(check);
    AXValue value, pos, size;
    ASSERT_EQ(ax().copyAttributeValue(check, "AXValue", &value), kAXErrorSuccess);
    EXPECT_EQ(value, AXValue(0));
    ASSERT_EQ(ax().copyAttributeValue(check, "AXPosition", &pos), kAXErrorSuccess);
    ASSERT_EQ(ax().copyAttributeValue(check, "AXSize", &size), kAXErrorSuccess);
    const Rect r(*pos.get<Point>(), *size.get<Size>());
    const Rect main = platform_->displays->displayBounds(platform_->displays->mainDisplayID());
    ASSERT_TRUE(main.contains(Point{r.midX(), r.midY()}));
    ASSERT_EQ(runTool({"xdotool", "mousemove", std::to_string(static_cast<int>(r.midX())),
                       std::to_string(static_cast<int>(r.midY())), "click", "1"}),
              0);
    EXPECT_TRUE(waitUntil(
        [&] {
            return ax().copyAttributeValue(check, "AXValue", &value) == kAXErrorSuccess &&
                   value == AXValue(1);
        },
        5));
}

TEST_F(LinuxDesktopTest, HungApplicationFailsWithinTheTimeout) {
    AXUIElementRef button = waitForTitle(*this, "First");
    ASSERT_TRUE(button);
    app_->kill(SIGSTOP);
    for (const char* attr : {"AXPosition", "AXChildren", "AXValue", "AXSize"}) {
        const double start = platform_->loop->now();
        AXValue v;
        const AXError err = ax().copyAttributeValue(button, attr, &v);
        const double took = platform_->loop->now() - start;
        EXPECT_TRUE(err == kAXErrorCannotComplete || err == kAXErrorAttributeUnsupported ||
                    (err == kAXErrorSuccess && took < 0.01))
            << attr << " answered " << err;
        EXPECT_LT(took, 0.3) << attr;
    }
    AXValue pos;
    EXPECT_EQ(ax().copyAttributeValue(button, "AXPosition", &pos), kAXErrorCannotComplete);
    app_->kill(SIGCONT);
    EXPECT_TRUE(waitUntil(
        [&] { return ax().copyAttributeValue(button, "AXPosition", &pos) == kAXErrorSuccess; },
        10));
}

TEST_F(LinuxDesktopTest, ElementsCompareByValueAndFocusReadsAreCheap) {
    AXUIElementRef first = waitForTitle(*this, "First");
    AXUIElementRef second = waitForTitle(*this, "Second");
    ASSERT_TRUE(first && second);
    AXUIElementRef p1 = elementAttr(ax(), first, "AXParent");
    AXUIElementRef p2 = elementAttr(ax(), second, "AXParent");
    ASSERT_TRUE(p1 && p2);
    EXPECT_NE(p1.get(), p2.get());
    EXPECT_TRUE(p1->equals(*p2));
    EXPECT_EQ(p1->hash(), p2->hash());
    EXPECT_FALSE(first->equals(*second));
    EXPECT_FALSE(first->equals(*ax().createSystemWide()));

    // Focus known from the events is answered without searching the window again.
    AXUIElementRef app = ax().createApplication(appPid());
    focus("Second");
    ASSERT_TRUE(waitUntil(
        [&] { return axEqual(elementAttr(ax(), app, "AXFocusedUIElement"), second); }, 5));
    auto desktop = linuxdesk::atspiDesktopOf(*platform_);
    ASSERT_TRUE(desktop);
    const uint64_t searches = desktop->stats().focusSearches;
    for (int i = 0; i < 50; ++i)
        EXPECT_TRUE(axEqual(elementAttr(ax(), app, "AXFocusedUIElement"), second));
    EXPECT_EQ(desktop->stats().focusSearches, searches);
}

TEST_F(LinuxDesktopTest, ReadsFromAnotherThreadRunOnTheMainLoop) {
    AXUIElementRef button = waitForTitle(*this, "First");
    ASSERT_TRUE(button);
    std::atomic<bool> done{false};
    AXError err = kAXErrorFailure;
    std::string role;
    std::thread poller([&] {
        // The element read here is also dropped here: its release must hop as well.
        AXValue v;
        err = ax().copyAttributeValue(button, "AXParent", &v);
        if (auto* parent = v.get<AXUIElementRef>()) role = stringAttr(ax(), *parent, "AXRole");
        done = true;
    });
    EXPECT_TRUE(waitUntil([&] { return done.load(); }, 5));
    poller.join();
    EXPECT_EQ(err, kAXErrorSuccess);
    EXPECT_EQ(role, "AXGroup");
}

TEST_F(LinuxDesktopTest, WorkspaceKnowsTheApplicationAndItsLaunch) {
    auto running = platform_->workspace->runningApplicationWithProcessIdentifier(appPid());
    ASSERT_TRUE(running);
    EXPECT_EQ(running->bundleIdentifier, "orv-gtk-testapp");
    auto front = platform_->workspace->frontmostApplication();
    ASSERT_TRUE(front);
    EXPECT_EQ(front->pid, appPid());
    AXValue frontmost;
    ASSERT_EQ(ax().copyAttributeValue(ax().createApplication(appPid()), "AXFrontmost", &frontmost),
              kAXErrorSuccess);
    EXPECT_EQ(frontmost, AXValue(true));

    std::vector<pid_t> launched, switched;
    auto c1 = platform_->workspace->didLaunchApplication.connect(
        [&](const RunningApplication& a) { launched.push_back(a.pid); });
    auto c2 = platform_->workspace->frontApplicationSwitched.connect(
        [&](pid_t pid) { switched.push_back(pid); });
    TestApp second(*platform_);
    std::string why;
    ASSERT_TRUE(second.start(&why)) << why;
    EXPECT_TRUE(waitUntil(
        [&] {
            return std::count(launched.begin(), launched.end(), second.pid()) == 1 &&
                   !switched.empty() && switched.back() == second.pid();
        },
        5));
    platform_->workspace->didLaunchApplication.disconnect(c1);
    platform_->workspace->frontApplicationSwitched.disconnect(c2);
    EXPECT_EQ(platform_->workspace->frontmostApplication()->pid, second.pid());
    EXPECT_EQ(
        platform_->workspace->runningApplicationsWithBundleIdentifier("orv-gtk-testapp").size(),
        2u);
}

TEST_F(LinuxDesktopTest, LaunchedProgramsArriveAsApplications) {
    std::vector<RunningApplication> launched;
    auto conn = platform_->workspace->didLaunchApplication.connect(
        [&](const RunningApplication& a) { launched.push_back(a); });
    std::string error;
    EXPECT_FALSE(platform_->workspace->launchApplication("/nonexistent/program", {}, &error));
    EXPECT_NE(error.find("/nonexistent/program"), std::string::npos);
    ASSERT_TRUE(platform_->workspace->launchApplication(ORV_GTK_TESTAPP, {"--no-stdin"}, &error))
        << error;
    EXPECT_TRUE(waitUntil([&] { return !launched.empty(); }, 10));
    platform_->workspace->didLaunchApplication.disconnect(conn);
    ASSERT_EQ(launched.size(), 1u);
    EXPECT_EQ(launched[0].bundleIdentifier, "orv-gtk-testapp");
    EXPECT_NE(launched[0].pid, appPid());
    if (launched[0].pid > 0) kill(launched[0].pid, SIGKILL);
}

TEST_F(LinuxDesktopTest, DisplaysAndPointerUseBottomLeftScreenCoordinates) {
    Displays& d = *platform_->displays;
    const Rect main = d.displayBounds(d.mainDisplayID());
    EXPECT_EQ(main.origin, (Point{0, 0}));
    ASSERT_GT(main.size.height, 0);
    auto frames = d.screenFrames();
    ASSERT_FALSE(frames.empty());
    EXPECT_EQ(frames.front(), Rect(0, 0, main.size.width, main.size.height));
    ASSERT_EQ(runTool({"xdotool", "mousemove", "100", "150"}), 0);
    EXPECT_EQ(d.mouseLocation(), (Point{100, main.size.height - 150}));
    Displays::DisplayID id = 0;
    uint32_t count = 0;
    EXPECT_EQ(d.getDisplaysWithPoint(Point{10, 10}, &id, &count), 0);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(id, d.mainDisplayID());
}

TEST_F(LinuxDesktopTest, GtkWidgetFactoryMapsItsRoles) {
    // A GTK application that is not ours: its widgets come out in the agent's vocabulary.
    pid_t pid = 0;
    {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        char arg0[] = "gtk3-widget-factory";
        char* argv[] = {arg0, nullptr};
        if (posix_spawnp(&pid, arg0, &actions, nullptr, argv, environ) != 0) pid = 0;
        posix_spawn_file_actions_destroy(&actions);
    }
    if (pid <= 0) GTEST_SKIP() << "gtk3-widget-factory is not installed";
    std::set<std::string> roles;
    AXUIElementRef app;
    waitUntil(
        [&] {
            app = ax().createApplication(pid);
            return stringAttr(ax(), app, "AXRole") == "AXApplication" &&
                   elementAttr(ax(), app, "AXFocusedUIElement") != nullptr;
        },
        15);
    std::deque<AXUIElementRef> queue{app};
    int budget = 3000;
    while (!queue.empty() && budget-- > 0) {
        AXUIElementRef e = queue.front();
        queue.pop_front();
        roles.insert(stringAttr(ax(), e, "AXRole"));
        AXValue kids;
        if (ax().copyAttributeValue(e, "AXChildren", &kids) == kAXErrorSuccess)
            for (const auto& k : *kids.get<AXArray>()) queue.push_back(*k.get<AXUIElementRef>());
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    for (const char* r : {"AXApplication", "AXWindow", "AXButton", "AXCheckBox", "AXRadioButton",
                          "AXTextField", "AXScrollBar", "AXGroup", "AXStaticText"})
        EXPECT_TRUE(roles.count(r)) << r;
    EXPECT_FALSE(roles.count("")) << "every element has a role";
}

// --- Without a session -------------------------------------------------------------------------

TEST(LinuxPlatformWithoutSession, SaysWhyNotWhenThereIsNoDisplay) {
    const char* saved = std::getenv("DISPLAY");
    std::string keep = saved ? saved : "";
    unsetenv("DISPLAY");
    std::string why;
    auto p = linuxdesk::makeLinuxPlatform(&why);
    if (saved) setenv("DISPLAY", keep.c_str(), 1);
    EXPECT_FALSE(p);
    EXPECT_NE(why.find("DISPLAY"), std::string::npos) << why;
}

TEST(LinuxPlatformWithoutSession, NoBusAddressMeansNoAccessibilityBus) {
    std::vector<std::pair<std::string, std::string>> saved;
    for (const char* name : {"AT_SPI_BUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS", "XDG_RUNTIME_DIR"}) {
        if (const char* v = std::getenv(name)) saved.emplace_back(name, v);
        unsetenv(name);
    }
    std::string why;
    EXPECT_FALSE(linuxdesk::detail::accessibilityBusConfigured(&why));
    EXPECT_NE(why.find("accessibility bus"), std::string::npos);
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    EXPECT_TRUE(linuxdesk::detail::accessibilityBusConfigured(nullptr));
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    for (auto& [k, v] : saved) setenv(k.c_str(), v.c_str(), 1);
}

}  // namespace
}  // namespace orv::linuxtest

#endif  // __has_include(<atspi/atspi.h>)
