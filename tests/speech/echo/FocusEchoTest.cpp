#include <gtest/gtest.h>

#include "speech/echo/EchoTestSupport.h"

namespace orv::test {
namespace {

using Echo = ORVAXEchoController;
using Gate = ORVAXFocusEchoController;

// Focus and mouse echo of real elements, in the simplified style so that what is said is the
// element's short text.
class FocusEchoTest : public EchoTest {
  protected:
    void SetUp() override {
        EchoTest::SetUp();
        speakEverything();
        Echo::enableFocusEchoContext(false);
    }
    void focus(const char* label) {
        auto element = wrap(label);
        held.push_back(element);  // as the context handler holds the element it reported
        Gate::focusElementChanged(element);
        desk->advance(5);
    }
    std::vector<ORVAXElementRef> held;
};

TEST_F(FocusEchoTest, TheSameShortTextIsNotSaidTwiceInARow) {
    int completions = 0;
    Gate::setCompletionHandler([&] { ++completions; });
    focus("okA");
    focus("okB");
    EXPECT_EQ(spoken(), (std::vector<std::string>{"OK"}));
    EXPECT_EQ(completions, 1);  // the gate's handler rode on the echo

    // Nothing focused forgets the last text.
    Gate::focusElementChanged(nullptr);
    focus("okB");
    focus("save");
    EXPECT_EQ(spoken(), (std::vector<std::string>{"OK", "OK", "Save"}));
}

TEST_F(FocusEchoTest, AFocusedCheckBoxIsSaidAgainWhenItsValueChanges) {
    desk->focus(app->find("bold"));
    desk->runUntilIdle();
    focus("bold");
    ASSERT_EQ(spoken(), (std::vector<std::string>{"Bold"}));
    app->find("bold")->set("AXValue", AXValue(1));
    desk->post(app->find("bold"), "AXValueChanged");
    desk->advance(5);
    EXPECT_EQ(spoken(), (std::vector<std::string>{"Bold", "Bold"}));

    // Once focus has gone elsewhere the change is not said.
    desk->focus(app->find("save"));
    desk->runUntilIdle();
    desk->post(app->find("bold"), "AXValueChanged");
    desk->advance(5);
    EXPECT_EQ(spoken().size(), 2u);
}

TEST_F(FocusEchoTest, MouseEchoSaysTheElementUnderThePointerAfterHalfASecond) {
    const Rect f = *app->find("cancel")->frame();
    desk->displays().setMouseLocationTopLeft(Point{f.origin.x + 5, f.origin.y + 5});
    Echo::enableMouseEcho(true);
    desk->runUntilIdle();
    desk->advance(2);
    ASSERT_EQ(spoken(), (std::vector<std::string>{"Cancel"}));
    EXPECT_NEAR(utterances()[0].start, 0.5, 1e-6);
    Echo::enableMouseEcho(false);
}

TEST_F(FocusEchoTest, ApplicationObserversSpeakFocusedValueChangesAndForgetTheRest) {
    auto shared = Echo::instance();
    auto bold = wrap("bold");
    auto observer = shared->observerForElement(bold);
    ASSERT_NE(observer, nullptr);
    EXPECT_EQ(shared->observerForElement(wrap("save")), observer);  // one per application
    ASSERT_EQ(observer->addNotification(bold->element(), "AXValueChanged", nullptr),
              kAXErrorSuccess);

    desk->focus(app->find("bold"));
    desk->post(app->find("bold"), "AXValueChanged");
    desk->advance(5);
    EXPECT_EQ(spoken(), (std::vector<std::string>{"Bold"}));
    EXPECT_EQ(desk->registrationCount(app->find("bold"), "AXValueChanged"), 1u);

    desk->focus(app->find("save"));
    desk->post(app->find("bold"), "AXValueChanged");
    desk->advance(5);
    EXPECT_EQ(spoken().size(), 1u);
    EXPECT_EQ(desk->registrationCount(app->find("bold"), "AXValueChanged"), 0u);

    desk->terminateApplication(app->pid());
    desk->runUntilIdle();
    EXPECT_TRUE(shared->observerMap().empty());
}

}  // namespace
}  // namespace orv::test
