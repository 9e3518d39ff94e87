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

TEST_F(LinuxDesktopTest, TabMovesFocusToTheWidgetWithTheFocusedState) {
    AXUIElementRef app = ax().createApplication(appPid());
    AXUIElementRef first = waitForTitle(*this, "First");
    focus("First");
    ASSERT_TRUE(
        waitUntil([&] { return axEqual(elementAttr(ax(), app, "AXFocusedUIElement"), first); }, 5));
    ASSERT_EQ(runTool({"xdotool", "key", "Tab"}), 0);
    AXUIElementRef focused;
    ASSERT_TRUE(waitUntil(
        [&] {
            focused = elementAttr(ax(), app, "AXFocusedUIElement");
            return focused && !axEqual(focused, first);
        },
        5));
    EXPECT_EQ(stringAttr(ax(), focused, "AXTitle"), "Second");
    // The answer must be the one object AT-SPI itself marks focused.
    auto* el = linuxdesk::asAtspi(focused);
    ASSERT_TRUE(el && el->accessible());
    AtspiStateSet* states = atspi_accessible_get_state_set(el->accessible());
    ASSERT_TRUE(states);
    EXPECT_TRUE(atspi_state_set_contains(states, ATSPI_STATE_FOCUSED));
    g_object_unref(states);
    AXValue wasFocused;
    ASSERT_EQ(ax().copyAttributeValue(first, "AXFocused", &wasFocused), kAXErrorSuccess);
    EXPECT_EQ(wasFocused, AXValue(false));
}

TEST_F(LinuxDesktopTest, AFocusFoundByAReadBeforeItsFocusInIsStillTold) {
    // A poll that reads the focus between GTK moving it and the backend handling the focus-in
    // finds the new widget by searching; its focus-in must still be told, or the magnifier stays
    // on the old widget.
    app_ = std::make_unique<TestApp>(*platform_);  // one that tells when GTK has moved the focus
    std::string why;
    ASSERT_TRUE(app_->start(&why, {"--report"})) << why;
    AXUIElementRef app = ax().createApplication(appPid());
    AXUIElementRef first = waitForTitle(*this, "First");
    AXUIElementRef second = waitForTitle(*this, "Second");
    ASSERT_TRUE(first && second);
    focus("First");
    ASSERT_TRUE(
        waitUntil([&] { return axEqual(elementAttr(ax(), app, "AXFocusedUIElement"), first); }, 5));
    // The new window may take a moment to become active; until then GTK moves its focus widget
    // without any widget showing the focused state.
    ASSERT_TRUE(waitUntil(
        [&] {
            AtspiAccessible* raw = linuxdesk::asAtspi(first)->accessible();
            atspi_accessible_clear_cache(raw);
            AtspiStateSet* states = atspi_accessible_get_state_set(raw);
            const bool has = states && atspi_state_set_contains(states, ATSPI_STATE_FOCUSED);
            if (states) g_object_unref(states);
            return has;
        },
        5))
        << "the window never became active";
    int toldSecond = 0;
    AXObserverRef observer;
    ASSERT_EQ(ax().createObserver(
                  appPid(),
                  [&](AXObserver&, const AXUIElementRef& e, const std::string&, void*) {
                      if (axEqual(e, second)) ++toldSecond;
                  },
                  &observer),
              kAXErrorSuccess);
    ASSERT_EQ(observer->addNotification(app, "AXFocusedUIElementChanged", nullptr),
              kAXErrorSuccess);
    observer->attachToMainLoop();

    // The moment between the backend receiving a focus-in and handling it on its next turn, with
    // a poll reading the focus in between. The main loop does not turn here: GTK's own events
    // wait, the focus-in is handed over as libatspi would, and libatspi's cached states are
    // dropped so that the read sees what GTK says now.
    app_->send("focus Second");
    ASSERT_TRUE(app_->awaitOutput("focus Second ", 5)) << "GTK never moved the focus";
    AtspiAccessible* rawFirst = linuxdesk::asAtspi(first)->accessible();
    AtspiAccessible* rawSecond = linuxdesk::asAtspi(second)->accessible();
    atspi_accessible_clear_cache(rawSecond);
    AtspiEvent focusIn{};
    focusIn.type = const_cast<gchar*>("object:state-changed:focused");
    focusIn.source = rawSecond;
    focusIn.detail1 = 1;
    auto desktop = linuxdesk::atspiDesktopOf(*platform_);
    desktop->onEvent(&focusIn);
    atspi_accessible_clear_cache(rawFirst);
    ASSERT_TRUE(axEqual(elementAttr(ax(), app, "AXFocusedUIElement"), second));
    ASSERT_EQ(toldSecond, 0) << "the focus-in was handled before the read";

    EXPECT_TRUE(waitUntil([&] { return toldSecond > 0; }, 5));
}

TEST_F(LinuxDesktopTest, FocusAnnouncedBeforeTheWidgetTakesItIsTheFocus) {
    // GtkListBox's way with its rows: the focus-in comes before the row has focus, and for a
    // while nothing in the window shows the focused state. Falling back to "no focus" there
    // sent the magnifier the whole window between two rows.
    AXUIElementRef app = ax().createApplication(appPid());
    AXUIElementRef first = waitForTitle(*this, "First");
    AXUIElementRef second = waitForTitle(*this, "Second");
    ASSERT_TRUE(first && second);
    focus("First");
    ASSERT_TRUE(
        waitUntil([&] { return axEqual(elementAttr(ax(), app, "AXFocusedUIElement"), first); }, 5));
    // GTK repeats a focus-in from an idle callback; on a loaded machine that can come after the
    // next command, a focus change of its own that this test is not about. Let it pass first.
    app_->send("sync");
    ASSERT_TRUE(app_->awaitOutput("synced", 5));
    auto desktop = linuxdesk::atspiDesktopOf(*platform_);
    ASSERT_TRUE(desktop);
    ASSERT_TRUE(linuxtest::waitForQuiet(
        *platform_, [&] { return desktop->stats().events; }, 0.3, 5));

    std::vector<std::string> readAtDelivery;
    AXObserverRef observer;
    ASSERT_EQ(ax().createObserver(
                  appPid(),
                  [&](AXObserver&, const AXUIElementRef&, const std::string&, void*) {
                      AXError err = kAXErrorSuccess;
                      AXUIElementRef f = elementAttr(ax(), app, "AXFocusedUIElement", &err);
                      readAtDelivery.push_back(f ? stringAttr(ax(), f, "AXTitle")
                                                 : "error " + std::to_string(err));
                  },
                  &observer),
              kAXErrorSuccess);
    ASSERT_EQ(observer->addNotification(app, "AXFocusedUIElementChanged", nullptr),
              kAXErrorSuccess);
    observer->attachToMainLoop();

    // GTK has not said yet whether the row is focused: libatspi holds no states for it.
    auto* el = linuxdesk::asAtspi(second);
    ASSERT_TRUE(el && el->accessible());
    atspi_accessible_clear_cache(el->accessible());
    app_->send("announce Second");
    ASSERT_TRUE(waitUntil([&] { return !readAtDelivery.empty(); }, 5));
    EXPECT_EQ(readAtDelivery.front(), "Second");
    // The widget takes focus for real: the same focus, nothing new to tell.
    ASSERT_TRUE(waitUntil(
        [&] {
            AtspiStateSet* states = atspi_accessible_get_state_set(el->accessible());
            const bool has = states && atspi_state_set_contains(states, ATSPI_STATE_FOCUSED);
            if (states) g_object_unref(states);
            return has;
        },
        5));
    EXPECT_TRUE(axEqual(elementAttr(ax(), app, "AXFocusedUIElement"), second));
    EXPECT_EQ(readAtDelivery, std::vector<std::string>{"Second"});

    // A focus-out with nothing focused after it is no focus, once the next focus-in could have
    // come; whoever read the focus that left meanwhile is told.
    const uint64_t answered = desktop->stats().transitAnswers;
    app_->send("unfocus");
    EXPECT_TRUE(waitUntil(
        [&] {
            AXError err = kAXErrorSuccess;
            return !elementAttr(ax(), app, "AXFocusedUIElement", &err) && err == kAXErrorNoValue;
        },
        5));
    EXPECT_GT(desktop->stats().transitAnswers, answered);
    EXPECT_TRUE(waitUntil(
        [&] { return readAtDelivery.back() == "error " + std::to_string(kAXErrorNoValue); }, 5));

    // Focus taken and left at once: GTK's second focus-in for the widget comes after its
    // focus-out, and kept it as the focus of a window where nothing had focus.
    const uint64_t stale = desktop->stats().staleFocusIns;
    app_->send("focus First\nunfocus");
    ASSERT_TRUE(waitUntil([&] { return desktop->stats().staleFocusIns > stale; }, 5));
    EXPECT_TRUE(waitUntil(
        [&] {
            AXError err = kAXErrorSuccess;
            return !elementAttr(ax(), app, "AXFocusedUIElement", &err) && err == kAXErrorNoValue;
        },
        5));
}

TEST_F(LinuxDesktopTest, NothingIsFocusedOnlyBetweenAFocusOutAndTheNextFocusIn) {
    // Toolkits say focus-out, and the next focus-in a few milliseconds later (GTK 3 page and
    // menu switches, GTK 4 popovers, Qt popups). Read in between, "no focus" sent the
    // magnifier to nothing (or to the whole window) and back.
    AXUIElementRef app = ax().createApplication(appPid());
    AXUIElementRef first = waitForTitle(*this, "First");
    AXUIElementRef second = waitForTitle(*this, "Second");
    ASSERT_TRUE(first && second);
    focus("First");
    ASSERT_TRUE(
        waitUntil([&] { return axEqual(elementAttr(ax(), app, "AXFocusedUIElement"), first); }, 5));
    app_->send("sync");
    ASSERT_TRUE(app_->awaitOutput("synced", 5));
    auto desktop = linuxdesk::atspiDesktopOf(*platform_);
    ASSERT_TRUE(linuxtest::waitForQuiet(
        *platform_, [&] { return desktop->stats().events; }, 0.3, 5));

    std::vector<std::string> told;
    AXObserverRef observer;
    ASSERT_EQ(ax().createObserver(
                  appPid(),
                  [&](AXObserver&, const AXUIElementRef& el, const std::string&, void*) {
                      told.push_back(stringAttr(ax(), el, "AXTitle"));
                  },
                  &observer),
              kAXErrorSuccess);
    ASSERT_EQ(observer->addNotification(app, "AXFocusedUIElementChanged", nullptr),
              kAXErrorSuccess);
    observer->attachToMainLoop();

    // Read as a poll would, all through the gap: never nothing, never a third thing.
    const uint64_t answered = desktop->stats().transitAnswers;
    app_->send("gap 60 Second");
    std::vector<std::string> reads;
    ASSERT_TRUE(waitUntil(
        [&] {
            AXError err = kAXErrorSuccess;
            AXUIElementRef f = elementAttr(ax(), app, "AXFocusedUIElement", &err);
            reads.push_back(f ? stringAttr(ax(), f, "AXTitle") : "error " + std::to_string(err));
            return f && axEqual(f, second);
        },
        5));
    for (const auto& r : reads) EXPECT_TRUE(r == "First" || r == "Second") << r;
    EXPECT_GT(desktop->stats().transitAnswers, answered) << "the gap was never read";
    ASSERT_TRUE(linuxtest::waitForQuiet(
        *platform_, [&] { return desktop->stats().events; }, 0.3, 5));
    EXPECT_EQ(told, std::vector<std::string>{"Second"});
}

TEST_F(LinuxDesktopTest, ATreeThatTellsOfItsCellFirstKeepsTheCellAsTheFocus) {
    // GTK 3 tells of a tree view's focused cell, then of the tree view's own focus-in (again, from
    // an idle callback, late on a busy machine): the magnifier stayed on the whole table.
    AXUIElementRef app = ax().createApplication(appPid());
    auto desktop = linuxdesk::atspiDesktopOf(*platform_);
    auto focusRole = [&] {
        AXUIElementRef f = elementAttr(ax(), app, "AXFocusedUIElement");
        return f ? stringAttr(ax(), f, "AXRole") : std::string();
    };
    std::vector<std::string> told;
    AXObserverRef observer;
    ASSERT_EQ(ax().createObserver(
                  appPid(),
                  [&](AXObserver&, const AXUIElementRef& el, const std::string&, void*) {
                      told.push_back(stringAttr(ax(), el, "AXRole"));
                  },
                  &observer),
              kAXErrorSuccess);
    ASSERT_EQ(observer->addNotification(app, "AXFocusedUIElementChanged", nullptr),
              kAXErrorSuccess);
    observer->attachToMainLoop();
    app_->send("tree");
    ASSERT_TRUE(waitUntil([&] { return focusRole() == "AXCell"; }, 10)) << focusRole();
    ASSERT_TRUE(linuxtest::waitForQuiet(
        *platform_, [&] { return desktop->stats().events; }, 0.3, 5));
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(told.back(), "AXCell");
    app_->send("retell-tree");
    ASSERT_TRUE(linuxtest::waitForQuiet(
        *platform_, [&] { return desktop->stats().events; }, 0.3, 5));
    EXPECT_EQ(told.back(), "AXCell") << ::testing::PrintToString(told);
    EXPECT_EQ(focusRole(), "AXCell");
}

TEST_F(LinuxDesktopTest, AFocusHiddenAsTheNextOneComesKeepsItsPlaceMeanwhile) {
    // Moving between the menus of a menu bar, GTK 3 hides the open menu, with no focus-out for
    // its item, and tells of the next menu's item a few milliseconds later. Readers still on the
    // old item (the same batch delivers its move first) found no place and sent "no focus".
    AXUIElementRef app = ax().createApplication(appPid());
    ASSERT_TRUE(waitForTitle(*this, "First"));
    auto desktop = linuxdesk::atspiDesktopOf(*platform_);
    AXUIElementRef last;
    std::vector<std::string> lost;
    int told = 0;
    AXObserverRef observer;
    ASSERT_EQ(ax().createObserver(
                  appPid(),
                  [&](AXObserver&, const AXUIElementRef& el, const std::string&, void*) {
                      AXValue pos;
                      const AXError e =
                          last ? ax().copyAttributeValue(last, "AXPosition", &pos) : kAXErrorSuccess;
                      if (e != kAXErrorSuccess)
                          lost.push_back(stringAttr(ax(), last, "AXTitle") + " " +
                                         std::to_string(e));
                      // As the agent does: where is the new focus?
                      ax().copyAttributeValue(el, "AXPosition", &pos);
                      last = el;
                      ++told;
                  },
                  &observer),
              kAXErrorSuccess);
    ASSERT_EQ(observer->addNotification(app, "AXFocusedUIElementChanged", nullptr),
              kAXErrorSuccess);
    observer->attachToMainLoop();
    app_->send("menu");
    ASSERT_TRUE(waitUntil([&] { return stringAttr(ax(), last, "AXTitle") == "Open"; }, 5));
    // Once laid out (GTK tells of the item before its menu is), as a reader that polls sees it.
    ASSERT_TRUE(waitUntil(
        [&] {
            AXValue pos;
            return ax().copyAttributeValue(last, "AXPosition", &pos) == kAXErrorSuccess;
        },
        5));
    ASSERT_TRUE(linuxtest::waitForQuiet(
        *platform_, [&] { return desktop->stats().events; }, 0.3, 5));
    lost.clear();
    app_->send("next-menu");
    ASSERT_TRUE(waitUntil([&] { return stringAttr(ax(), last, "AXTitle") == "Cut"; }, 5));
    EXPECT_TRUE(lost.empty()) << ::testing::PrintToString(lost);
    EXPECT_GE(told, 2);
}

TEST_F(LinuxDesktopTest, WindowActivatedAgainAnswersItsFocusWidgetAtOnce) {
    // GTK tells of a window's activation a turn before its focus widget's focus-in, and before
    // the window shows the ACTIVE state. A read in between answered "no focus", and the agent
    // told the magnifier so at every switch between applications.
    AXUIElementRef app = ax().createApplication(appPid());
    AXUIElementRef second = waitForTitle(*this, "Second");
    ASSERT_TRUE(second);
    focus("Second");
    ASSERT_TRUE(waitUntil(
        [&] { return axEqual(elementAttr(ax(), app, "AXFocusedUIElement"), second); }, 5));
    AXUIElementRef window = elementAttr(ax(), second, "AXTopLevelUIElement");
    ASSERT_TRUE(window);
    auto activate = [](pid_t pid) {
        return runTool({"xdotool", "search", "--all", "--onlyvisible", "--pid", std::to_string(pid),
                        "--name", "Ocuvane Test", "windowactivate", "--sync"});
    };
    TestApp other(*platform_);
    std::string why;
    ASSERT_TRUE(other.start(&why)) << why;
    ASSERT_EQ(activate(other.pid()), 0);
    ASSERT_TRUE(waitUntil(
        [&] { return platform_->workspace->frontmostApplication()->pid == other.pid(); }, 5));

    std::vector<std::string> readAtActivation;
    AXObserverRef observer;
    ASSERT_EQ(ax().createObserver(
                  appPid(),
                  [&](AXObserver&, const AXUIElementRef&, const std::string&, void*) {
                      AXError err = kAXErrorSuccess;
                      AXUIElementRef f = elementAttr(ax(), app, "AXFocusedUIElement", &err);
                      AXUIElementRef w = elementAttr(ax(), app, "AXFocusedWindow");
                      readAtActivation.push_back(
                          (f ? stringAttr(ax(), f, "AXTitle") : "error " + std::to_string(err)) +
                          (axEqual(w, window) ? " in its window" : " without a window"));
                  },
                  &observer),
              kAXErrorSuccess);
    ASSERT_EQ(observer->addNotification(app, "AXFocusedWindowChanged", nullptr), kAXErrorSuccess);
    observer->attachToMainLoop();
    // The main loop runs while the window manager switches, as the agent's does, so that GTK's
    // messages arrive in the turns they were sent in.
    pid_t tool = 0;
    const std::string pid = std::to_string(appPid());
    const char* argv[] = {"xdotool",   "search", "--all",        "--onlyvisible",  "--pid",
                          pid.c_str(), "--name", "Ocuvane Test", "windowactivate", nullptr};
    ASSERT_EQ(posix_spawnp(&tool, argv[0], nullptr, nullptr, const_cast<char**>(argv), environ), 0);
    EXPECT_TRUE(waitUntil([&] { return !readAtActivation.empty(); }, 5));
    waitpid(tool, nullptr, 0);
    ASSERT_FALSE(readAtActivation.empty());
    EXPECT_EQ(readAtActivation.front(), "Second in its window");
}

TEST_F(LinuxDesktopTest, NewWindowComesToTheFrontWithItsFocus) {
    // The activation of a new window is told once GTK has told of its focus widget too, so that
    // the agent does not send the window and then, a moment later, the widget.
    std::vector<std::string> readAtSwitch;
    auto conn = platform_->workspace->frontApplicationSwitched.connect([&](pid_t pid) {
        AXError err = kAXErrorSuccess;
        AXUIElementRef f =
            elementAttr(ax(), ax().createApplication(pid), "AXFocusedUIElement", &err);
        readAtSwitch.push_back(f ? stringAttr(ax(), f, "AXTitle") : "error " + std::to_string(err));
    });
    TestApp other(*platform_);
    std::string why;
    const bool started = other.start(&why);
    const bool switched = waitUntil([&] { return !readAtSwitch.empty(); }, 5);
    platform_->workspace->frontApplicationSwitched.disconnect(conn);
    ASSERT_TRUE(started) << why;
    ASSERT_TRUE(switched);
    EXPECT_EQ(readAtSwitch.front(), "First");
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
