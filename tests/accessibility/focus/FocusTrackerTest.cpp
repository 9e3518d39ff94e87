#include <gtest/gtest.h>

#include "accessibility/element/ORVAXElement.h"
#include "accessibility/focus/ORVAXAppTracker.h"
#include "accessibility/focus/ORVAXFocusTracker.h"
#include "support/AgentHarness.h"

namespace orv {
namespace {

using test::area;
using test::FocusDatagram;

class FocusTracker : public ::testing::Test {
  protected:
    void SetUp() override {
        auto& editor = h.desk->addApplication(100, "com.example.editor", "Editor");
        ASSERT_TRUE(editor
                        .load(R"(
AXWindow "Doc" [0 22 800 600] #win AXMain=true
  AXButton "A" [20 60 80 24] #a
  AXButton "B" [120 60 80 24] #b
)")
                        .ok());
        auto& nc = h.desk->addApplication(300, "com.apple.notificationcenterui", "Notifications");
        ASSERT_TRUE(nc.load(R"(
AXWindow/AXNotificationCenterBanner "Banner" [1000 30 300 80] #banner
  AXButton "Close" [1010 40 20 20] #close
)")
                        .ok());
        h.desk->addApplication(400, "com.example.blank", "Blank");
        h.desk->focus(editor.find("a"));
        h.desk->runUntilIdle();
    }
    sim::SimNodePtr node(pid_t pid, const char* label) {
        return h.desk->application(pid)->find(label);
    }

    test::AgentHarness h;
};

TEST_F(FocusTracker, TheNotificationCentreWinsOverTheFrontApplication) {
    h.startAgent();
    h.takeFocusAreas();
    h.desk->focus(node(300, "banner"));
    h.settle();
    // The notification centre never comes to the front, yet its focus wins.
    EXPECT_EQ(ORVAXAppTracker::activePid(), 100);
    EXPECT_EQ(ORVAXFocusTracker::currentClaimer(), ORVAXFocusTracker::notificationCenterClaimer());
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(1000, 790, 300, 80, 2, 0, 4)});

    // While it holds focus, changes in the front application are passed over.
    h.desk->focus(node(100, "b"));
    h.settle();
    EXPECT_TRUE(h.takeFocusAreas().empty());

    // The banner goes away without a focus notification; the claimer's poll notices, and the
    // front application's focus is reported again (maybe after the empty area of the vanished
    // banner, whichever poll comes first).
    h.desk->destroy(node(300, "banner"));
    h.advance(0.5);
    auto areas = h.takeFocusAreas();
    ASSERT_FALSE(areas.empty());
    EXPECT_EQ(areas.back(), area(120, 816, 80, 24, 0, 0, 2));
    EXPECT_EQ(ORVAXFocusTracker::currentClaimer(), ORVAXFocusTracker::activeApplicationClaimer());
}

TEST_F(FocusTracker, AnEqualElementDoesNotRestartTheTracker) {
    h.startAgent();
    auto tracker = ORVAXFocusTracker::currentTracker();
    ASSERT_NE(tracker, nullptr);
    auto app = ORVAXElement::newForApplication(100);
    ORVAXFocusTracker::setFocusedElement(ORVAXElement::newForElement(h.desk->ref(node(100, "a"))),
                                         app);
    EXPECT_EQ(ORVAXFocusTracker::currentTracker(), tracker);
    ORVAXFocusTracker::setFocusedElement(ORVAXElement::newForElement(h.desk->ref(node(100, "b"))),
                                         app);
    EXPECT_NE(ORVAXFocusTracker::currentTracker(), tracker);
    EXPECT_FALSE(tracker->isPolling());
}

TEST_F(FocusTracker, NoClaimerWantingFocusSendsTheEmptyArea) {
    h.startAgent();
    h.desk->focus(node(100, "b"));
    h.settle();
    h.takeFocusAreas();
    h.desk->activate(400);  // an application with no focus at all
    h.settle();
    EXPECT_EQ(ORVAXFocusTracker::currentClaimer(), nullptr);
    EXPECT_EQ(ORVAXFocusTracker::currentTracker(), nullptr);
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(0, 0, 0, 0, 0, 0, 0)});
}

TEST_F(FocusTracker, ManyFocusChangesLeaveNoSubscriptionsBehind) {
    h.startAgent();
    auto app = ORVAXFocusTracker::activeApplicationClaimer()->app();
    ASSERT_NE(app, nullptr);
    for (int i = 0; i < 50; ++i) {
        h.desk->focus(node(100, i % 2 ? "a" : "b"));
        h.desk->runUntilIdle();
    }
    // Each name on the application holds only the current subscriptions (the claimer's own and
    // the focus tracker's), however many focus changes went by.
    for (const char* name : {"AXValueChanged", "AXWindowMoved", "AXMoved"}) {
        auto it = app->observerHandlers().find(name);
        ASSERT_NE(it, app->observerHandlers().end()) << name;
        EXPECT_EQ(it->second->count(), 1u) << name;
    }
    EXPECT_EQ(h.desk->registrationCount(h.desk->application(100)->root(), "AXMoved"), 1u);
}

}  // namespace
}  // namespace orv
