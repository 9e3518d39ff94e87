#include <gtest/gtest.h>

#include <stdexcept>

#include "accessibility/element/CountingAccessibilityAPI.h"
#include "accessibility/element/ORVAXElement.h"
#include "platform/sim/SimDesktop.h"
#include "support/LogCapture.h"

using namespace orv;
using namespace orv::sim;

namespace {

class ORVAXEventTest : public ::testing::Test {
  protected:
    void SetUp() override {
        app = &desk->addApplication(100, "com.example.editor", "Editor");
        ASSERT_TRUE(app->load(R"(
AXWindow "Doc" [0 22 800 600] #win
  AXTextField [10 40 100 20] #field
  AXButton "OK" [10 80 60 20] #ok)")
                        .ok());
        desk->install();
        application = ORVAXElement::newForApplication(100);
    }
    void TearDown() override { desk->uninstall(); }

    std::shared_ptr<SimDesktop> desk = SimDesktop::create();
    SimApp* app = nullptr;
    ORVAXElementRef application;
    std::vector<std::string> calls;
};

TEST_F(ORVAXEventTest, OneRegistrationPerNameHoweverManySubscribe) {
    ORVAXEventRef last;
    auto a = application->observe("AXFocusedUIElementChanged", [&](const ORVAXEventRef& e) {
        calls.push_back("a");
        last = e;
    });
    auto b = application->observe("AXFocusedUIElementChanged",
                                  [&](const ORVAXEventRef&) { calls.push_back("b"); });
    EXPECT_EQ(desk->observerCount(), 1u);
    EXPECT_EQ(desk->registrationCount("AXFocusedUIElementChanged"), 1u);

    desk->focus(app->find("field"));
    desk->runUntilIdle();
    EXPECT_EQ(calls, (std::vector<std::string>{"a", "b"}));
    ASSERT_TRUE(last);
    EXPECT_EQ(last->context(), application);
    EXPECT_TRUE(last->data()->isEqual(ORVAXElement::newForElement(desk->ref(app->find("field")))));

    application->unobserve("AXFocusedUIElementChanged", a);
    application->unobserve("AXFocusedUIElementChanged", b);
    EXPECT_EQ(desk->registrationCount("AXFocusedUIElementChanged"), 1u);
    const size_t delivered = desk->deliveredCount();
    desk->focus(app->find("ok"));
    desk->runUntilIdle();
    EXPECT_EQ(desk->deliveredCount(), delivered + 1);  // to an empty list
    EXPECT_EQ(calls.size(), 2u);
}

TEST_F(ORVAXEventTest, DataIsAFreshWrapper) {
    auto field = ORVAXElement::newForElement(desk->ref(app->find("field")));
    ASSERT_EQ(field->getRole(), "AXTextField");
    ORVAXElementRef data;
    field->observe("AXMoved", [&](const ORVAXEventRef& e) { data = e->data(); });
    app->find("field")->set("AXRole", AXValue("AXSearchField"));
    desk->post(app->find("field"), "AXMoved");
    desk->runUntilIdle();
    ASSERT_TRUE(data && data != field && data->isEqual(field));
    EXPECT_EQ(data->getRole(), "AXSearchField");
}

TEST_F(ORVAXEventTest, AFaultingSubscriberStopsOnlyItsOwnDelivery) {
    test::LogCapture log(1);
    int raises = 2;
    application->observe("AXValueChanged", [&](const ORVAXEventRef&) { calls.push_back("a"); });
    application->observe("AXValueChanged", [&](const ORVAXEventRef&) {
        if (raises == 2) {
            --raises;
            throw PlatformException("NSGenericException", "array mutated", {"0 frame", "1 frame"});
        }
        if (raises == 1) {
            --raises;
            throw std::runtime_error("bad state");
        }
    });
    application->observe("AXValueChanged", [&](const ORVAXEventRef&) { calls.push_back("c"); });

    for (int i = 0; i < 3; ++i) {
        desk->typeText(app->find("field"), "x");
        desk->runUntilIdle();
    }
    EXPECT_EQ(calls, (std::vector<std::string>{"a", "a", "a", "c"}));
    EXPECT_EQ(
        log.lines(),
        (std::vector<std::string>{
            "(error) Unhandled exception during AX callback: array mutated (0 frame, 1 frame)",
            "(error) Unhandled error during AX callback: bad state"}));

    // A raise from a getter inside a subscriber lands in the same guard.
    log.clear();
    app->find("ok")->raiseOnRead("AXRole", "no role");
    auto ok = ORVAXElement::newForElement(desk->ref(app->find("ok")));
    ok->observe("AXMoved", [](const ORVAXEventRef& e) { e->data()->getRole(); });
    desk->post(app->find("ok"), "AXMoved");
    desk->runUntilIdle();
    EXPECT_EQ(log.countContaining("Unhandled exception during AX callback: no role (SimDesktop"),
              1u);
}

struct Subscriber {
    std::vector<std::string>* calls;
    void onEvent(const ORVAXEventRef& e) { calls->push_back(*e->data()->getRole()); }
    void onPing() { calls->push_back("ping"); }
};

TEST_F(ORVAXEventTest, TargetFormsHoldTheirTarget) {
    auto target = std::make_shared<Subscriber>(Subscriber{&calls});
    std::weak_ptr<Subscriber> weak = target;
    auto withEvent =
        application->observe("AXFocusedUIElementChanged", target, &Subscriber::onEvent);
    auto plain = application->observe("AXFocusedUIElementChanged", target, &Subscriber::onPing);
    target.reset();
    desk->focus(app->find("ok"));
    desk->runUntilIdle();
    EXPECT_EQ(calls, (std::vector<std::string>{"AXButton", "ping"}));
    // The token is the stored block: the target lives while either holds it.
    application->unobserve("AXFocusedUIElementChanged", withEvent);
    application->unobserve("AXFocusedUIElementChanged", plain);
    withEvent.reset();
    EXPECT_FALSE(weak.expired());
    plain.reset();
    EXPECT_TRUE(weak.expired());
}

TEST_F(ORVAXEventTest, DestroyingTheWrapperEndsObservation) {
    application->observe("AXFocusedUIElementChanged",
                         [&](const ORVAXEventRef&) { calls.push_back("late"); });
    desk->focus(app->find("ok"));  // queued for a later turn
    application.reset();
    EXPECT_EQ(desk->observerCount(), 0u);
    EXPECT_EQ(desk->registrationCount(), 0u);
    desk->runUntilIdle();
    EXPECT_TRUE(calls.empty());
}

TEST_F(ORVAXEventTest, ASubscriberMayReleaseTheObservedWrapper) {
    application->observe("AXFocusedUIElementChanged", [&](const ORVAXEventRef& e) {
        application.reset();
        calls.push_back(*e->context()->getRole());
    });
    application->observe("AXFocusedUIElementChanged",
                         [&](const ORVAXEventRef&) { calls.push_back("second"); });
    desk->focus(app->find("ok"));
    desk->runUntilIdle();
    EXPECT_EQ(calls, (std::vector<std::string>{"AXApplication", "second"}));
    EXPECT_EQ(desk->observerCount(), 0u);
}

}  // namespace
