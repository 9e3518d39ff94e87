#include <gtest/gtest.h>

#include "support/FocusShape.h"
#include "accessibility/element/ORVAXElement.h"
#include "accessibility/focus/ORVAXFocusTracker.h"
#include "accessibility/trackers/ORVAXElementTracker.h"
#include "platform/sim/SimDesktop.h"

namespace orv {
namespace {

class ElementTrackers : public ::testing::Test {
  protected:
    void SetUp() override {
        desk->install();
        app = &desk->addApplication(100, "com.example.app", "App");
        ASSERT_TRUE(app->load(R"(
AXWindow "Doc" [0 22 800 600] #win
  AXTextField/AXSecureTextField "Password" [20 60 200 22] #pw
  AXTextField "Name" [20 100 200 22] #name
  AXCheckBox "Wrap" [20 140 90 20] #wrap
  AXRadioButton "One" [20 180 90 20] #radio
  AXMenuItem "Open" [780 200 100 20] #item
  AXSheet "Save" [100 50 300 200] #sheet
    AXButton "Save" [300 200 80 24] #default
  AXButton "Outside" [900 60 80 24] #outside
  AXGroup [20 300 100 100] #nameless AXRole=none
  AXTextArea [20 420 200 100] #area
  AXComboBox [20 530 200 22] #combo
  AXGroup [300 300 50 50] #group
  AXWebArea [400 300 300 200] #web
    AXGroup [410 310 100 50] #webgroup
AXWindow/AXNotificationCenterAlert "Alert" [1000 30 300 80] #alert
AXWindow/AXNotificationCenterBanner "Banner" [1000 130 300 80] #banner
AXMenu [10 30 200 300] #menu
)")
                        .ok());
        appElement = ORVAXElement::newForApplication(100);
    }
    void TearDown() override {
        ORVAXFocusTracker::resetForTesting();
        desk->uninstall();
    }

    ORVAXElementTrackerRef trackerFor(const char* label) {
        return ORVAXElementTracker::newFor(ORVAXElement::newForElement(desk->ref(app->find(label))),
                                           appElement);
    }
    static std::string shape(const ORVOrientedRectRef& r) { return test::focusShape(r); }

    std::shared_ptr<sim::SimDesktop> desk = sim::SimDesktop::create();
    sim::SimApp* app = nullptr;
    ORVAXElementRef appElement;
};

TEST_F(ElementTrackers, TheFactoryPicksByRoleAndSubroleInItsOrder) {
    EXPECT_STREQ(trackerFor("pw")->className(), "ORVAXElementTracker");
    EXPECT_STREQ(trackerFor("name")->className(), "ORVAXPlainTextElementTracker");
    EXPECT_STREQ(trackerFor("area")->className(), "ORVAXPlainTextElementTracker");
    EXPECT_STREQ(trackerFor("combo")->className(), "ORVAXComboBoxElementTracker");
    EXPECT_STREQ(trackerFor("web")->className(), "ORVAXWebAreaElementTracker");
    EXPECT_STREQ(trackerFor("webgroup")->className(), "ORVAXWebAreaElementTracker");
    // Groups outside web content wait for the children-based tracker.
    EXPECT_STREQ(trackerFor("group")->className(), "ORVAXElementTracker");
    EXPECT_STREQ(trackerFor("wrap")->className(), "ORVAXOptionElementTracker");
    EXPECT_STREQ(trackerFor("radio")->className(), "ORVAXOptionElementTracker");
    EXPECT_STREQ(trackerFor("alert")->className(), "ORVAXNotificationCenterAlertTracker");
    EXPECT_STREQ(trackerFor("banner")->className(), "ORVAXNotificationCenterBannerTracker");
    EXPECT_STREQ(trackerFor("win")->className(), "ORVAXWindowTracker");
    EXPECT_STREQ(trackerFor("menu")->className(), "ORVAXMenuTracker");
    EXPECT_STREQ(trackerFor("item")->className(), "ORVAXMenuItemTracker");
    EXPECT_STREQ(trackerFor("sheet")->className(), "ORVAXSheetTracker");
    EXPECT_STREQ(trackerFor("nameless")->className(), "ORVAXElementTracker");
    EXPECT_TRUE(ORVAXElementTracker::shouldIgnore(nullptr));
}

TEST_F(ElementTrackers, EachKindReportsItsBoundsEdgesAndSource) {
    // Main display height 900: top-left y becomes 900 - y - h.
    EXPECT_EQ(shape(trackerFor("pw")->focus()), "{{20, 818}, {200, 22}} 0,0 2");
    EXPECT_EQ(shape(trackerFor("wrap")->focus()), "{{20, 740}, {90, 20}} 2,0 2");
    EXPECT_EQ(shape(trackerFor("alert")->focus()), "{{1000, 790}, {300, 80}} 2,0 3");
    EXPECT_EQ(shape(trackerFor("banner")->focus()), "{{1000, 690}, {300, 80}} 2,0 4");
    EXPECT_EQ(shape(trackerFor("win")->focus()), "{{0, 278}, {800, 600}} 0,1 6");
    EXPECT_EQ(shape(trackerFor("menu")->focus()), "{{10, 570}, {200, 300}} 2,1 5");
    // A menu item reaching past its window reports its full bounds.
    EXPECT_EQ(shape(trackerFor("item")->focus()), "{{780, 680}, {100, 20}} 2,0 5");
    // A sheet reports its default button, else itself.
    app->find("sheet")->set("AXDefaultButton", app->find("default"));
    EXPECT_EQ(shape(trackerFor("sheet")->focus()), "{{300, 676}, {80, 24}} 0,0 2");
    app->find("sheet")->set("AXDefaultButton", AXValue());
    EXPECT_EQ(shape(trackerFor("sheet")->focus()), "{{100, 650}, {300, 200}} 0,0 2");
    app->find("sheet")->raiseOnRead("AXDefaultButton", "raised");
    EXPECT_EQ(shape(trackerFor("sheet")->focus()), "{{100, 650}, {300, 200}} 0,0 2");
}

TEST_F(ElementTrackers, VisibleFocusClipsToANonFullScreenWindowOnly) {
    auto outside = trackerFor("outside");
    EXPECT_EQ(outside->visibleFocus(), nullptr);
    app->find("win")->set("AXFullScreen", true);
    auto again = trackerFor("outside");
    ASSERT_NE(again->visibleFocus(), nullptr);
    EXPECT_EQ(again->visibleFocus()->rect(), Rect(900, 816, 80, 24));

    // A menu item half outside its window stays visible and keeps its full rectangle.
    app->find("win")->set("AXFullScreen", false);
    auto item = trackerFor("item");
    ASSERT_NE(item->visibleFocus(), nullptr);
    EXPECT_EQ(item->visibleFocus()->rect().size.width, 100);
}

TEST_F(ElementTrackers, OnlyTheRectangleDecidesWhetherTheVisibleFocusChanged) {
    class Switching : public ORVAXElementTracker {
      public:
        ORVOrientedRectRef focus() override {
            return ORVOrientedRect::initWithRect(rect, edge, 0, 2);
        }
        Rect rect{10, 10, 10, 10};
        uint32_t edge = 0;
    };
    auto t = std::make_shared<Switching>();
    t->initFor(nullptr, nullptr);
    auto first = t->visibleFocus();
    t->edge = 2;
    EXPECT_EQ(t->visibleFocus(), first);  // same rectangle: the old object stays
    t->rect = Rect::null();
    EXPECT_EQ(t->visibleFocus(), nullptr);
    t->rect = Rect();  // zero after nil: equal to "nothing", still nil
    EXPECT_EQ(t->visibleFocus(), nullptr);
}

TEST_F(ElementTrackers, ThePollStartsOnceAndReportsMovesOnly) {
    auto t = trackerFor("wrap");
    t->start();
    t->start();
    t->stop();
    t->stop();
    EXPECT_FALSE(t->isPolling());
    trackerFor("win")->stop();  // never started: harmless

    // The poll keeps the tracker alive and notices moves without notifications.
    std::weak_ptr<ORVAXElementTracker> weak;
    {
        auto polled = trackerFor("wrap");
        polled->start();
        weak = polled;
    }
    ASSERT_FALSE(weak.expired());
    desk->advance(0.5);
    auto first = weak.lock()->lastVisibleFocus();
    ASSERT_NE(first, nullptr);
    desk->advance(1.0);
    EXPECT_EQ(weak.lock()->lastVisibleFocus(), first);
    app->find("wrap")->setFrame(Rect(30, 140, 90, 20));
    desk->advance(0.5);
    EXPECT_EQ(weak.lock()->lastVisibleFocus()->rect().origin.x, 30);
    weak.lock()->stop();
    EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace orv
