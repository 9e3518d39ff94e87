#include <gtest/gtest.h>

#include "accessibility/element/ORVAXElement.h"
#include "accessibility/focus/ORVAXFocusClaimer.h"
#include "platform/sim/SimDesktop.h"

namespace orv {
namespace {

class ApplicationClaimer : public ::testing::Test {
  protected:
    void SetUp() override {
        desk->install();
        editor = &desk->addApplication(100, "com.example.editor", "Editor");
        ASSERT_TRUE(editor
                        ->load(R"(
AXWindow "Doc" [0 22 800 600] #win AXMain=true
  AXButton "OK" [20 60 80 24] #ok
  AXTextField "Name" [20 100 200 22] #name
)")
                        .ok());
        finder = &desk->addApplication(300, "com.apple.finder", "Finder");
        ASSERT_TRUE(finder
                        ->load(R"(
AXScrollArea "Desktop" [0 0 1440 900] #desktop
  AXGroup [0 0 1440 900] #icons
    AXImage "Notes" [1300 40 64 64] #notes
    AXImage "Photos" [1300 140 64 64] #photos
)")
                        .ok());
        empty = &desk->addApplication(400, "com.example.empty", "Empty");
        claimer->observeFocusedElementChanged([this](const ORVAXFocusClaimerRef&) { ++fired; });
    }
    void TearDown() override {
        claimer->untrackCurrentApp();
        desk->uninstall();
    }

    ORVAXElementRef wrap(const sim::SimNodePtr& n) {
        return ORVAXElement::newForElement(desk->ref(n));
    }

    std::shared_ptr<sim::SimDesktop> desk = sim::SimDesktop::create();
    sim::SimApp* editor = nullptr;
    sim::SimApp* finder = nullptr;
    sim::SimApp* empty = nullptr;
    std::shared_ptr<ORVAXApplicationFocusedElementFocusClaimer> claimer =
        ORVAXApplicationFocusedElementFocusClaimer::create();
    int fired = 0;
};

TEST_F(ApplicationClaimer, FollowsTheFocusedElementAndItsChanges) {
    desk->focus(editor->find("ok"));
    desk->runUntilIdle();
    std::vector<ORVAXElementRef> windows;
    claimer->activeWindowChanged.connect([&](const ORVAXElementRef& w) { windows.push_back(w); });

    claimer->trackApplication(ORVAXElement::newForApplication(100));
    EXPECT_EQ(fired, 1);
    ASSERT_TRUE(claimer->wantsFocus());
    EXPECT_TRUE(claimer->focusedElement()->isEqual(wrap(editor->find("ok"))));
    ASSERT_EQ(windows.size(), 1u);
    EXPECT_TRUE(windows[0]->isEqual(wrap(editor->find("win"))));

    // Another wrapper of the same process changes nothing and fires nothing.
    claimer->trackApplication(ORVAXElement::newForApplication(100));
    claimer->trackApplication(nullptr);
    EXPECT_EQ(fired, 1);

    desk->focus(editor->find("name"));
    desk->runUntilIdle();
    EXPECT_EQ(fired, 2);
    EXPECT_TRUE(claimer->focusedElement()->isEqual(wrap(editor->find("name"))));

    // A value change fires while the focused element stays the same object.
    auto before = claimer->focusedElement();
    desk->typeText(editor->find("name"), "x");
    desk->runUntilIdle();
    EXPECT_EQ(fired, 4);  // value and selection changed
    EXPECT_EQ(claimer->focusedElement(), before);
}

TEST_F(ApplicationClaimer, SwitchingToAnApplicationWithoutFocusFiresOnce) {
    desk->focus(editor->find("ok"));
    desk->runUntilIdle();
    claimer->trackApplication(ORVAXElement::newForApplication(100));
    fired = 0;
    claimer->trackApplication(ORVAXElement::newForApplication(400));
    EXPECT_EQ(fired, 1);
    EXPECT_FALSE(claimer->wantsFocus());
    // Nothing further while it stays without focus, poll or not.
    desk->advance(2.0);
    EXPECT_EQ(fired, 1);
}

TEST_F(ApplicationClaimer, ThePollFindsFocusAsSoonAsABusyApplicationAnswers) {
    editor->answerCannotComplete(1000, sim::kSimReads);
    claimer->trackApplication(ORVAXElement::newForApplication(100));
    EXPECT_FALSE(claimer->wantsFocus());
    // The focus notification arrives while the application cannot answer the read it causes.
    desk->focus(editor->find("ok"));
    desk->runUntilIdle();
    EXPECT_FALSE(claimer->wantsFocus());
    editor->answerCannotComplete(0);
    desk->advance(0.49);
    EXPECT_FALSE(claimer->wantsFocus());
    desk->advance(0.02);
    ASSERT_TRUE(claimer->wantsFocus());
    EXPECT_TRUE(claimer->focusedElement()->isEqual(wrap(editor->find("ok"))));
}

TEST_F(ApplicationClaimer, TheFinderDesktopSelectionStandsInForFocusNotifications) {
    desk->focusWindow(finder->find("desktop"));
    finder->root()->set("AXFocusedUIElement", finder->find("notes"));
    desk->runUntilIdle();
    claimer->trackApplication(ORVAXElement::newForApplication(300));
    ASSERT_TRUE(claimer->isFinder());
    ASSERT_NE(claimer->desktopElement(), nullptr);
    EXPECT_TRUE(claimer->desktopElement()->isEqual(wrap(finder->find("icons"))));
    EXPECT_TRUE(claimer->focusedElement()->isEqual(wrap(finder->find("notes"))));

    // Selecting another icon changes the focused element without any focus notification; the
    // icon view's selection change is what arrives. No time passes, so the poll plays no part.
    const int before = fired;
    finder->root()->set("AXFocusedUIElement", finder->find("photos"));
    desk->post(finder->find("icons"), "AXSelectedChildrenChanged");
    desk->runUntilIdle();
    EXPECT_EQ(fired, before + 1);
    EXPECT_TRUE(claimer->focusedElement()->isEqual(wrap(finder->find("photos"))));

    // Another application's desktop-like window is not followed that way.
    claimer->trackApplication(ORVAXElement::newForApplication(100));
    EXPECT_EQ(claimer->desktopElement(), nullptr);
}

}  // namespace
}  // namespace orv
