// Focus as the desktop backend keeps it, against the GTK test window: Tab, reads before the
// events, announcements before the focus, gaps between two focuses, trees, menus, windows. Run
// inside tests/platform/linux/desktop-session.sh; elsewhere every test here skips.
// Built only with the backend: without libatspi's headers there is nothing to test.
#if __has_include(<atspi/atspi.h>)

#include <atspi/atspi.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <functional>
#include <optional>

#include "platform/linux/AtspiAccessibility.h"
#include "platform/linux/AtspiDesktop.h"
#include "platform/linux/LinuxDesktopSession.h"
#include "platform/linux/LinuxPlatform.h"

extern char** environ;

namespace orv::linuxtest {
namespace {

using contract::elementAttr;
using contract::stringAttr;
using contract::waitForTitle;

// An attached observer of the application's notifications; null (after a test failure) when
// one could not be made or registered.
AXObserverRef observeApp(AccessibilityAPI& ax, pid_t pid, const AXUIElementRef& app,
                         std::initializer_list<const char*> notifications,
                         std::function<void(const AXUIElementRef&, const std::string&)> on) {
    AXObserverRef observer;
    const AXError made = ax.createObserver(
        pid,
        [on = std::move(on)](AXObserver&, const AXUIElementRef& el, const std::string& what,
                             void*) { on(el, what); },
        &observer);
    EXPECT_EQ(made, kAXErrorSuccess);
    if (made != kAXErrorSuccess) return nullptr;
    for (const char* n : notifications) {
        const AXError added = observer->addNotification(app, n, nullptr);
        EXPECT_EQ(added, kAXErrorSuccess) << n;
        if (added != kAXErrorSuccess) return nullptr;
    }
    observer->attachToMainLoop();
    return observer;
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
    AXObserverRef observer = observeApp(ax(), appPid(), app, {"AXFocusedUIElementChanged"},
                                        [&](const AXUIElementRef& e, const std::string&) {
                                            if (axEqual(e, second)) ++toldSecond;
                                        });
    ASSERT_TRUE(observer);

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
    AXObserverRef observer =
        observeApp(ax(), appPid(), app, {"AXFocusedUIElementChanged"},
                   [&](const AXUIElementRef&, const std::string&) {
                       AXError err = kAXErrorSuccess;
                       AXUIElementRef f = elementAttr(ax(), app, "AXFocusedUIElement", &err);
                       readAtDelivery.push_back(f ? stringAttr(ax(), f, "AXTitle")
                                                  : "error " + std::to_string(err));
                   });
    ASSERT_TRUE(observer);

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
    AXObserverRef observer = observeApp(ax(), appPid(), app, {"AXFocusedUIElementChanged"},
                                        [&](const AXUIElementRef& el, const std::string&) {
                                            told.push_back(stringAttr(ax(), el, "AXTitle"));
                                        });
    ASSERT_TRUE(observer);

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

TEST_F(LinuxDesktopTest, AFocusDestroyedWithItsDialogStandsUntilTheNextFocusIn) {
    // A dialog closing takes its focused widget with it, and the main window's focus-in comes
    // up to 0.2 s later (xfce4-terminal): reads in between found no focus, and the magnifier was
    // sent to nothing and back.
    AXUIElementRef app = ax().createApplication(appPid());
    ASSERT_TRUE(waitForTitle(*this, "First"));
    app_->send("grid");
    AXUIElementRef cell = waitForTitle(*this, "Cell B");
    AXUIElementRef second = waitForTitle(*this, "Second");
    ASSERT_TRUE(cell && second);
    focus("Cell B");
    ASSERT_TRUE(
        waitUntil([&] { return axEqual(elementAttr(ax(), app, "AXFocusedUIElement"), cell); }, 5));
    AXValue at;
    ASSERT_EQ(ax().copyAttributeValue(cell, "AXPosition", &at), kAXErrorSuccess);
    auto desktop = linuxdesk::atspiDesktopOf(*platform_);
    ASSERT_TRUE(linuxtest::waitForQuiet(
        *platform_, [&] { return desktop->stats().events; }, 0.3, 5));
    app_->send("close-gap 80 Second");
    std::vector<std::string> failed;
    int reads = 0;
    ASSERT_TRUE(waitUntil(
        [&] {
            AXError err = kAXErrorSuccess;
            AXUIElementRef f = elementAttr(ax(), app, "AXFocusedUIElement", &err);
            if (f && axEqual(f, second)) return true;
            ++reads;
            AXValue pos;
            if (!f)
                failed.push_back("focus " + std::to_string(err));
            else if (AXError e = ax().copyAttributeValue(f, "AXPosition", &pos))
                failed.push_back("position " + std::to_string(e));
            else if (pos != at)
                failed.push_back("elsewhere");
            return false;
        },
        5));
    EXPECT_GT(reads, 0) << "the gap was never read";
    EXPECT_TRUE(failed.empty()) << ::testing::PrintToString(failed);
}

TEST_F(LinuxDesktopTest, ATableToldFocusedAfterItsFocusedCellLeavesTheFocusOnTheCell) {
    // Qt tells of a tree view's current cell, then of the tree view, which never shows the
    // FOCUSED state: the agent went to the whole tree, or searched the window and found the tab
    // Qt leaves the state on for good.
    AXUIElementRef app = ax().createApplication(appPid());
    ASSERT_TRUE(waitForTitle(*this, "First"));
    app_->send("grid");
    AXUIElementRef cell = waitForTitle(*this, "Cell A");
    ASSERT_TRUE(cell);
    focus("Cell A");
    ASSERT_TRUE(
        waitUntil([&] { return axEqual(elementAttr(ax(), app, "AXFocusedUIElement"), cell); }, 5));
    auto desktop = linuxdesk::atspiDesktopOf(*platform_);
    ASSERT_TRUE(linuxtest::waitForQuiet(
        *platform_, [&] { return desktop->stats().events; }, 0.3, 5));
    std::vector<std::string> told;
    AXObserverRef observer = observeApp(ax(), appPid(), app, {"AXFocusedUIElementChanged"},
                                        [&](const AXUIElementRef& el, const std::string&) {
                                            told.push_back(stringAttr(ax(), el, "AXTitle"));
                                        });
    ASSERT_TRUE(observer);
    const uint64_t before = desktop->stats().events;
    app_->send("tell Grid");
    ASSERT_TRUE(waitUntil([&] { return desktop->stats().events > before; }, 5));
    ASSERT_TRUE(linuxtest::waitForQuiet(
        *platform_, [&] { return desktop->stats().events; }, 0.3, 5));
    EXPECT_TRUE(axEqual(elementAttr(ax(), app, "AXFocusedUIElement"), cell));
    for (const auto& t : told) EXPECT_EQ(t, "Cell A");
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
    AXObserverRef observer = observeApp(
        ax(), appPid(), app, {"AXFocusedUIElementChanged"},
        [&](const AXUIElementRef& el, const std::string&) {
            AXValue pos;
            const AXError e =
                last ? ax().copyAttributeValue(last, "AXPosition", &pos) : kAXErrorSuccess;
            if (e != kAXErrorSuccess)
                lost.push_back(stringAttr(ax(), last, "AXTitle") + " " + std::to_string(e));
            // As the agent does: where is the new focus?
            ax().copyAttributeValue(el, "AXPosition", &pos);
            last = el;
            ++told;
        });
    ASSERT_TRUE(observer);
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

TEST_F(LinuxDesktopTest, AFocusThatSlidesIntoPlaceIsFollowedThere) {
    // GTK 3 slides a popover into place after its button has focus, and tells nothing of the
    // move: the magnifier stayed where the button first was until the next poll, half a second
    // later, or had no place for it at all when the button was not laid out yet at its focus-in.
    AXUIElementRef app = ax().createApplication(appPid());
    ASSERT_TRUE(waitForTitle(*this, "First"));
    AXUIElementRef focus;
    std::optional<Point> toldAt, movedTo;
    auto positionOf = [&](const AXUIElementRef& el) -> std::optional<Point> {
        AXValue pos;
        if (ax().copyAttributeValue(el, "AXPosition", &pos) != kAXErrorSuccess) return {};
        return *pos.get<Point>();
    };
    AXObserverRef observer =
        observeApp(ax(), appPid(), app, {"AXFocusedUIElementChanged", "AXMoved"},
                   [&](const AXUIElementRef& el, const std::string& what) {
                       if (what == "AXFocusedUIElementChanged") {
                           focus = el;
                           toldAt = movedTo = positionOf(el);
                       } else if (focus) {
                           movedTo = positionOf(focus);
                       }
                   });
    ASSERT_TRUE(observer);
    app_->send("popover");
    ASSERT_TRUE(waitUntil(
        [&] {
            return stringAttr(ax(), focus, "AXTitle") == "Inside" &&
                   app_->awaitOutput("popover ", 0);
        },
        5));
    ASSERT_TRUE(app_->awaitOutput("slid", 1)) << "GTK did not slide the popover: nothing to test";
    auto* el = linuxdesk::asAtspi(focus);
    ASSERT_TRUE(el && el->accessible());
    AtspiComponent* c = atspi_accessible_get_component_iface(el->accessible());
    AtspiRect* r = c ? atspi_component_get_extents(c, ATSPI_COORD_TYPE_SCREEN, nullptr) : nullptr;
    ASSERT_TRUE(r);
    const Point settled(r->x, r->y);
    g_free(r);
    g_object_unref(c);
    // Not laid out at its focus-in (some runs), it was waited for, not sent nowhere.
    EXPECT_TRUE(toldAt.has_value()) << "no place for the button as it got focus";
    EXPECT_TRUE(waitUntil([&] { return movedTo == settled; }, 2))
        << "told at " << (toldAt ? toldAt->y : -1) << ", last known at "
        << (movedTo ? movedTo->y : -1) << ", settled at " << settled.y;
}

TEST_F(LinuxDesktopTest, AGtk4DialogIsFollowedIntoWithoutAFocusEvent) {
    // GTK 4 tells of a new dialog only by its ACTIVE state (no window:activate, a filler for a
    // role), and of its first focus not at all, and few of its containers show SHOWING: the
    // agent found no focus in the About dialog and sent the magnifier nowhere.
    pid_t pid = 0;
    {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        char arg0[] = "gtk4-widget-factory";
        char* argv[] = {arg0, nullptr};
        setenv("GSK_RENDERER", "cairo", 1);  // GL cannot start under Xvfb
        if (posix_spawnp(&pid, arg0, &actions, nullptr, argv, environ) != 0) pid = 0;
        unsetenv("GSK_RENDERER");
        posix_spawn_file_actions_destroy(&actions);
    }
    if (pid <= 0) GTEST_SKIP() << "gtk4-widget-factory is not installed";
    struct Reap {
        pid_t pid;
        ~Reap() {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    } reap{pid};
    // Its first focus is told by nothing either, and found only by a search the agent bounds in
    // time: the window is what this waits for.
    AXUIElementRef app;
    ASSERT_TRUE(waitUntil(
        [&] {
            app = ax().createApplication(pid);
            return elementAttr(ax(), app, "AXFocusedWindow") != nullptr;
        },
        20));
    auto desktop = linuxdesk::atspiDesktopOf(*platform_);
    ASSERT_TRUE(linuxtest::waitForQuiet(
        *platform_, [&] { return desktop->stats().events; }, 0.5, 10));
    ASSERT_EQ(runTool({"xdotool", "key", "F1"}), 0);
    AXUIElementRef focus;
    EXPECT_TRUE(waitUntil(
        [&] {
            focus = elementAttr(ax(), app, "AXFocusedUIElement");
            return focus && stringAttr(ax(), focus, "AXTitle") == "About";
        },
        10))
        << "focus: " << (focus ? stringAttr(ax(), focus, "AXRole") : "none");
    AXUIElementRef window = focus ? elementAttr(ax(), focus, "AXTopLevelUIElement") : nullptr;
    EXPECT_TRUE(window && stringAttr(ax(), window, "AXTitle").find("About") != std::string::npos);
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
    AXObserverRef observer =
        observeApp(ax(), appPid(), app, {"AXFocusedWindowChanged"},
                   [&](const AXUIElementRef&, const std::string&) {
                       AXError err = kAXErrorSuccess;
                       AXUIElementRef f = elementAttr(ax(), app, "AXFocusedUIElement", &err);
                       AXUIElementRef w = elementAttr(ax(), app, "AXFocusedWindow");
                       readAtActivation.push_back(
                           (f ? stringAttr(ax(), f, "AXTitle") : "error " + std::to_string(err)) +
                           (axEqual(w, window) ? " in its window" : " without a window"));
                   });
    ASSERT_TRUE(observer);
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

}  // namespace
}  // namespace orv::linuxtest

#endif  // __has_include(<atspi/atspi.h>)
