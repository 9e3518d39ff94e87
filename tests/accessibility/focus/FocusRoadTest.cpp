#include <gtest/gtest.h>

#include "accessibility/element/ORVAXElement.h"
#include "accessibility/focus/ORVAXAppTracker.h"
#include "accessibility/focus/ORVAXFocusTracker.h"
#include "support/AgentHarness.h"

namespace orv {
namespace {

using test::area;
using test::FocusDatagram;

// Main display 1440x900: a rectangle at top-left y with height h lands at y' = 900 - y - h.
class FocusRoad : public ::testing::Test {
  protected:
    void SetUp() override {
        auto& editor = h.desk->addApplication(100, "com.example.editor", "Editor");
        ASSERT_TRUE(editor
                        .load(R"(
AXWindow/AXStandardWindow "Doc" [0 22 800 600] #win AXMain=true
  AXButton "OK" [20 60 80 24] #ok
  AXCheckBox "Wrap" [20 100 90 20] #wrap
  AXTextField/AXSecureTextField "Password" [20 140 200 22] #pw
  AXButton "Far" [900 60 80 24] #far
)")
                        .ok());
        auto& mail = h.desk->addApplication(200, "com.example.mail", "Mail");
        ASSERT_TRUE(mail.load(R"(
AXWindow "Inbox" [100 100 600 400] #inbox AXMain=true
  AXButton "Send" [120 130 60 20] #send
)")
                        .ok());
        h.desk->focus(editor.find("ok"));
        h.desk->runUntilIdle();
    }

    sim::SimApp& editor() { return *h.desk->application(100); }
    sim::SimApp& mail() { return *h.desk->application(200); }

    test::AgentHarness h;
};

TEST_F(FocusRoad, TheFocusAtStartUpIsDecidedBeforeTheLinkIsUpAndTheNextChangeIsSent) {
    h.startAgent();
    // Start-up decides the focus in the same turn that makes the socket, so that first area
    // is dropped by the hub; the same rectangle is then not sent again.
    EXPECT_TRUE(h.takeFocusAreas().empty());
    EXPECT_TRUE(ORVAXFocusTracker::currentTracker()->element()->isEqual(
        ORVAXElement::newForElement(h.desk->ref(editor().find("ok")))));
    h.advance(1.0);
    EXPECT_TRUE(h.takeFocusAreas().empty());

    h.desk->focus(editor().find("wrap"));
    h.settle();
    auto areas = h.takeFocusAreas();
    ASSERT_EQ(areas.size(), 1u);
    EXPECT_EQ(areas[0], area(20, 780, 90, 20, 2, 0, 2));
    // The dropped packet never went out: the first one sent carries the first identifier.
    EXPECT_EQ(areas[0].id, "ORVCommReq00000001");
}

TEST_F(FocusRoad, EachFocusChangeSendsOneAreaWithTheTrackersEdgesAndSource) {
    h.startAgent();
    h.takeFocusAreas();

    h.desk->focus(editor().find("wrap"));
    h.settle();
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(20, 780, 90, 20, 2, 0, 2)});

    // A password field reports only its bounds, never a cursor.
    h.desk->focus(editor().find("pw"));
    h.settle();
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(20, 738, 200, 22, 0, 0, 2)});

    // The window itself: horizontal centre, top edge, window source.
    h.desk->focus(editor().find("win"));
    h.settle();
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(0, 278, 800, 600, 0, 1, 6)});

    // Nothing happening: the polls send nothing more.
    h.advance(3.0);
    EXPECT_TRUE(h.takeFocusAreas().empty());
}

TEST_F(FocusRoad, AFocusOutsideItsWindowIsNotVisibleAndSendsTheEmptyArea) {
    h.startAgent();
    h.takeFocusAreas();
    h.desk->focus(editor().find("far"));
    h.settle();
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(0, 0, 0, 0, 0, 0, 0)});
}

TEST_F(FocusRoad, AWindowMoveMovesTheArea) {
    h.startAgent();
    h.takeFocusAreas();
    h.desk->move(editor().find("win"), Point{100, 122});
    h.settle();
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(120, 716, 80, 24, 0, 0, 2)});
}

TEST_F(FocusRoad, AMoveWithoutNotificationIsFoundByTheHalfSecondPoll) {
    h.startAgent();
    h.takeFocusAreas();
    editor().find("ok")->setFrame(Rect(30, 60, 80, 24));  // silent
    h.advance(0.4);
    EXPECT_TRUE(h.takeFocusAreas().empty());
    h.advance(0.2);
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(30, 816, 80, 24, 0, 0, 2)});
}

TEST_F(FocusRoad, AFrontSwitchMovesTrackingToTheNewApplication) {
    h.startAgent();
    h.takeFocusAreas();
    h.desk->focus(mail().find("send"));  // in the background: not followed
    h.settle();
    EXPECT_TRUE(h.takeFocusAreas().empty());

    h.desk->activate(200);
    h.settle();
    EXPECT_EQ(ORVAXAppTracker::activePid(), 200);
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(120, 750, 60, 20, 0, 0, 2)});
    EXPECT_EQ(mail().enhancedUserInterface(), std::optional<bool>(true));
}

TEST_F(FocusRoad, FocusInASystemProcessIsFoundByTheSystemWidePoll) {
    auto& server = h.desk->addApplication(300, "com.example.systemui", "System UI");
    ASSERT_TRUE(server
                    .load(R"(
AXWindow "Panel" [1000 0 200 100] #panel
  AXButton "Volume" [1010 10 50 20] #vol
)")
                    .ok());
    h.startAgent();
    h.takeFocusAreas();
    h.desk->focus(server.find("vol"));
    // The process never comes to the front; the system-wide element reports its focus.
    h.desk->systemWide()->set("AXFocusedUIElement", server.find("vol"));
    h.advance(0.1);
    EXPECT_EQ(ORVAXAppTracker::activePid(), 300);
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(1010, 870, 50, 20, 0, 0, 2)});

    // A steady focus costs one system-wide read per tick (10 a second), beside the focused
    // element claimer's own two polls a second.
    h.desk->calls().reset();
    h.advance(1.0);
    EXPECT_EQ(h.desk->calls().reads("AXFocusedUIElement"), 10u + 2u);
    EXPECT_EQ(h.desk->calls().calls("getPid"), 0u);
}

TEST_F(FocusRoad, AnExcludedApplicationIsLeftWithoutTheEnhancedInterface) {
    h.desk->defaults().setString("setEnhancedUserInterfaceBlacklist", "com.other,com.example.mail");
    h.startAgent();
    h.desk->activate(200);
    h.settle();
    EXPECT_EQ(ORVAXAppTracker::activePid(), 200);
    EXPECT_EQ(mail().enhancedUserInterface(), std::nullopt);
    // The application in front at start-up was switched to before the list was read.
    EXPECT_EQ(editor().enhancedUserInterface(), std::optional<bool>(true));
}

TEST_F(FocusRoad, AreasReachingPastTheOriginAreCutThere) {
    h.startAgent();
    editor().find("win")->set("AXFullScreen", true);  // no clipping to the window
    h.desk->move(editor().find("win"), Point{-40, 22});
    h.settle();
    // The button now starts at x -20: cut to x 0 with 20 taken off its width. Its origin lies
    // on no display; it is flipped as on the nearest, the main one (900 - 60 - 24).
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(0, 816, 60, 24, 0, 0, 2)});
}

TEST(FocusTrackerNormalisation, RoundsThenCutsAtTheOrigin) {
    EXPECT_EQ(ORVAXFocusTracker::normalizedRect(Rect(-10.4, -3.6, 100.5, 50)), Rect(0, 0, 91, 46));
    EXPECT_EQ(ORVAXFocusTracker::normalizedRect(Rect(10.5, 20.5, 0.5, -0.5)), Rect(11, 21, 1, -1));
    EXPECT_EQ(ORVAXFocusTracker::normalizedRect(Rect(-200, 5, 100, 10)), Rect(0, 5, -100, 10));
}

}  // namespace
}  // namespace orv
