// Scenario actions on text, web content, pop-up lists, faults and quiet changes, and the setup's
// user defaults.

#include <gtest/gtest.h>

#include "platform/sim/SimScenario.h"

using namespace orv;
using namespace orv::sim;

namespace {

// Lines 1 to 11 of every scenario below.
const std::string kDesk =
    "app #ed 100 com.example.ed \"Ed\"\n"
    "  AXWindow \"W\" [0 22 800 600] #win\n"
    "    AXTextField [10 40 200 22] #field AXValue=\"ab\" AXSelectedTextRange=range(2 0)\n"
    "    AXButton \"OK\" [10 80 80 22] #ok\n"
    "    AXComboBox [10 120 200 22] #box AXValue=\"Red\"\n"
    "    AXList [10 200 200 60] #plain\n"
    "    AXWebArea [300 40 400 400] #page\n"
    "      AXStaticText [300 40 400 20] #run AXValue=\"Hello\"\n"
    "      AXGroup [300 60 400 40] #group\n"
    "        AXImage [300 60 40 40] #img\n"
    "    AXWebArea [300 500 100 100] #blank\n";

struct Played {
    std::shared_ptr<SimDesktop> desk = SimDesktop::create();
    std::shared_ptr<const Scenario> scenario;
    std::unique_ptr<ScenarioPlayer> player;

    explicit Played(const std::string& text) {
        auto p = parseScenario(kDesk + text, "t.scn");
        EXPECT_TRUE(p.ok()) << p.error;
        scenario = p.scenario;
        if (!scenario) return;
        EXPECT_EQ(applyScenarioSetup(*desk, *scenario), "");
        desk->runUntilIdle();
        desk->clearPostedNotifications();
        player = std::make_unique<ScenarioPlayer>(desk, scenario);
        player->start();
    }
    SimNodePtr operator[](const std::string& label) { return scenario->find(*desk, label); }
    // How many notifications the steps due up to `time` posted.
    size_t playUntil(double time) {
        desk->clearPostedNotifications();
        desk->advance(time - desk->now());
        return desk->postedNotifications().size();
    }
    AXError read(const std::string& label, const std::string& attribute) {
        AXValue ignored;
        return desk->readAttribute(desk->ref((*this)[label]), attribute, &ignored);
    }
};

TEST(SimScenarioText, MistakesAreRefusedWithFileLineAndReason) {
    const std::string hint = "; write a name like kAXErrorCannotComplete or a number";
    struct Case {
        std::string text;
        std::string error;
    } cases[] = {
        // Web content.
        {"at 1 select-web #ok 0 1", "12: select-web needs a web area; \"#ok\" is a AXButton"},
        {"at 1 select-web #blank 0 1",
         "12: select-web needs a page with content; \"#blank\" has no leaves"},
        {"at 1 caret-web #page -1", "12: an index is a whole number of 0 or more, not \"-1\""},
        {"at 1 select-web #page 1 99999999999", "12: an index \"99999999999\" is out of range"},
        {"at 1 caret-in #ok 0",
         "12: caret-in needs an element inside a web area; \"#ok\" is not in one"},
        {"at 1 caret-in #group 0",
         "12: caret-in needs a leaf of the page; \"#group\" has children"},
        {"at 1 caret-in #run 6", "12: offset 6 is past the end of \"#run\", which holds 5"},
        {"at 1 caret-in #img 2", "12: offset 2 is past the end of \"#img\", which holds 1"},
        // Lists.
        {"at 1 open-list #ok \"a\"", "12: open-list needs a combo box; \"#ok\" is a AXButton"},
        {"at 1 open-list #box", "12: open-list needs at least one entry in quotes"},
        {"at 1 open-list #box #l a", "12: expected a list entry in quotes, found \"a\""},
        {"at 1 open-list #box \"a\" selected 1",
         "12: selected 1 is past the last entry, 0 (entries count from 0)"},
        {"at 1 open-list #box #field \"a\"",
         "12: label \"#field\" is used twice (first at line 3)"},
        {"at 1 open-list #box \"a\"\nat 2 open-list #box \"b\"",
         "13: \"#box\" shows a list already; close-list first"},
        {"at 1 close-list #box", "12: \"#box\" shows no list to close"},
        {"at 1 pick #ok 0", "12: pick needs a list; \"#ok\" is a AXButton"},
        {"at 1 pick #plain 0", "12: \"#plain\" has no entries to pick"},
        {"at 1 open-list #box #l \"a\" \"b\"\nat 2 pick #l 2",
         "13: pick 2 is past the last entry of \"#l\", 1 (entries count from 0)"},
        {"at 1 open-list #box #l \"a\" \"b\"\nat 2 close-list #box\nat 3 pick #l 0",
         "14: \"#l\" is gone at 3 s (its list closes at line 13)"},
        {"at 1 open-list #box #l \"a\"\nat 2 destroy #box\nat 3 pick #l 0",
         "14: \"#l\" is gone at 3 s (destroyed at line 13)"},
        // Faults.
        {"at 1 fail #field AXValue", "12: expected an error" + hint},
        {"at 1 fail #field AXValue kAXErrorOops", "12: unknown error \"kAXErrorOops\"" + hint},
        {"at 1 fail #field AXValue 0", "12: an injected error is not 0, which is success"},
        {"at 1 fail #field AXValue kAXErrorNoValue 0",
         "12: a fault lasts at least 1 read; leave the number out for every read"},
        {"at 1 fail #field AX=Value kAXErrorNoValue",
         "12: fail needs an attribute name, like AXValue, or * for every attribute, not "
         "\"AX=Value\""},
        {"at 1 raise #field AXValue boom", "12: expected the reason in quotes, found \"boom\""},
        // Quiet changes and the backspace.
        {"at 1 quiet-select #field 1.5 0", "12: a text range counts whole characters"},
        {"at 1 quiet-text #ok \"x\"", "12: quiet-text needs a text element; \"#ok\" is a AXButton"},
        {"at 1 quiet-focus #ed", "12: quiet-focus needs an element; \"#ed\" is an application"},
        {"at 1 delete #ok", "12: delete needs a text element; \"#ok\" is a AXButton"},
        // The setup.
        {"default AllowFocusInAXWebArea",
         "12: expected a default as KEY=VALUE, found \"AllowFocusInAXWebArea\""},
        {"default A=1\ndefault B=2 A=3", "13: default \"A\" is given twice (first at line 12)"},
        {"default A=\"open", "12: unterminated string"},
        {"at 1 focus #ok\ndefault A=1", "13: default belongs to the setup, before the timeline"},
        {"quiet-focus #ok",
         "12: quiet-focus needs a time: at T or after D; the setup takes display, app, default, "
         "front, focus, pointer and the faults fail, raise, first-char-bounds and "
         "zero-bounds-at-end"},
        {"fail #nowhere AXValue kAXErrorNoValue", "12: unknown element \"#nowhere\""},
        {"first-char-bounds #ok",
         "12: first-char-bounds needs a text element; \"#ok\" is a AXButton"},
        {"raise #late AXValue \"x\"\nat 1 launch #b 200 com.example.b \"B\"\n  AXWindow #late",
         "12: \"#late\" does not exist yet at the start (it comes at line 14)"},
    };
    for (auto& c : cases) {
        auto p = parseScenario(kDesk + c.text, "t.scn");
        EXPECT_FALSE(p.ok()) << c.text;
        EXPECT_EQ(p.error, "t.scn:" + c.error) << c.text;
    }
}

TEST(SimScenarioText, SetupFaultsAndDefaultsAreInPlaceBeforeTheAgentStarts) {
    Played s(
        "default AllowFocusInAXWebArea=NO Greeting=\"two words\"\n"
        "fail #field AXValue kAXErrorCannotComplete 1\n"
        "raise #ok AXTitle \"torn down\"\n"
        "first-char-bounds #field\n"
        "fail #win * -25299 2\n"
        "focus #field\n");
    ASSERT_TRUE(s.scenario);
    EXPECT_FALSE(s.desk->defaults().boolForKey("AllowFocusInAXWebArea"));
    EXPECT_EQ(s.desk->defaults().stringForKey("Greeting"), "two words");
    EXPECT_EQ(s.scenario->userDefaults().size(), 2u);
    EXPECT_EQ(s.scenario->actionCount(), 0u) << "setup lines are not timed actions";

    EXPECT_TRUE(s["field"]->reportsFirstCharacterBounds());
    EXPECT_EQ(s.read("field", "AXValue"), kAXErrorCannotComplete);
    EXPECT_EQ(s.read("field", "AXValue"), kAXErrorSuccess) << "the fault lasted one read";
    EXPECT_THROW(s.read("ok", "AXTitle"), PlatformException);
    EXPECT_THROW(s.read("ok", "AXTitle"), PlatformException) << "for ever";
    // Any number an application may answer, for every attribute.
    EXPECT_EQ(s.read("win", "AXRole"), static_cast<AXError>(-25299));
    EXPECT_EQ(s.read("win", "AXTitle"), static_cast<AXError>(-25299));
    EXPECT_EQ(s.read("win", "AXTitle"), kAXErrorSuccess);
}

TEST(SimScenarioText, QuietChangesAndFaultsPostNothing) {
    Played s(
        "focus #field\n"
        "at 1 quiet-focus #ok\n"
        "at 1 quiet-move #win 50 60\n"
        "at 1 quiet-text #field \"hello\"\n"
        "at 1 quiet-select #field 3 9\n"
        "at 1 zero-bounds-at-end #field\n"
        "at 1 fail #field AXSelectedTextRange kAXErrorNoValue\n");
    ASSERT_TRUE(s.scenario);
    EXPECT_EQ(s.playUntil(1), 0u);
    EXPECT_EQ(s.desk->application(100)->focusedElement(), s["ok"]);
    EXPECT_EQ(*s["win"]->frame(), Rect(50, 60, 800, 600));
    EXPECT_EQ(*s["img"]->frame(), Rect(350, 98, 40, 40)) << "the contents move along";
    EXPECT_EQ(s["field"]->text(), "hello");
    EXPECT_EQ(s["field"]->selection(), (Range{3, 2})) << "clamped to the text";
    EXPECT_TRUE(s["field"]->reportsZeroBoundsAtEnd());
    EXPECT_EQ(s.read("field", "AXSelectedTextRange"), kAXErrorNoValue);
}

}  // namespace
