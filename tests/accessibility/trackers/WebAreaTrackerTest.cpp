#include <gtest/gtest.h>

#include "support/FocusShape.h"
#include "accessibility/element/ORVAXElement.h"
#include "accessibility/focus/ORVAXFocusTracker.h"
#include "accessibility/trackers/ORVAXWebAreaElementTracker.h"
#include "platform/sim/SimDesktop.h"

namespace orv {
namespace {

// The page's text: "Hello world" (indexes 0-11), an image (11-12), "second line" (12-23). Cells
// of the first run start at (12, 72), 8 x 16: index i is at x = 12 + 8i, agent y = 812.
const char* const kPage = R"(
AXWindow "Browser" [0 22 1000 700] #win
  AXScrollArea [0 60 1000 660] #scroll
    AXWebArea "Page" [0 60 1000 660] #web AXURL=url("x-webdoc://message/1")
      AXGroup [10 70 500 40] #para
        AXStaticText [10 70 400 20] #t1 AXValue="Hello world"
        AXImage [410 70 20 20] #img
        AXStaticText [10 90 400 20] #t2 AXValue="second line"
)";

class WebAreaTrackers : public ::testing::Test {
  protected:
    void SetUp() override {
        desk->install();
        ORVAXWebAreaElementTracker::resetClassStateForTesting();
    }
    void TearDown() override {
        ORVAXFocusTracker::resetForTesting();
        ORVAXWebAreaElementTracker::resetClassStateForTesting();
        desk->uninstall();
    }

    sim::SimApp& addApp(pid_t pid, const std::string& bundle) {
        auto& app = desk->addApplication(pid, bundle, "Reader");
        EXPECT_TRUE(app.load(kPage).ok());
        return app;
    }
    std::shared_ptr<ORVAXWebAreaElementTracker> trackerFor(sim::SimApp& app, const char* label) {
        return std::dynamic_pointer_cast<ORVAXWebAreaElementTracker>(
            ORVAXElementTracker::newFor(ORVAXElement::newForElement(desk->ref(app.find(label))),
                                        ORVAXElement::newForApplication(app.pid())));
    }
    static std::string shape(const ORVOrientedRectRef& r) { return test::focusShape(r); }

    std::shared_ptr<sim::SimDesktop> desk = sim::SimDesktop::create();
};

TEST_F(WebAreaTrackers, ACollapsedCursorIsNewOnceAndOnlyInsideText) {
    auto& app = addApp(100, "com.example.browser");
    auto web = app.find("web");
    auto t = trackerFor(app, "web");
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(shape(t->focus()), "nil") << "no selection yet";

    desk->moveWebCaret(web, 3);
    EXPECT_EQ(shape(t->focus()), "{{36, 812}, {1, 16}} 0,0 1");
    EXPECT_EQ(shape(t->focus()), "{{36, 812}, {1, 16}} 0,0 8");
    // The last index is shared: another web area's tracker at the same index is not new.
    EXPECT_EQ(trackerFor(app, "para")->focus()->source(), 8u);

    // A caret inside the image reports nothing, and so nothing is visible.
    desk->moveWebCaretInto(app.find("img"), 0);
    EXPECT_EQ(shape(t->focus()), "nil");
    EXPECT_EQ(t->visibleFocus(), nullptr);

    // A group of the page follows the same caret.
    desk->moveWebCaret(web, 14);
    auto group = trackerFor(app, "para");
    EXPECT_STREQ(group->className(), "ORVAXWebAreaElementTracker");
    EXPECT_EQ(shape(group->focus()), "{{28, 792}, {1, 16}} 0,0 1");
}

TEST_F(WebAreaTrackers, ASelectionReportsTheEndThatMoved) {
    auto& app = addApp(100, "com.example.browser");
    auto web = app.find("web");
    desk->moveWebCaret(web, 3);
    auto t = trackerFor(app, "web");  // starts from the caret at 3

    desk->selectWebText(web, 3, 5);  // extended to the right: the end marker only
    EXPECT_EQ(shape(t->focus()), "{{52, 812}, {1, 16}} 0,0 1");
    EXPECT_EQ(t->focus()->source(), 1u) << "a selection is never an unmoved caret";
    desk->selectWebText(web, 1, 5);  // then to the left: the start marker only
    EXPECT_EQ(shape(t->focus()), "{{20, 812}, {1, 16}} 0,0 1");
    // Both ends moved: the whole range, over the image and into the second run.
    desk->selectWebText(web, 0, 14);
    EXPECT_EQ(shape(t->focus()), "{{12, 792}, {418, 38}} 0,0 1");

    // No selection any more: nothing, and the last markers are kept.
    web->set("AXSelectedTextMarkerRange", AXValue());
    EXPECT_EQ(shape(t->focus()), "nil");
    EXPECT_TRUE(t->prevStartMarker().has_value());
}

TEST_F(WebAreaTrackers, TheUserDefaultAndTheMailMessageViewSwitchTrackingOff) {
    auto& browser = addApp(100, "com.example.browser");
    auto& mail = addApp(200, "com.apple.mail");
    auto& nameless = addApp(300, "");
    desk->moveWebCaret(browser.find("web"), 3);
    desk->moveWebCaret(mail.find("web"), 3);
    desk->moveWebCaret(nameless.find("web"), 3);

    // The message view of mail (and of an application that cannot be told from it) is off;
    // the same page elsewhere, or another page in mail, is followed.
    EXPECT_EQ(shape(trackerFor(mail, "web")->focus()), "nil");
    EXPECT_EQ(shape(trackerFor(nameless, "web")->focus()), "nil");
    EXPECT_NE(trackerFor(browser, "web")->focus(), nullptr);
    mail.find("web")->set("AXURL", AXURL{"https://example.com/"});
    EXPECT_NE(trackerFor(mail, "web")->focus(), nullptr);

    // The default is read once: a change shows only after a restart.
    desk->defaults().setString("AllowFocusInAXWebArea", "NO");
    EXPECT_TRUE(trackerFor(browser, "web")->allowFocusInAXWebArea());
    ORVAXWebAreaElementTracker::resetClassStateForTesting();
    auto off = trackerFor(browser, "web");
    EXPECT_EQ(off->focus(), nullptr);
    EXPECT_EQ(off->visibleFocus(), nullptr);
    EXPECT_EQ(desk->defaults().registered().at("AllowFocusInAXWebArea"), "YES");
}

}  // namespace
}  // namespace orv
