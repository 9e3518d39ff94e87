#include <gtest/gtest.h>

#include "platform/sim/SimDesktop.h"

using namespace orv;
using namespace orv::sim;

namespace {

struct Delivery {
    AXUIElementRef element;
    std::string notification;
    void* refcon;
};

class SimObserverTest : public ::testing::Test {
  protected:
    void SetUp() override {
        app = &desk->addApplication(100, "com.example.editor", "Editor");
        ASSERT_TRUE(app->load(R"(
AXWindow "One" [0 22 400 300] #one
  AXTextField [10 40 100 20] #a
  AXButton "B" [10 80 60 20] #b
AXWindow "Two" [500 22 400 300] #two
  AXTextField [510 40 100 20] #c)")
                        .ok());
        ASSERT_EQ(desk->ax().createObserver(
                      100,
                      [this](AXObserver&, const AXUIElementRef& e, const std::string& n, void* r) {
                          got.push_back({e, n, r});
                      },
                      &observer),
                  kAXErrorSuccess);
        observer->attachToMainLoop();
    }

    std::vector<std::string> names() const {
        std::vector<std::string> out;
        for (auto& d : got) out.push_back(d.notification);
        return out;
    }

    std::shared_ptr<SimDesktop> desk = SimDesktop::create();
    SimApp* app = nullptr;
    AXObserverRef observer;
    std::vector<Delivery> got;
    int tag = 0;
};

TEST_F(SimObserverTest, DeliversOnALaterTurnToRegistrationsOnTheElementOrItsApplication) {
    auto appRef = desk->ax().createApplication(100);
    ASSERT_EQ(observer->addNotification(appRef, "AXFocusedUIElementChanged", &tag),
              kAXErrorSuccess);
    ASSERT_EQ(observer->addNotification(desk->ref(app->find("b")), "AXTitleChanged", nullptr),
              kAXErrorSuccess);
    EXPECT_EQ(observer->addNotification(appRef, "AXFocusedUIElementChanged", nullptr),
              kAXErrorNotificationAlreadyRegistered);
    EXPECT_EQ(desk->registrationCount(), 2u);

    desk->focus(app->find("a"));
    desk->post(app->find("a"), "AXTitleChanged");  // not registered on a or the application
    desk->post(app->find("b"), "AXTitleChanged");
    EXPECT_TRUE(got.empty());
    desk->runUntilIdle();
    ASSERT_EQ(names(), (std::vector<std::string>{"AXFocusedUIElementChanged", "AXTitleChanged"}));
    EXPECT_EQ(got[0].refcon, &tag);
    EXPECT_EQ(desk->node(got[0].element), app->find("a"));
    // The named element arrives as a reference of its own.
    EXPECT_TRUE(axEqual(got[1].element, desk->ref(app->find("b"))));
}

TEST_F(SimObserverTest, NothingArrivesWhenDetachedUnregisteredOrDestroyed) {
    auto appRef = desk->ax().createApplication(100);
    observer->addNotification(appRef, "AXValueChanged", nullptr);
    observer->detachFromMainLoop();
    desk->typeText(app->find("a"), "x");
    desk->runUntilIdle();
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(desk->droppedCount(), 1u);

    observer->attachToMainLoop();
    desk->typeText(app->find("a"), "y");
    EXPECT_EQ(observer->removeNotification(appRef, "AXValueChanged"), kAXErrorSuccess);
    desk->runUntilIdle();
    EXPECT_TRUE(got.empty()) << "removed before the turn that would deliver it";
    EXPECT_EQ(observer->removeNotification(appRef, "AXValueChanged"),
              kAXErrorNotificationNotRegistered);

    observer->addNotification(appRef, "AXValueChanged", nullptr);
    desk->typeText(app->find("a"), "z");
    observer.reset();
    desk->runUntilIdle();
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(desk->registrationCount(), 0u);
    EXPECT_EQ(desk->observerCount(), 0u);
}

TEST_F(SimObserverTest, ObserverServesOneProcess) {
    auto& other = desk->addApplication(200, "com.example.other", "Other");
    EXPECT_EQ(observer->addNotification(desk->ref(other.root()), "AXCreated", nullptr),
              kAXErrorIllegalArgument);
    EXPECT_EQ(observer->addNotification(desk->ax().createSystemWide(), "AXCreated", nullptr),
              kAXErrorIllegalArgument);
    auto gone = app->find("c");
    desk->destroy(gone);
    EXPECT_EQ(observer->addNotification(desk->ref(gone), "AXMoved", nullptr),
              kAXErrorInvalidUIElement);
    app->failObserverCreation(kAXErrorFailure);
    AXObserverRef second;
    EXPECT_EQ(desk->ax().createObserver(
                  100, [](auto&, auto&, auto&, void*) {}, &second),
              kAXErrorFailure);
}

TEST_F(SimObserverTest, DesktopActionsPostWhatARealDesktopPosts) {
    auto appRef = desk->ax().createApplication(100);
    for (const char* n :
         {"AXFocusedUIElementChanged", "AXFocusedWindowChanged", "AXMainWindowChanged",
          "AXWindowMoved", "AXMoved", "AXResized", "AXUIElementDestroyed"})
        observer->addNotification(appRef, n, nullptr);

    desk->focus(app->find("a"));
    desk->focus(app->find("b"));  // same window: no window change
    desk->focus(app->find("b"));  // no change at all
    desk->focus(app->find("c"));
    desk->runUntilIdle();
    EXPECT_EQ(names(),
              (std::vector<std::string>{"AXFocusedWindowChanged", "AXMainWindowChanged",
                                        "AXFocusedUIElementChanged", "AXFocusedUIElementChanged",
                                        "AXFocusedWindowChanged", "AXMainWindowChanged",
                                        "AXFocusedUIElementChanged"}));
    EXPECT_EQ(desk->node(got[4].element), app->find("two"));

    // Moving a window carries its contents along.
    got.clear();
    desk->move(app->find("one"), Point{100, 122});
    desk->resize(app->find("b"), Size{70, 25});
    desk->destroy(app->find("b"));
    desk->runUntilIdle();
    EXPECT_EQ(names(),
              (std::vector<std::string>{"AXWindowMoved", "AXResized", "AXUIElementDestroyed"}));
    EXPECT_EQ(*app->find("a")->frame(), Rect(110, 140, 100, 20));
    EXPECT_EQ(app->find("b"), nullptr);
    AXValue v;
    EXPECT_EQ(desk->ax().copyAttributeValue(got[2].element, "AXRole", &v),
              kAXErrorInvalidUIElement);
}

TEST_F(SimObserverTest, WorkspaceSignalsFireOnTheMainLoop) {
    std::vector<std::string> events;
    auto& ws = desk->workspace();
    ws.didLaunchApplication.connect(
        [&](const RunningApplication& a) { events.push_back("launch " + a.bundleIdentifier); });
    ws.didTerminateApplication.connect(
        [&](const RunningApplication& a) { events.push_back("end " + a.bundleIdentifier); });
    ws.frontApplicationSwitched.connect(
        [&](pid_t pid) { events.push_back("front " + std::to_string(pid)); });

    desk->launchApplication(200, "com.example.other", "Other");
    desk->activate(200);
    EXPECT_TRUE(events.empty());
    desk->runUntilIdle();
    EXPECT_EQ(events, (std::vector<std::string>{"launch com.example.other", "front 200"}));
    EXPECT_EQ(ws.frontmostApplication()->pid, 200);
    EXPECT_EQ(ws.runningApplicationsWithBundleIdentifier("com.example.editor").size(), 1u);

    // Ending the front application brings the next one in window order to the front.
    events.clear();
    desk->terminateApplication(200);
    desk->runUntilIdle();
    EXPECT_EQ(events, (std::vector<std::string>{"end com.example.other", "front 100"}));
    EXPECT_FALSE(ws.runningApplicationWithProcessIdentifier(200));
}

}  // namespace
