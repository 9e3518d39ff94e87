#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/glib/GLibMainLoop.h"
#include "platform/sim/SimScenario.h"

using namespace orv;
using namespace orv::sim;

namespace {

// Lines 1 to 4 of most scenarios below.
const std::string kEditor =
    "app #ed 100 com.example.ed \"Ed\"\n"
    "  AXWindow \"W\" [0 22 800 600] #win\n"
    "    AXTextField [10 40 200 22] #field AXValue=\"ab\" AXSelectedTextRange=range(2 0)\n"
    "    AXButton \"OK\" [10 80 80 22] #ok\n";

std::shared_ptr<const Scenario> parsed(const std::string& text) {
    auto p = parseScenario(text, "t.scn");
    EXPECT_TRUE(p.ok()) << p.error;
    return p.scenario;
}

struct Session {
    std::shared_ptr<SimDesktop> desk = SimDesktop::create();
    std::shared_ptr<const Scenario> scenario;
    std::unique_ptr<ScenarioPlayer> player;
    std::vector<ScenarioPlayer::Event> events;
    std::vector<double> eventClock;
    bool ended = false;

    explicit Session(const std::string& text) : scenario(parsed(text)) {
        if (!scenario) return;
        EXPECT_EQ(applyScenarioSetup(*desk, *scenario), "");
        player = std::make_unique<ScenarioPlayer>(desk, scenario);
        player->setOnEvent([this](const ScenarioPlayer::Event& e) {
            events.push_back(e);
            eventClock.push_back(desk->now());
        });
        player->setOnEnd([this] { ended = true; });
    }
    SimNodePtr operator[](const std::string& label) { return scenario->find(*desk, label); }
    std::vector<std::string> postedAt(double time) const {
        std::vector<std::string> out;
        for (auto& p : desk->postedNotifications())
            if (p.time == time) out.push_back(p.notification);
        return out;
    }
};

TEST(SimScenario, MistakesAreRefusedWithFileLineAndReason) {
    struct Case {
        std::string text;
        std::string error;
    } cases[] = {
        {kEditor + "at 1 focus #okk", "t.scn:5: unknown element \"#okk\""},
        {kEditor + "at 1 jump #ok", "t.scn:5: unknown keyword \"jump\""},
        {kEditor + "AXButton \"B\"",
         "t.scn:5: unknown keyword \"AXButton\"; tree lines are indented two spaces under app, "
         "launch or add"},
        {kEditor + "focus #ok\n  AXButton",
         "t.scn:6: indented line outside a tree; only app, launch and add take a tree"},
        {kEditor + "at soon focus #ok",
         "t.scn:5: bad time \"soon\": write seconds as a number, like 1.5"},
        {kEditor + "at -1 focus #ok", "t.scn:5: bad time \"-1\": times are not negative"},
        {kEditor + "at 2 focus #ok\n\nat 1 focus #field",
         "t.scn:7: time goes backwards: at 1 comes after 2 s"},
        {kEditor + "at 1 focus #ok\nend at 0.5",
         "t.scn:6: end at 0.5 comes before the last action at 1 s"},
        {kEditor + "end at 5\n// fine\nat 6 focus #field",
         "t.scn:7: nothing may follow end (line 5)"},
        {kEditor + "at 1 set #ok AXEnabled=maybe", "t.scn:5: cannot read value 'maybe'"},
        {kEditor + "at 1 set #ok AXEnabled",
         "t.scn:5: expected attribute as key=value, found \"AXEnabled\""},
        {kEditor + "at 1 set #ok AXPosition=point(1 2)",
         "t.scn:5: set cannot change AXPosition; use move #name X Y"},
        {kEditor + "at 1 set #win AXTitleUIElement=@nope", "t.scn:5: unknown element \"@nope\""},
        {kEditor + "front #ok", "t.scn:5: front needs an application; \"#ok\" is an element"},
        {kEditor + "front #mail\nat 1 launch #mail 300 com.example.mail \"Mail\"",
         "t.scn:5: \"#mail\" is not running at the start"},
        {kEditor + "at 1 focus #ok extra", "t.scn:5: unexpected \"extra\" at the end of the line"},
        {kEditor + "at 1 select #field 2", "t.scn:5: expected a length"},
        {kEditor + "at 1 type #ok \"x\"",
         "t.scn:5: type needs a text element; \"#ok\" is a AXButton"},
        {kEditor + "at 1 front #ok", "t.scn:5: front needs an application; \"#ok\" is an element"},
        {kEditor + "at 1 focus #ed", "t.scn:5: focus needs an element; \"#ed\" is an application"},
        {kEditor + "focus #ok\nat 1 focus #field\nfocus #ok",
         "t.scn:7: focus needs a time: at T or after D"},
        {kEditor + "move #ok 1 2",
         "t.scn:5: move needs a time: at T or after D; the setup takes display, app, default, "
         "front, focus, pointer and the faults fail, raise, first-char-bounds and "
         "zero-bounds-at-end"},
        {kEditor + "at 1 app #x 200 com.example.x \"X\"",
         "t.scn:5: app belongs to the setup, before the timeline; launch starts an application "
         "later"},
        {kEditor + "app #b 200 com.example.b \"B\"\n  AXWindow #win",
         "t.scn:6: label \"#win\" is used twice (first at line 2)"},
        {kEditor + "at 1 quit #ed\nat 2 focus #ok",
         "t.scn:6: \"#ok\" is gone at 2 s (its application quits at line 5)"},
        {kEditor + "at 1 destroy #win\nafter 1 type #field \"x\"",
         "t.scn:6: \"#field\" is gone at 2 s (destroyed at line 5)"},
        {kEditor + "at 1 focus #inbox\nat 2 launch #mail 300 com.example.mail \"Mail\"\n"
                   "  AXWindow #inbox",
         "t.scn:5: \"#inbox\" does not exist yet at 1 s (it comes at line 7)"},
        {kEditor + "at 1 launch #mail 100 com.example.mail \"Mail\"",
         "t.scn:5: pid 100 already runs at 1 s"},
        // Tree mistakes carry the scenario's line numbers, blank and comment lines counted.
        {kEditor + "at 1 launch #mail 300 com.example.mail \"Mail\"\n  AXWindow #mw\n\n"
                   "// the button\n    AXButton AXTitleUIElement=@nowhere",
         "t.scn:9: unknown element @nowhere"},
        {kEditor + "at 1 add #win\n  AXSheet\n\tAXButton",
         "t.scn:7: tab in indentation; indent with two spaces per level"},
        {kEditor + "at 1 add #win", "t.scn:5: add needs a tree indented under it"},
        {kEditor + "at 1 pointer 5000 10", "t.scn:5: the pointer at 5000 10 is on no display"},
        {"display [0 0 1440 900]\ndisplay [1440 0 800 600]",
         "t.scn:1: several displays and none is main; mark one main"},
        {"display [100 0 1440 900] main",
         "t.scn:1: the main display has its top-left corner at 0 0"},
        {"display [0 0 1440 900] main\ndisplay [1000 0 800 600]",
         "t.scn:2: the display overlaps the one at line 1"},
    };
    for (auto& c : cases) {
        auto p = parseScenario(c.text, "t.scn");
        EXPECT_FALSE(p.ok()) << c.text;
        EXPECT_EQ(p.error, c.error) << c.text;
    }
}

TEST(SimScenario, SetupLaysOutDisplaysApplicationsFrontFocusAndPointer) {
    auto scenario = parsed(
        "display [1440 0 1920 1080]\n"
        "display [0 0 1440 900] main\n" +
        kEditor +
        "app #files 200 com.example.files \"Files\"\n"
        "  AXWindow \"F\" [100 100 500 400] #fwin\n"
        "    AXList [110 130 200 300] #list\n"
        "front #files\n"
        "focus #field\n"
        "focus #list\n"
        "pointer 300 200\n");
    ASSERT_TRUE(scenario);
    auto desk = SimDesktop::create();
    int switches = 0;
    desk->workspace().frontApplicationSwitched.connect([&](pid_t) { ++switches; });
    ASSERT_EQ(applyScenarioSetup(*desk, *scenario), "");
    desk->runUntilIdle();

    EXPECT_EQ(desk->displays().mainDisplayID(), 2u);
    EXPECT_EQ(desk->displays().displayBounds(1), Rect(1440, 0, 1920, 1080));
    EXPECT_EQ(desk->frontmost()->pid(), 200);
    EXPECT_EQ(switches, 0) << "the agent must not see a switch that happened before it started";
    EXPECT_EQ(desk->application(100)->focusedElement(), scenario->find(*desk, "#field"));
    EXPECT_EQ(desk->application(200)->focusedElement(), scenario->find(*desk, "list"));
    EXPECT_EQ(desk->displays().mouseLocation(), (Point{300, 700}));
    EXPECT_EQ(scenario->pidOf("#list"), 200);

    // Without displays the desktop gets one 1440x900 main display, whatever it had before.
    auto plain = SimDesktop::create();
    plain->displays().addDisplay(Rect(1440, 0, 100, 100));
    ASSERT_EQ(applyScenarioSetup(*plain, *parsed(kEditor)), "");
    ASSERT_EQ(plain->displays().displays().size(), 1u);
    EXPECT_EQ(plain->displays().displayBounds(plain->displays().mainDisplayID()),
              Rect(0, 0, 1440, 900));

    // A desktop already running one of the processes is refused.
    auto taken = SimDesktop::create();
    taken->addApplication(100, "com.example.other", "Other");
    EXPECT_EQ(applyScenarioSetup(*taken, *scenario),
              "t.scn:3: pid 100 already runs on the desktop");
}

TEST(SimScenario, TimelineDrivesTheDesktopInTimeOrder) {
    Session s(kEditor +
              "app #files 200 com.example.files \"Files\"\n"
              "  AXWindow \"F\" [100 100 500 400] #fwin\n"
              "    AXList [110 130 200 300] #list\n"
              "focus #field\n"
              "at 1 type #field \"cd\"\n"
              "after 0.5 select #field 0 2\n"
              "at 2 focus #ok\n"
              "at 2 move #win 50 60\n"
              "at 2.5 resize #fwin 300 200\n"
              "at 3 front #files\n"
              "at 3.5 set #ok AXTitle=\"Done\" AXLinkedUIElements=(@field @list)\n"
              "at 4 post #list AXSelectedChildrenChanged\n"
              "at 4.5 pointer 300 200\n"
              "at 5 launch #mail 300 com.example.mail \"Mail\"\n"
              "  AXWindow \"Inbox\" [0 22 600 400] #inbox\n"
              "    AXTextArea [0 50 600 300] #body\n"
              "at 5 focus #body\n"
              "at 6 add #inbox\n"
              "  AXSheet \"Send?\" [100 100 200 100] #sheet\n"
              "    AXButton \"Send\" #send\n"
              "at 6.5 destroy #sheet\n"
              "at 7 quit #mail\n"
              "end at 8\n");
    ASSERT_TRUE(s.scenario);
    EXPECT_EQ(s.scenario->actionCount(), 14u);
    EXPECT_EQ(s.scenario->endTime(), 8);
    std::vector<pid_t> launched;
    s.desk->workspace().didLaunchApplication.connect(
        [&](const RunningApplication& app) { launched.push_back(app.pid); });
    s.desk->clearPostedNotifications();
    s.desk->advance(10);  // the player starts at 10 on the desktop's clock
    s.player->start();

    s.desk->advance(0.999);
    EXPECT_EQ(s["field"]->text(), "ab");
    s.desk->advance(0.001);
    EXPECT_EQ(s["field"]->text(), "abcd");
    EXPECT_EQ(s.postedAt(11),
              (std::vector<std::string>{"AXValueChanged", "AXSelectedTextChanged"}));
    s.desk->advance(0.5);
    EXPECT_EQ(s["field"]->selection(), (Range{0, 2}));

    s.desk->advance(0.5);
    EXPECT_EQ(s.desk->application(100)->focusedElement(), s["ok"]);
    EXPECT_EQ(*s["win"]->frame(), Rect(50, 60, 800, 600));
    EXPECT_EQ(*s["ok"]->frame(), Rect(60, 118, 80, 22)) << "contents move with the window";
    // Both actions due at 2 run in the order written.
    EXPECT_EQ(s.postedAt(12),
              (std::vector<std::string>{"AXFocusedUIElementChanged", "AXWindowMoved"}));
    s.desk->advance(0.5);
    EXPECT_EQ(*s["fwin"]->frame(), Rect(100, 100, 300, 200));

    EXPECT_EQ(s.desk->frontmost()->pid(), 100);
    s.desk->advance(0.5);
    EXPECT_EQ(s.desk->frontmost()->pid(), 200);
    s.desk->advance(0.5);
    EXPECT_EQ(s["ok"]->title(), "Done");
    auto linked = s["ok"]->stored("AXLinkedUIElements");
    ASSERT_TRUE(linked && linked->is<AXArray>());
    EXPECT_EQ(s.desk->node(*linked->get<AXArray>()->at(1).get<AXUIElementRef>()), s["list"]);
    s.desk->advance(0.5);
    EXPECT_EQ(s.postedAt(14), (std::vector<std::string>{"AXSelectedChildrenChanged"}));
    s.desk->advance(0.5);
    EXPECT_EQ(s.desk->displays().mouseLocation(), (Point{300, 700}));

    s.desk->advance(0.5);
    ASSERT_TRUE(s.desk->application(300));
    EXPECT_EQ(launched, std::vector<pid_t>{300});
    EXPECT_EQ(s.desk->application(300)->focusedElement(), s["body"]);
    s.desk->advance(1);
    ASSERT_TRUE(s["send"]);
    EXPECT_EQ(s["send"]->parent(), s["sheet"]);
    EXPECT_EQ(s["sheet"]->parent(), s["inbox"]);
    s.desk->advance(0.5);
    EXPECT_FALSE(s["sheet"]);
    s.desk->advance(0.5);
    EXPECT_FALSE(s.desk->application(300));
    EXPECT_FALSE(s["inbox"]);

    EXPECT_FALSE(s.ended);
    s.desk->advance(0.999);
    EXPECT_FALSE(s.ended);
    s.desk->advance(0.001);
    EXPECT_TRUE(s.ended);
    EXPECT_TRUE(s.player->hasEnded());
    EXPECT_EQ(s.player->actionsPlayed(), 14u);

    // One event per action, then the end, each when it was due.
    ASSERT_EQ(s.events.size(), 15u);
    for (size_t i = 0; i < s.events.size(); ++i)
        EXPECT_DOUBLE_EQ(s.eventClock[i], 10 + s.events[i].time) << s.events[i].text;
    EXPECT_EQ(s.events[0].text, "type #field \"cd\"");
    EXPECT_EQ(s.events[0].line, 9);
    EXPECT_EQ(s.events[11].text, "add #inbox");
    EXPECT_EQ(s.events.back().text, "end");
    EXPECT_EQ(s.events.back().line, 27);
}

TEST(SimScenario, RelativeTimesWaitsAndTheEnd) {
    Session s(kEditor +
              "after 0.5 focus #ok\n"
              "wait 1\n"
              "after 0.25 focus #field\n"
              "after 0.1 focus #ok\n"
              "after 0.1 focus #field\n"
              "after 0.1 focus #ok\n"
              "at 2.05 focus #field\n"  // 1.75 + 0.3 in sums of 0.1 is not exactly 2.05
              "end after 1\n");
    ASSERT_TRUE(s.scenario);
    EXPECT_DOUBLE_EQ(s.scenario->endTime(), 3.05);
    s.player->start();
    s.desk->advance(10);
    ASSERT_EQ(s.events.size(), 7u);
    std::vector<double> due = {0.5, 1.75, 1.85, 1.95, 2.05, 2.05, 3.05};
    for (size_t i = 0; i < due.size(); ++i) EXPECT_NEAR(s.events[i].time, due[i], 1e-9);
    EXPECT_NEAR(s.eventClock.back(), 3.05, 1e-9);

    // Without an end line the scenario ends with its last line, a wait included.
    EXPECT_DOUBLE_EQ(parsed(kEditor + "at 1 focus #ok\nwait 2.5\n")->endTime(), 3.5);
    EXPECT_DOUBLE_EQ(parsed(kEditor)->endTime(), 0);
}

TEST(SimScenario, StoppedOrDestroyedPlayerDoesNothingMore) {
    Session s(kEditor + "at 1 focus #ok\nat 2 focus #field\nend at 3\n");
    ASSERT_TRUE(s.scenario);
    s.player->start();
    s.desk->advance(1);
    EXPECT_EQ(s.desk->application(100)->focusedElement(), s["ok"]);
    s.player->stop();
    s.desk->advance(5);
    EXPECT_EQ(s.desk->application(100)->focusedElement(), s["ok"]);
    EXPECT_FALSE(s.ended);
    EXPECT_EQ(s.events.size(), 1u);

    Session gone(kEditor + "at 1 focus #ok\n");
    gone.player->start();
    gone.player.reset();
    gone.desk->advance(5);
    EXPECT_FALSE(gone.desk->application(100)->focusedElement());
}

TEST(SimScenario, ActionOnSomethingTheDesktopLostIsSkippedAndLogged) {
    Session s(kEditor + "at 1 focus #ok\nat 2 focus #field\n");
    ASSERT_TRUE(s.scenario);
    s.player->start();
    s.desk->destroy(s["ok"]);
    s.desk->advance(3);
    ASSERT_EQ(s.events.size(), 3u);
    EXPECT_EQ(s.events[0].text, "focus #ok (skipped: #ok is not there)");
    EXPECT_EQ(s.desk->application(100)->focusedElement(), s["field"]);
    EXPECT_TRUE(s.ended);
}

TEST(SimScenario, PlaysOnARealLoop) {
    auto loop = std::make_shared<GLibMainLoop>();
    auto desk = SimDesktop::create(loop);
    auto scenario = parsed(kEditor + "at 0 focus #ok\nat 0 front #ed\nat 0 type #field \"!\"\n");
    ASSERT_TRUE(scenario);
    ASSERT_EQ(applyScenarioSetup(*desk, *scenario), "");
    ScenarioPlayer player(desk, scenario);
    bool ended = false;
    player.setOnEnd([&] {
        ended = true;
        loop->quit();
    });
    player.start();
    // Only a safeguard should the player never end; every due time above is zero.
    auto guard = loop->scheduleTimer(30, false, [&](Timer&) { loop->quit(); });
    loop->run();
    guard->invalidate();
    EXPECT_TRUE(ended);
    EXPECT_EQ(desk->application(100)->focusedElement(), scenario->find(*desk, "ok"));
    EXPECT_EQ(scenario->find(*desk, "field")->text(), "ab!");
}

std::filesystem::path repoFile(const std::string& relative) {
    return std::filesystem::path(__FILE__).parent_path() / "../../.." / relative;
}

TEST(SimScenario, DocumentedExamplePlaysAsDescribed) {
    std::ifstream in(repoFile("docs/scenario-files.md"));
    std::stringstream doc;
    doc << in.rdbuf();
    std::string text = doc.str();
    size_t section = text.find("## A complete example");
    ASSERT_NE(section, std::string::npos);
    size_t open = text.find("```\n", section) + 4;
    std::string example = text.substr(open, text.find("\n```", open) + 1 - open);

    Session s(example);
    ASSERT_TRUE(s.scenario);
    EXPECT_EQ(s.desk->displays().displays().size(), 2u);
    EXPECT_EQ(s.desk->frontmost()->pid(), 100);
    s.player->start();
    s.desk->advance(10);
    ASSERT_TRUE(s.ended);
    for (auto& e : s.events) EXPECT_EQ(e.text.find("skipped"), std::string::npos) << e.text;
    EXPECT_EQ(s["name"]->text(), "Ada Lovelace");
    EXPECT_EQ(s["name"]->selection(), (Range{0, 3}));
    EXPECT_EQ(s.desk->application(100)->focusedElement(), s["name"]);
    EXPECT_EQ(s["docs"]->frame()->origin, (Point{1600, 150}));
    EXPECT_FALSE(s.desk->application(300));
    EXPECT_EQ(s.desk->frontmost()->pid(), 200) << "the files come forward when the mail quits";
}

TEST(SimScenario, BundledDemoIsValidAndPlaysToItsEnd) {
    auto demo = loadScenarioFile(repoFile("scenarios/demo.scn").string());
    ASSERT_TRUE(demo.ok()) << demo.error;
    EXPECT_GE(demo.scenario->endTime(), 9);
    EXPECT_LE(demo.scenario->endTime(), 12);

    auto desk = SimDesktop::create();
    ASSERT_EQ(applyScenarioSetup(*desk, *demo.scenario), "");
    EXPECT_GE(desk->applications().size(), 2u);
    ScenarioPlayer player(desk, demo.scenario);
    std::vector<std::string> skipped;
    player.setOnEvent([&](const ScenarioPlayer::Event& e) {
        if (e.text.find("(skipped") != std::string::npos) skipped.push_back(e.text);
    });
    player.setOnEnd([&] { desk->loop().quit(); });
    player.start();
    desk->virtualLoop()->run();
    EXPECT_TRUE(player.hasEnded());
    EXPECT_TRUE(skipped.empty()) << skipped.front();
    EXPECT_DOUBLE_EQ(desk->now(), demo.scenario->endTime());
    EXPECT_GE(desk->postedCount("AXApplicationActivated"), 1u);
    EXPECT_GE(desk->postedCount("AXWindowMoved"), 1u);
    EXPECT_GE(desk->postedCount("AXFocusedUIElementChanged"), 4u);
}

}  // namespace
