#include <gtest/gtest.h>

#include "platform/sim/SimDesktop.h"

using namespace orv;
using namespace orv::sim;

namespace {

class SimAccessibilityTest : public ::testing::Test {
  protected:
    void SetUp() override {
        auto& app = desk->addApplication(100, "com.example.editor", "Editor");
        ASSERT_TRUE(app.load(R"(
AXWindow/AXStandardWindow "Doc" [0 22 800 600] #win
  AXGroup [0 22 800 600] #group
    AXButton "OK" [700 580 80 30] #ok
    AXTextField [20 60 200 22] #field AXValue="hello"
AXMenuBar [0 0 1440 22] #menubar)")
                        .ok());
        editor = &app;
    }

    AXValue read(const SimNodePtr& n, const std::string& attr, AXError expect = kAXErrorSuccess) {
        AXValue v;
        EXPECT_EQ(ax().copyAttributeValue(desk->ref(n), attr, &v), expect) << attr;
        return v;
    }
    SimNodePtr readNode(const SimNodePtr& n, const std::string& attr) {
        AXValue v = read(n, attr);
        auto e = v.get<AXUIElementRef>();
        return e ? desk->node(*e) : nullptr;
    }
    SimAccessibility& ax() { return desk->ax(); }
    SimNodePtr find(const char* label) { return editor->find(label); }

    std::shared_ptr<SimDesktop> desk = SimDesktop::create();
    SimApp* editor = nullptr;
};

TEST_F(SimAccessibilityTest, EveryReadGivesAFreshReferenceEqualToTheOthers) {
    AXValue a = read(find("ok"), "AXParent");
    AXValue b = read(find("ok"), "AXParent");
    auto ra = *a.get<AXUIElementRef>(), rb = *b.get<AXUIElementRef>();
    EXPECT_NE(ra.get(), rb.get());
    EXPECT_TRUE(ra->equals(*rb));
    EXPECT_EQ(ra->hash(), rb->hash());
    EXPECT_TRUE(axEqual(ra, desk->ref(find("group"))));
    EXPECT_FALSE(axEqual(ra, desk->ref(find("win"))));

    // Stored element values are handed out fresh as well.
    find("field")->set("AXTitleUIElement", find("ok"));
    auto t1 = *read(find("field"), "AXTitleUIElement").get<AXUIElementRef>();
    auto t2 = *read(find("field"), "AXTitleUIElement").get<AXUIElementRef>();
    EXPECT_NE(t1.get(), t2.get());
    EXPECT_TRUE(axEqual(t1, t2));

    // Application elements are keyed by process, however they were obtained.
    auto parentOfWindow = *read(find("win"), "AXParent").get<AXUIElementRef>();
    EXPECT_TRUE(axEqual(parentOfWindow, ax().createApplication(100)));
    EXPECT_FALSE(axEqual(parentOfWindow, ax().createApplication(101)));
    EXPECT_TRUE(axEqual(ax().createSystemWide(), ax().createSystemWide()));
}

TEST_F(SimAccessibilityTest, TreeAttributesAreDerived) {
    AXValue kids = read(editor->root(), "AXChildren");
    ASSERT_EQ(kids.get<AXArray>()->size(), 2u);
    EXPECT_EQ(read(editor->root(), "AXWindows").get<AXArray>()->size(), 1u);
    EXPECT_EQ(readNode(editor->root(), "AXMenuBar"), find("menubar"));
    EXPECT_EQ(readNode(find("ok"), "AXTopLevelUIElement"), find("win"));
    EXPECT_EQ(*read(find("ok"), "AXPosition").get<Point>(), (Point{700, 580}));
    EXPECT_EQ(*read(find("ok"), "AXSize").get<Size>(), (Size{80, 30}));
    EXPECT_EQ(*read(editor->root(), "AXTitle").get<std::string>(), "Editor");
    read(editor->root(), "AXParent", kAXErrorAttributeUnsupported);
    read(find("ok"), "AXNoSuchThing", kAXErrorAttributeUnsupported);
    read(editor->root(), "AXFocusedUIElement", kAXErrorNoValue);

    desk->focus(find("field"));
    EXPECT_EQ(readNode(editor->root(), "AXFocusedUIElement"), find("field"));
    EXPECT_EQ(readNode(editor->root(), "AXFocusedWindow"), find("win"));
    EXPECT_EQ(readNode(editor->root(), "AXMainWindow"), find("win"));
    EXPECT_TRUE(*read(find("field"), "AXFocused").get<bool>());
    EXPECT_FALSE(*read(find("ok"), "AXFocused").get<bool>());

    // The system-wide element follows the frontmost application unless told otherwise.
    auto& other = desk->addApplication(200, "com.example.other", "Other");
    auto otherField =
        other.root()->addChild("AXWindow", "W", Rect(0, 0, 10, 10))->addChild("AXTextField");
    desk->focus(otherField);
    EXPECT_TRUE(*read(editor->root(), "AXFrontmost").get<bool>());
    EXPECT_EQ(readNode(desk->systemWide(), "AXFocusedUIElement"), find("field"));
    desk->activate(200);
    EXPECT_EQ(readNode(desk->systemWide(), "AXFocusedUIElement"), otherField);
    EXPECT_FALSE(*read(editor->root(), "AXFrontmost").get<bool>());
    desk->systemWide()->set("AXFocusedUIElement", find("ok"));
    EXPECT_EQ(readNode(desk->systemWide(), "AXFocusedUIElement"), find("ok"));
}

TEST_F(SimAccessibilityTest, HitTestingFindsTheDeepestElementFrontApplicationFirst) {
    AXUIElementRef out;
    ASSERT_EQ(ax().copyElementAtPosition(ax().createSystemWide(), 710, 590, &out), kAXErrorSuccess);
    EXPECT_EQ(desk->node(out), find("ok"));
    ASSERT_EQ(ax().copyElementAtPosition(ax().createSystemWide(), 400, 400, &out), kAXErrorSuccess);
    EXPECT_EQ(desk->node(out), find("group"));
    // A parent's frame does not hide a child reaching outside it; the window's does.
    find("group")->setFrame(Rect(0, 22, 400, 300));
    ASSERT_EQ(ax().copyElementAtPosition(ax().createSystemWide(), 710, 590, &out), kAXErrorSuccess);
    EXPECT_EQ(desk->node(out), find("ok"));
    find("ok")->setFrame(Rect(790, 580, 80, 30));
    ASSERT_EQ(ax().copyElementAtPosition(ax().createSystemWide(), 810, 590, &out), kAXErrorNoValue);
    find("ok")->setFrame(Rect(700, 580, 80, 30));

    auto& other = desk->addApplication(200, "com.example.other", "Other");
    auto cover = other.root()->addChild("AXWindow", "Cover", Rect(600, 500, 300, 300));
    ASSERT_EQ(ax().copyElementAtPosition(ax().createSystemWide(), 710, 590, &out), kAXErrorSuccess);
    EXPECT_EQ(desk->node(out), find("ok"));
    desk->activate(200);
    ASSERT_EQ(ax().copyElementAtPosition(ax().createSystemWide(), 710, 590, &out), kAXErrorSuccess);
    EXPECT_EQ(desk->node(out), cover);
    // Asked of one application, only its windows count.
    ASSERT_EQ(ax().copyElementAtPosition(ax().createApplication(100), 710, 590, &out),
              kAXErrorSuccess);
    EXPECT_EQ(desk->node(out), find("ok"));
    EXPECT_EQ(ax().copyElementAtPosition(ax().createSystemWide(), 5000, 5000, &out),
              kAXErrorNoValue);
    EXPECT_EQ(out, nullptr);
}

TEST_F(SimAccessibilityTest, SettingAttributesFollowsSettableFlagsAndIsRecorded) {
    auto app = ax().createApplication(100);
    std::vector<std::string> names;
    ASSERT_EQ(ax().copyAttributeNames(app, &names), kAXErrorSuccess);
    EXPECT_NE(std::find(names.begin(), names.end(), "AXEnhancedUserInterface"), names.end());
    bool settable = false;
    EXPECT_EQ(ax().isAttributeSettable(app, "AXEnhancedUserInterface", &settable), kAXErrorSuccess);
    EXPECT_TRUE(settable);
    EXPECT_FALSE(editor->enhancedUserInterface());
    EXPECT_EQ(ax().setAttributeValue(app, "AXEnhancedUserInterface", AXValue(true)),
              kAXErrorSuccess);
    EXPECT_EQ(editor->enhancedUserInterface(), true);

    EXPECT_EQ(ax().isAttributeSettable(desk->ref(find("ok")), "AXTitle", &settable),
              kAXErrorSuccess);
    EXPECT_FALSE(settable);
    EXPECT_EQ(ax().setAttributeValue(desk->ref(find("ok")), "AXTitle", AXValue("No")),
              kAXErrorAttributeUnsupported);
    EXPECT_EQ(find("ok")->title(), "OK");
    find("ok")->remove("AXTitle");
    ASSERT_EQ(ax().copyAttributeNames(desk->ref(find("ok")), &names), kAXErrorSuccess);
    EXPECT_EQ(std::find(names.begin(), names.end(), "AXTitle"), names.end());

    ASSERT_EQ(desk->setRecords().size(), 2u);
    EXPECT_EQ(desk->setRecords()[1].result, kAXErrorAttributeUnsupported);
    EXPECT_EQ(desk->setAttempts("AXEnhancedUserInterface"), 1u);

    EXPECT_EQ(ax().setMessagingTimeout(ax().createSystemWide(), 0.25f), kAXErrorSuccess);
    EXPECT_EQ(desk->systemWide()->messagingTimeout(), 0.25f);
}

TEST_F(SimAccessibilityTest, InjectedFailures) {
    auto ok = find("ok");
    ok->failRead("AXTitle", kAXErrorCannotComplete, 2);
    read(ok, "AXTitle", kAXErrorCannotComplete);
    read(ok, "AXTitle", kAXErrorCannotComplete);
    EXPECT_EQ(*read(ok, "AXTitle").get<std::string>(), "OK");

    ok->set("AXDescription", AXValue());
    read(ok, "AXDescription", kAXErrorNoValue);

    editor->root()->raiseOnRead("AXChildren", "array build failed");
    AXValue v;
    try {
        ax().copyAttributeValue(desk->ref(editor->root()), "AXChildren", &v);
        ADD_FAILURE() << "no exception";
    } catch (const PlatformException& e) {
        EXPECT_EQ(e.reason(), "array build failed");
    }

    // A busy application refuses the chosen calls, then answers.
    editor->answerCannotComplete(3, kSimSets);
    auto app = ax().createApplication(100);
    for (int i = 0; i < 3; ++i) {
        read(ok, "AXRole");
        EXPECT_EQ(ax().setAttributeValue(app, "AXEnhancedUserInterface", AXValue(true)),
                  kAXErrorCannotComplete);
    }
    EXPECT_EQ(ax().setAttributeValue(app, "AXEnhancedUserInterface", AXValue(true)),
              kAXErrorSuccess);

    // Terminated: every element, old references included, is invalid; the pid stays known.
    auto okRef = desk->ref(ok);
    AXObserverRef observer;
    ax().createObserver(
        100, [&](auto&, auto&, auto&, void*) { ADD_FAILURE() << "ended app posted"; }, &observer);
    observer->attachToMainLoop();
    observer->addNotification(app, "AXMoved", nullptr);
    desk->terminateApplication(100);
    desk->move(ok, Point{1, 1});
    desk->runUntilIdle();
    EXPECT_EQ(ax().copyAttributeValue(okRef, "AXRole", &v), kAXErrorInvalidUIElement);
    EXPECT_EQ(ax().copyAttributeValue(app, "AXRole", &v), kAXErrorInvalidUIElement);
    pid_t pid = 0;
    EXPECT_EQ(ax().getPid(okRef, &pid), kAXErrorSuccess);
    EXPECT_EQ(pid, 100);
    EXPECT_EQ(ax().copyAttributeValue(ax().createApplication(4242), "AXRole", &v),
              kAXErrorInvalidUIElement);
}

TEST_F(SimAccessibilityTest, CountsEveryCallPerOperationAndAttribute) {
    auto ok = desk->ref(find("ok"));
    AXValue v;
    ax().copyAttributeValue(ok, "AXRole", &v);
    ax().copyAttributeValue(ok, "AXRole", &v);
    ax().copyAttributeValue(ok, "AXParent", &v);
    ax().copyParameterizedAttributeValue(desk->ref(find("field")), "AXBoundsForRange",
                                         AXValue(Range{0, 1}), &v);
    pid_t pid;
    ax().getPid(ok, &pid);
    EXPECT_EQ(desk->calls().total(), 5u);
    EXPECT_EQ(desk->calls().calls("copyAttributeValue"), 3u);
    EXPECT_EQ(desk->calls().reads("AXRole"), 2u);
    EXPECT_EQ(desk->calls().reads("AXBoundsForRange"), 1u);
    EXPECT_EQ(desk->calls().reads(), 4u);
    desk->calls().reset();
    EXPECT_EQ(desk->calls().total(), 0u);
    EXPECT_EQ(desk->calls().reads("AXRole"), 0u);
}

}  // namespace
