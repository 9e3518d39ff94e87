#include <gtest/gtest.h>

#include <iostream>

#include "accessibility/element/CountingAccessibilityAPI.h"
#include "accessibility/element/ORVAXElement.h"
#include "platform/sim/SimDesktop.h"
#include "support/LogCapture.h"

using namespace orv;
using namespace orv::sim;

namespace {

// Top-left-origin frames on the default 1440x900 main display; agent y = 900 - y - height.
Rect agent(double x, double y, double w, double h) {
    return Rect(x, 900 - y - h, w, h);
}

class ORVAXElementTest : public ::testing::Test {
  protected:
    void SetUp() override {
        app = &desk->addApplication(100, "com.example.editor", "Editor");
        ASSERT_TRUE(app->load(R"(
AXWindow/AXStandardWindow "Doc" [0 22 800 600] #win
  AXGroup [0 22 800 300] #group
    AXSheet [100 100 400 300] #sheet
      AXButton "Cancel" [120 350 80 100] #cancel
      AXButton "Save" [220 350 80 20] #save
    AXButton "Wide" [700 50 200 20] #wide
    AXMenu [600 30 300 400] #menu
      AXMenuItem "Open" [650 500 200 20] #item
  AXScrollArea [0 100 100 400] #third
    AXScrollArea [0 100 200 400] #second
      AXScrollArea [50 150 300 200] #first
        AXStaticText [40 140 400 100] #text
        AXStaticText [700 700 10 10] #far
AXWindow "Tools" [900 22 300 300] #tools
  AXGroup/AXOuter #outer
    AXGroup/AXInner #inner
      AXCheckBox "Bold" #bold
  AXButton #untitled)")
                        .ok());
        desk->install();
    }
    void TearDown() override { desk->uninstall(); }

    ORVAXElementRef wrap(const char* label) {
        return ORVAXElement::newForElement(desk->ref(app->find(label)));
    }

    std::shared_ptr<SimDesktop> desk = SimDesktop::create();
    SimApp* app = nullptr;
};

TEST_F(ORVAXElementTest, EqualityIsThePlatformsWhileIdentityStaysDistinct) {
    auto a = wrap("save"), b = wrap("save");
    EXPECT_NE(a, b);
    EXPECT_TRUE(a->isEqual(b));
    EXPECT_FALSE(a->isEqual(wrap("cancel")));
    EXPECT_FALSE(a->isEqual(nullptr));
    EXPECT_TRUE(ORVAXElement::newForApplicationWithBundleIdentifier("com.example.editor")
                    ->isEqual(ORVAXElement::newForApplication(100)));
    EXPECT_EQ(ORVAXElement::newForApplicationWithBundleIdentifier("com.example.none"), nullptr);
}

TEST_F(ORVAXElementTest, CachedStringKeepsOnlyWhatCameBack) {
    test::LogCapture log(2);
    auto counter = test::CountingAccessibilityAPI::install();
    auto save = wrap("save");
    app->find("save")->failRead("AXRole", kAXErrorCannotComplete, 1);
    EXPECT_EQ(save->getRole(), std::nullopt);
    EXPECT_EQ(save->getRole(), "AXButton");
    app->find("save")->set("AXRole", AXValue("AXLink"));
    EXPECT_EQ(save->getRole(), "AXButton");  // a snapshot once read
    EXPECT_EQ(counter->reads("AXRole"), 2u);
    EXPECT_EQ(save->getTitle(), "Save");
    EXPECT_EQ(save->getTitle(), "Save");
    EXPECT_EQ(counter->reads("AXTitle"), 1u);
    // Uncached reads see changes.
    app->find("save")->set("AXValue", AXValue("v1"));
    EXPECT_EQ(save->getValue(), "v1");
    app->find("save")->set("AXValue", AXValue("v2"));
    EXPECT_EQ(save->getTextValue(), "v2");
    EXPECT_EQ(save->getValue(), "v1");

    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"(warning) getStringAttribute:AXRole failed - -25204"});
}

TEST_F(ORVAXElementTest, FailuresGiveDefaultsWithTheirWarningOrSilently) {
    test::LogCapture log(2);
    auto save = wrap("save");
    // Routinely absent attributes are silent in the element and string reads only.
    EXPECT_EQ(save->getElementAttribute("AXTitleUIElement"), nullptr);
    EXPECT_EQ(save->getStringAttribute("AXHelp"), std::nullopt);
    EXPECT_EQ(log.count(), 0u);

    EXPECT_EQ(save->getValueAttribute("AXHelp"), std::nullopt);
    EXPECT_EQ(save->getSelectedTextRange(), (Range{-1, 0}));
    EXPECT_EQ(save->getNumberOfCharacters(), -1);
    EXPECT_FALSE(save->isSelected());
    app->find("save")->set("AXSelected", AXValue(1));
    EXPECT_FALSE(save->isSelected());
    EXPECT_EQ(save->getBoundsForRange(Range{0, 1}), Rect());
    EXPECT_EQ(save->getMenuItemCmdGlyph(), std::nullopt);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "(warning) getValueAttribute:AXHelp failed - -25205",
                  "(warning) getRangeAttribute:AXSelectedTextRange failed - -25205",
                  "(warning) getNumberOfCharacters failed - -25205",
                  "(warning) getBoolAttribute:AXSelected failed - -25205",
                  "(warning) getBooleanAttribute:AXSelected returned unexpected type - 2",
                  "(warning) getRectAttribute:AXBoundsForRange forRange:(0,1) failed - -25213",
                  "(warning) getMenuItemCmdGlyph failed - -25205",
              }));
}

TEST_F(ORVAXElementTest, FocusedElementOfAnApplicationFollowsTheSheetRule) {
    auto application = ORVAXElement::newForApplication(100);
    EXPECT_EQ(application->getFocusedElement(), nullptr);
    desk->focusWindow(app->find("sheet"));
    EXPECT_TRUE(application->getFocusedElement()->isEqual(wrap("sheet")));
    app->find("save")->set("AXFocused", AXValue(true));
    EXPECT_TRUE(application->getFocusedElement()->isEqual(wrap("save")));
    desk->focus(app->find("bold"));
    EXPECT_TRUE(application->getFocusedElement()->isEqual(wrap("bold")));
}

TEST_F(ORVAXElementTest, VisibleBoundsTakeTheFirstRuleThatApplies) {
    EXPECT_EQ(wrap("save")->getBounds(), agent(220, 350, 80, 20));
    EXPECT_EQ(wrap("bold")->getBounds(), Rect());
    // Sheet before group.
    EXPECT_EQ(wrap("cancel")->getVisibleBounds(), agent(120, 350, 80, 50));
    EXPECT_EQ(wrap("wide")->getVisibleBounds(), agent(700, 50, 100, 20));
    EXPECT_EQ(wrap("item")->getVisibleBounds(), agent(650, 500, 200, 20));  // menus: unclipped
    // The nearest scroll area and the one around it clip; a third does not.
    EXPECT_EQ(wrap("text")->getVisibleBounds(), agent(50, 150, 150, 90));
    EXPECT_TRUE(wrap("far")->getVisibleBounds().isNull());
}

TEST_F(ORVAXElementTest, TextBoundsComeInAgentCoordinates) {
    auto text = app->find("text");
    text->setParameterized("AXBoundsForRange", AXValue(Rect(40, 140, 7, 16)));
    text->setParameterized("AXTextMarkerRangeForUnorderedTextMarkers",
                           [](const AXValue& markers, AXValue* out) {
                               const auto* pair = markers.get<AXArray>();
                               if (!pair || pair->size() != 2 || !((*pair)[0] == (*pair)[1]))
                                   return kAXErrorIllegalArgument;
                               *out = AXTextMarkerRange{"caret"};
                               return kAXErrorSuccess;
                           });
    text->setParameterized("AXBoundsForTextMarkerRange", [](const AXValue& range, AXValue* out) {
        *out = range == AXValue(AXTextMarkerRange{"caret"}) ? Rect(47, 140, 1, 16) : Rect();
        return kAXErrorSuccess;
    });
    auto wrapper = wrap("text");
    EXPECT_EQ(wrapper->getBoundsForRange(Range{0, 1}), agent(40, 140, 7, 16));
    EXPECT_EQ(wrapper->getBoundsForTextMarker(AXValue(AXTextMarker{"m"})), agent(47, 140, 1, 16));
}

TEST_F(ORVAXElementTest, ParentSearches) {
    auto bold = wrap("bold");
    EXPECT_TRUE(bold->getParentWithRole("AXGroup", "AXOuter")->isEqual(wrap("outer")));
    EXPECT_TRUE(bold->getParentWithRole("AXGroup")->isEqual(wrap("inner")));
    EXPECT_EQ(bold->getParentWithRole("AXGroup", "AXNone"), nullptr);
    EXPECT_EQ(bold->getParentWithRole("AXCheckBox"), nullptr);
    EXPECT_EQ(bold->getParentOrSelfWithRole("AXCheckBox"), bold);
    EXPECT_TRUE(bold->isDescendantOf("AXCheckBox"));
    EXPECT_TRUE(bold->isDescendantOf("AXApplication"));
    EXPECT_FALSE(bold->isDescendantOf("AXSheet"));
    app->find("untitled")->set("AXIdentifier", AXValue("apply"));
    EXPECT_TRUE(wrap("tools")->childWithIdentifier("apply")->isEqual(wrap("untitled")));
    EXPECT_EQ(wrap("tools")->childWithIdentifier("Apply"), nullptr);
}

TEST_F(ORVAXElementTest, PathForms) {
    EXPECT_EQ(wrap("bold")->getPath(),
              "com.example.editor:AXApplication (Editor)\\AXWindow (Tools)\\AXGroup\\AXGroup\\"
              "AXCheckBox (Bold)");
    app->find("untitled")->set("AXTitle", AXValue(""));
    EXPECT_EQ(wrap("untitled")->getPath(),
              "com.example.editor:AXApplication (Editor)\\AXWindow (Tools)\\AXButton ()");
    app->root()->remove("AXTitle");
    EXPECT_EQ(ORVAXElement::newForApplication(100)->getPath(), "com.example.editor:AXApplication");
}

TEST_F(ORVAXElementTest, ArrayGettersSwallowOnlyPlatformRaises) {
    auto application = ORVAXElement::newForApplication(100);
    ASSERT_EQ(application->getChildren()->size(), 2u);
    app->root()->raiseOnRead("AXChildren", "busy building");
    auto children = application->getChildren();
    ASSERT_TRUE(children.has_value());
    EXPECT_TRUE(children->empty());
    EXPECT_THROW(application->getElementArrayAttribute("AXChildren"), PlatformException);
    app->root()->clearFaults();
    app->root()->failRead("AXChildren", kAXErrorFailure);
    EXPECT_FALSE(application->getChildren().has_value());
}

TEST_F(ORVAXElementTest, SettableTest) {
    auto root = desk->ref(app->root());
    EXPECT_EQ(ORVAXElement::isAttribute("AXEnhancedUserInterface", root), kAXErrorSuccess);
    EXPECT_EQ(ORVAXElement::isAttribute("AXTitle", root), kAXErrorFailure);
    EXPECT_EQ(ORVAXElement::isAttribute("AXNoSuchThing", root), kAXErrorFailure);
    app->root()->failRead("AXAttributeNames", kAXErrorCannotComplete, 1);
    EXPECT_EQ(ORVAXElement::isAttribute("AXEnhancedUserInterface", root), kAXErrorCannotComplete);
}

TEST_F(ORVAXElementTest, EnhancedInterfaceRetriesOnlyWhileBusyAndAtMost51Times) {
    auto* loop = desk->virtualLoop();
    app->answerCannotComplete(1000, kSimSets);
    // The pending retry alone keeps the wrapper alive.
    wrap("save")->setEnhancedUserInterface();
    EXPECT_EQ(desk->setAttempts("AXEnhancedUserInterface"), 1u);
    desk->advance(0.09);
    EXPECT_EQ(desk->setAttempts("AXEnhancedUserInterface"), 1u);
    desk->advance(0.02);
    EXPECT_EQ(desk->setAttempts("AXEnhancedUserInterface"), 2u);
    desk->advance(60);
    EXPECT_EQ(desk->setAttempts("AXEnhancedUserInterface"), 51u);
    EXPECT_EQ(loop->pendingCount(), 0u);

    app->answerCannotComplete(2, kSimSets);
    wrap("save")->setEnhancedUserInterface();
    desk->advance(1);
    EXPECT_EQ(desk->setAttempts("AXEnhancedUserInterface"), 54u);
    EXPECT_EQ(app->enhancedUserInterface(), true);

    app->root()->failSet("AXEnhancedUserInterface", kAXErrorFailure);
    wrap("save")->setEnhancedUserInterface();
    EXPECT_EQ(loop->pendingCount(), 0u);

    test::LogCapture log(2);
    app->root()->setSettable("AXEnhancedUserInterface", false);
    wrap("save")->setEnhancedUserInterface();
    EXPECT_EQ(desk->setAttempts("AXEnhancedUserInterface"), 55u);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"(warning) ORVAXElement -retrySetEnhancedUserInterface: "
                                       "AXEnhancedUserInterface not settable: -25200"});
}

TEST_F(ORVAXElementTest, SystemWideElementAndHitTest) {
    auto wide = ORVAXElement::systemWide();
    EXPECT_EQ(ORVAXElement::systemWide(), wide);
    EXPECT_EQ(desk->systemWide()->messagingTimeout(), 0.25f);
    EXPECT_TRUE(ORVAXElement::newAtPosition(Point{230, 900 - 360})->isEqual(wrap("save")));

    // A new desktop gets a system-wide element of its own.
    auto other = SimDesktop::create();
    other->install();
    EXPECT_NE(ORVAXElement::systemWide(), wide);
    EXPECT_EQ(other->systemWide()->messagingTimeout(), 0.25f);
    desk->install();
}

// Each platform call is a round trip to another process: the cached getters must not repeat them.
TEST_F(ORVAXElementTest, RoundTripsOfCachedGettersAndPath) {
    auto* node = app->find("tools").get();
    for (int depth = 2; depth <= 10; ++depth) node = node->addChild("AXGroup", "Level").get();
    auto deep = ORVAXElement::newForElement(desk->ref(node->shared_from_this()));
    ASSERT_EQ(node->depth(), 10);

    auto counter = test::CountingAccessibilityAPI::install();
    const std::string path = deep->getPath();
    const size_t first = counter->total();
    RecordProperty("getPathRoundTripsDepth10", static_cast<int>(first));
    std::cout << "getPath of an element 10 levels deep: " << first << " platform calls\n";
    // Per level (application included) one parent, one role and one title read, plus the pid.
    EXPECT_EQ(first, 3u * 11 + 1);
    deep->getRole();
    deep->getTitle();
    EXPECT_EQ(deep->getPath(), path);
    EXPECT_EQ(deep->getTitle(), "Level");
    EXPECT_EQ(deep->getRole(), "AXGroup");
    EXPECT_EQ(counter->total(), first + 1);  // the first getTitle: the path reads it uncached

    const size_t before = counter->total();
    ORVAXElement::newForElement(desk->ref(app->find("text")))->getVisibleBounds();
    std::cout << "getVisibleBounds, two nested scroll areas in a third: "
              << counter->total() - before << " platform calls\n";
}

}  // namespace
