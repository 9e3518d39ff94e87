#pragma once

// Questions every desktop backend must answer alike, asked through the seam only. A backend's
// test folder supplies a ContractDesktop that can show the test window and act on it, then calls
// the checks below from its own TEST bodies.
//
// The test window is an application with one window holding, by title: buttons "First" and
// "Second", a text field "Name field", a check box "Check me" and a list "Items".

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Platform.h"

namespace orv::contract {

class ContractDesktop {
  public:
    virtual ~ContractDesktop() = default;
    virtual Platform& platform() = 0;
    // Pid of the running test application (started by the driver before the checks).
    virtual pid_t appPid() = 0;
    // Moves keyboard focus to the widget with that title; returns at once, the change arrives
    // through the main loop.
    virtual void focus(const std::string& title) = 0;
    // Ends the test application for good (no chance to clean up).
    virtual void killApp() = 0;
    // Runs the main loop until the condition holds or the time is up.
    virtual bool waitUntil(const std::function<bool()>& condition, double seconds) = 0;
};

inline std::string stringAttr(AccessibilityAPI& ax, const AXUIElementRef& e, const char* name) {
    AXValue v;
    if (ax.copyAttributeValue(e, name, &v) != kAXErrorSuccess) return {};
    const std::string* s = v.get<std::string>();
    return s ? *s : std::string();
}

inline AXUIElementRef elementAttr(AccessibilityAPI& ax, const AXUIElementRef& e, const char* name,
                                  AXError* error = nullptr) {
    AXValue v;
    AXError err = ax.copyAttributeValue(e, name, &v);
    if (error) *error = err;
    if (err != kAXErrorSuccess) return nullptr;
    const AXUIElementRef* r = v.get<AXUIElementRef>();
    return r ? *r : nullptr;
}

// First element below `root` (breadth-first) whose title is `title`.
inline AXUIElementRef findByTitle(AccessibilityAPI& ax, const AXUIElementRef& root,
                                  const std::string& title, int limit = 2000) {
    std::deque<AXUIElementRef> queue{root};
    while (!queue.empty() && limit-- > 0) {
        AXUIElementRef e = queue.front();
        queue.pop_front();
        if (stringAttr(ax, e, "AXTitle") == title) return e;
        AXValue kids;
        if (ax.copyAttributeValue(e, "AXChildren", &kids) == kAXErrorSuccess)
            if (const AXArray* arr = kids.get<AXArray>())
                for (const auto& k : *arr)
                    if (const AXUIElementRef* r = k.get<AXUIElementRef>()) queue.push_back(*r);
    }
    return nullptr;
}

inline AXUIElementRef waitForTitle(ContractDesktop& d, const std::string& title) {
    AccessibilityAPI& ax = *d.platform().ax;
    AXUIElementRef app = ax.createApplication(d.appPid());
    AXUIElementRef found;
    d.waitUntil([&] { return (found = findByTitle(ax, app, title)) != nullptr; }, 5);
    return found;
}

// Roles of the standard widgets and of the containers above them.
inline void checkRoles(ContractDesktop& d) {
    AccessibilityAPI& ax = *d.platform().ax;
    AXUIElementRef app = ax.createApplication(d.appPid());
    EXPECT_EQ(stringAttr(ax, app, "AXRole"), "AXApplication");
    const std::pair<const char*, const char*> expected[] = {
        {"First", "AXButton"},
        {"Name field", "AXTextField"},
        {"Check me", "AXCheckBox"},
        {"Items", "AXList"},
    };
    for (auto [title, role] : expected) {
        AXUIElementRef e = waitForTitle(d, title);
        ASSERT_TRUE(e) << title;
        EXPECT_EQ(stringAttr(ax, e, "AXRole"), role) << title;
        AXUIElementRef window = elementAttr(ax, e, "AXTopLevelUIElement");
        ASSERT_TRUE(window) << title;
        EXPECT_EQ(stringAttr(ax, window, "AXRole"), "AXWindow") << title;
    }
}

// Focus moved by the desktop is what the application and the system-wide element report, it
// carries the focused state, and its parent chain ends at the application.
inline void checkFocusAndParents(ContractDesktop& d) {
    AccessibilityAPI& ax = *d.platform().ax;
    AXUIElementRef app = ax.createApplication(d.appPid());
    AXUIElementRef target = waitForTitle(d, "Second");
    ASSERT_TRUE(target);
    d.focus("Second");
    AXUIElementRef focused;
    ASSERT_TRUE(d.waitUntil(
        [&] { return axEqual(focused = elementAttr(ax, app, "AXFocusedUIElement"), target); }, 5));
    AXValue isFocused;
    ASSERT_EQ(ax.copyAttributeValue(focused, "AXFocused", &isFocused), kAXErrorSuccess);
    EXPECT_EQ(isFocused, AXValue(true));
    EXPECT_TRUE(axEqual(elementAttr(ax, ax.createSystemWide(), "AXFocusedUIElement"), target));

    AXUIElementRef cur = focused;
    int depth = 0;
    while (depth++ < 50)
        if (AXUIElementRef parent = elementAttr(ax, cur, "AXParent"))
            cur = parent;
        else
            break;
    EXPECT_TRUE(axEqual(cur, app)) << "the chain ends at the application";
    AXError err = kAXErrorSuccess;
    elementAttr(ax, app, "AXParent", &err);
    EXPECT_EQ(err, kAXErrorAttributeUnsupported) << "an application has no parent attribute";
    pid_t pid = 0;
    EXPECT_EQ(ax.getPid(focused, &pid), kAXErrorSuccess);
    EXPECT_EQ(pid, d.appPid());
}

// Bounds are inside the window's and the element at the centre is the element itself.
inline void checkBounds(ContractDesktop& d) {
    AccessibilityAPI& ax = *d.platform().ax;
    AXUIElementRef button = waitForTitle(d, "First");
    ASSERT_TRUE(button);
    AXValue pos, size, wpos, wsize;
    ASSERT_EQ(ax.copyAttributeValue(button, "AXPosition", &pos), kAXErrorSuccess);
    ASSERT_EQ(ax.copyAttributeValue(button, "AXSize", &size), kAXErrorSuccess);
    AXUIElementRef window = elementAttr(ax, button, "AXTopLevelUIElement");
    ASSERT_TRUE(window);
    ASSERT_EQ(ax.copyAttributeValue(window, "AXPosition", &wpos), kAXErrorSuccess);
    ASSERT_EQ(ax.copyAttributeValue(window, "AXSize", &wsize), kAXErrorSuccess);
    const Rect b(*pos.get<Point>(), *size.get<Size>());
    const Rect w(*wpos.get<Point>(), *wsize.get<Size>());
    EXPECT_GT(b.size.width, 0);
    EXPECT_GT(b.size.height, 0);
    EXPECT_EQ(b.intersection(w), b) << b.toString() << " in " << w.toString();
    AXUIElementRef hit;
    ASSERT_EQ(ax.copyElementAtPosition(ax.createSystemWide(), static_cast<float>(b.midX()),
                                       static_cast<float>(b.midY()), &hit),
              kAXErrorSuccess);
    // The hit may be a part of the button (its label); the button is then an ancestor.
    bool found = false;
    for (AXUIElementRef cur = hit; cur && !found; cur = elementAttr(ax, cur, "AXParent"))
        found = axEqual(cur, button);
    EXPECT_TRUE(found);
}

// One focus notification per focus change, naming the new element, on the application element.
inline void checkFocusNotifications(ContractDesktop& d) {
    AccessibilityAPI& ax = *d.platform().ax;
    AXUIElementRef app = ax.createApplication(d.appPid());
    AXUIElementRef first = waitForTitle(d, "First");
    AXUIElementRef second = waitForTitle(d, "Second");
    ASSERT_TRUE(first && second);
    d.focus("First");
    ASSERT_TRUE(
        d.waitUntil([&] { return axEqual(elementAttr(ax, app, "AXFocusedUIElement"), first); }, 5));

    std::vector<AXUIElementRef> seen;
    AXObserverRef observer;
    ASSERT_EQ(ax.createObserver(
                  d.appPid(),
                  [&](AXObserver&, const AXUIElementRef& e, const std::string& n, void*) {
                      if (n == "AXFocusedUIElementChanged") seen.push_back(e);
                  },
                  &observer),
              kAXErrorSuccess);
    ASSERT_EQ(observer->addNotification(app, "AXFocusedUIElementChanged", nullptr),
              kAXErrorSuccess);
    observer->attachToMainLoop();

    d.focus("Second");
    ASSERT_TRUE(d.waitUntil([&] { return !seen.empty(); }, 5));
    d.focus("First");
    ASSERT_TRUE(d.waitUntil([&] { return seen.size() >= 2; }, 5));
    // Anything late would have come with the second change's events; one more round to be sure.
    d.focus("Second");
    ASSERT_TRUE(d.waitUntil([&] { return seen.size() >= 3; }, 5));
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_TRUE(axEqual(seen[0], second));
    EXPECT_TRUE(axEqual(seen[1], first));
    EXPECT_TRUE(axEqual(seen[2], second));
    observer->detachFromMainLoop();
}

// A vanished application answers InvalidUIElement for its elements and its pid.
inline void checkGoneApplication(ContractDesktop& d) {
    AccessibilityAPI& ax = *d.platform().ax;
    const pid_t pid = d.appPid();
    AXUIElementRef button = waitForTitle(d, "First");
    ASSERT_TRUE(button);
    bool terminated = false;
    auto conn = d.platform().workspace->didTerminateApplication.connect(
        [&](const RunningApplication& a) { terminated = terminated || a.pid == pid; });
    d.killApp();
    EXPECT_TRUE(d.waitUntil([&] { return terminated; }, 10));
    d.platform().workspace->didTerminateApplication.disconnect(conn);
    AXValue v;
    EXPECT_EQ(ax.copyAttributeValue(button, "AXRole", &v) == kAXErrorInvalidUIElement ||
                  ax.copyAttributeValue(button, "AXPosition", &v) == kAXErrorInvalidUIElement,
              true);
    EXPECT_EQ(ax.copyAttributeValue(button, "AXPosition", &v), kAXErrorInvalidUIElement);
    EXPECT_EQ(ax.copyAttributeValue(ax.createApplication(pid), "AXRole", &v),
              kAXErrorInvalidUIElement);
    EXPECT_FALSE(d.platform().workspace->runningApplicationWithProcessIdentifier(pid));
}

}  // namespace orv::contract
