// Scenario files from anyone: bounded nesting, time and size, and messages that quote the file
// in one short escaped line.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/sim/SimScenario.h"

using namespace orv;
using namespace orv::sim;

namespace {

// Lines 1 to 4 of the scenarios below.
const std::string kEditor =
    "app #ed 100 com.example.ed \"Ed\"\n"
    "  AXWindow \"W\" [0 22 800 600] #win\n"
    "    AXTextField [10 40 200 22] #field AXValue=\"ab\"\n"
    "    AXButton \"OK\" [10 80 80 22] #ok\n";

const std::string kByteOrderMark = "\xEF\xBB\xBF";

std::string errorOf(const std::string& text) {
    return parseScenario(text, "t.scn").error;
}

// An add of a chain of groups, indented under the line before; the last one is #<last>.
std::string addChain(const std::string& parent, int levels, const std::string& last) {
    std::string text = "at 1 add #" + parent + "\n";
    for (int level = 0; level < levels; ++level)
        text += std::string(static_cast<size_t>(level) * 2 + 2, ' ') + "AXGroup" +
                (level == levels - 1 ? " #" + last : "") + "\n";
    return text;
}

TEST(SimScenarioLimits, DeepNestingIsRefusedWithFileAndLine) {
    EXPECT_EQ(errorOf(kEditor + "at 1 set #ok AXItems=" + std::string(30000, '(')),
              "t.scn:5: arrays nested more than 100 deep");

    std::string deepApp = "app #deep 200 com.example.deep \"Deep\"\n";
    for (size_t level = 0; level <= 100; ++level)
        deepApp += std::string(level * 2 + 2, ' ') + "AXGroup\n";
    EXPECT_EQ(errorOf(kEditor + deepApp),
              "t.scn:106: the element would lie 101 levels below its application, past the most "
              "of 100");

    // Each add is within the bound, but adds under added trees would nest without end.
    // #win is 1 level below the application: 99 more reach 100.
    ASSERT_EQ(errorOf(kEditor + addChain("win", 99, "bottom")), "");
    EXPECT_EQ(errorOf(kEditor + addChain("win", 99, "bottom") + addChain("bottom", 1, "x")),
              "t.scn:106: the element would lie 101 levels below its application, past the most "
              "of 100");
}

TEST(SimScenarioLimits, TimesPastADayAreRefused) {
    struct Case {
        std::string lines;
        std::string error;
    } cases[] = {
        {"at 1e308 focus #ok",
         "t.scn:5: at \"1e308\" is past 86400 s (24 hours), the longest a scenario may run"},
        {"end at 100000000",
         "t.scn:5: end at \"100000000\" is past 86400 s (24 hours), the longest a scenario may "
         "run"},
        {"at 86000 focus #ok\nafter 500 focus #field",
         "t.scn:6: after \"500\" comes to 86500 s, past 86400 s (24 hours), the longest a "
         "scenario may run"},
        {"wait 86400\nwait 0.5",
         "t.scn:6: wait \"0.5\" comes to 86400.5 s, past 86400 s (24 hours), the longest a "
         "scenario may run"},
        {"at 80000 focus #ok\nend after 1e300",
         "t.scn:6: end after \"1e300\" comes to 1e+300 s, past 86400 s (24 hours), the longest a "
         "scenario may run"},
        {"at nan focus #ok", "t.scn:5: bad time \"nan\": write seconds as a number, like 1.5"},
        {"at 1e999 focus #ok", "t.scn:5: bad time \"1e999\": write seconds as a number, like 1.5"},
    };
    for (auto& c : cases) EXPECT_EQ(errorOf(kEditor + c.lines), c.error) << c.lines;

    // A day itself is fine, also when reached in sums of steps.
    auto day = parseScenario(kEditor + "at 86399.9 focus #ok\nafter 0.1 focus #field\nend", "t");
    ASSERT_TRUE(day.ok()) << day.error;
    EXPECT_NEAR(day.scenario->endTime(), 86400, 1e-6);
}

class ScenarioFiles : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/orv-scenario-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        dir = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(dir); }
    std::string write(const std::string& name, const std::string& text) {
        std::ofstream(dir + "/" + name, std::ios::binary) << text;
        return dir + "/" + name;
    }
    std::string dir;
};

TEST_F(ScenarioFiles, OnlyARegularFileWithinTheSizeIsRead) {
    EXPECT_EQ(loadScenarioFile(dir).error, dir + ": is a directory, not a scenario file");
    EXPECT_EQ(loadScenarioFile("/dev/zero").error, "/dev/zero: is not a regular file");
    // A named pipe without a writer: refused at once, not waited on.
    ASSERT_EQ(::mkfifo((dir + "/pipe").c_str(), 0600), 0);
    EXPECT_EQ(loadScenarioFile(dir + "/pipe").error, dir + "/pipe: is not a regular file");
    // A regular file that cannot be read is not an empty scenario.
    EXPECT_EQ(loadScenarioFile("/proc/self/mem").error,
              "/proc/self/mem: cannot be read: Input/output error");
    EXPECT_EQ(loadScenarioFile("/nonexistent/x.scn").error,
              "/nonexistent/x.scn: cannot be read: No such file or directory");
    std::string secret = write("secret.scn", kEditor);
    ASSERT_EQ(::chmod(secret.c_str(), 0), 0);
    if (::geteuid() != 0) {  // root reads it all the same
        EXPECT_EQ(loadScenarioFile(secret).error, secret + ": cannot be read: Permission denied");
    }

    std::string big = write("big.scn", "");
    std::filesystem::resize_file(big, kScenarioFileMaxBytes + 1);
    EXPECT_EQ(loadScenarioFile(big).error,
              big + ": is larger than 16 MiB, the most a scenario file may hold");
    // Files of the kernel report size 0 and hold more: the bound holds while reading.
    EXPECT_EQ(loadScenarioFile("/proc/self/maps", 64).error,
              "/proc/self/maps: is larger than 64 bytes, the most a scenario file may hold");
    std::string fits = write("fits.scn", kEditor);
    EXPECT_TRUE(loadScenarioFile(fits, kEditor.size()).ok());
    EXPECT_FALSE(loadScenarioFile(fits, kEditor.size() - 1).ok());

    // The path is outside text too.
    EXPECT_EQ(loadScenarioFile(dir + "/a\nb\x1b.scn").error,
              dir + "/a\\nb\\x1b.scn: cannot be read: No such file or directory");
    std::string weird = write("w\x7f.scn", kEditor + "at 1 jump");
    EXPECT_EQ(loadScenarioFile(weird).error, dir + "/w\\x7f.scn:5: unknown keyword \"jump\"");
}

TEST(SimScenarioLimits, FileTextInMessagesIsOneShortEscapedLine) {
    struct Case {
        std::string lines;
        std::string error;
    } cases[] = {
        {"at 1 \x1b[2Jfocus #ok", "t.scn:5: unknown keyword \"\\x1b[2Jfocus\""},
        {std::string("at 1 focus #ok\0", 15),
         "t.scn:5: expected an element label like #name, found \"#ok\\x00\""},
        {kByteOrderMark + "at 1 focus #ok", "t.scn:5: unknown keyword \"\\u{feff}at\""},
        {"at 1 set #ok AXTitle=\"x\"\xe2\x80\xae",
         "t.scn:5: unexpected \"\\u{202e}\" after the value"},
        {"at 1 add #win\n  AXSheet AXItems=\x9b", "t.scn:6: cannot read value '\\x9b'"},
        {"at 1 launch #m 300 com.example.m \"M\"\n  AX\x1b[5mBlink #b\nat 2 type #b \"x\"",
         "t.scn:7: type needs a text element; \"#b\" is a AX\\x1b[5mBlink"},
    };
    for (auto& c : cases) EXPECT_EQ(errorOf(kEditor + c.lines), c.error) << c.lines;

    // 10 MB of one bad token, of a label, of a tree value.
    const std::string many(10 << 20, 'z');
    for (std::string lines : {many, "at 1 focus #" + many, "at 1 set #ok AXTitle=" + many,
                              "app #" + many + " 1 x \"X\"\napp #" + many + " 2 y \"Y\""}) {
        std::string error = errorOf(kEditor + lines);
        EXPECT_LT(error.size(), 400u) << error.substr(0, 400);
        EXPECT_EQ(error.find('\n'), std::string::npos);
        EXPECT_NE(error.find(" more bytes)"), std::string::npos) << error.substr(0, 400);
    }

    // A byte-order mark at the very start of a file is skipped.
    auto marked = parseScenario(kByteOrderMark + kEditor + "at 1 focus #ok\n", "t.scn");
    ASSERT_TRUE(marked.ok()) << marked.error;
    EXPECT_EQ(marked.scenario->actionCount(), 1u);
}

TEST(SimScenarioLimits, EventsShowTheActionEscapedAndCut) {
    auto parsed = parseScenario(kEditor + "at 1 type #field \"" + std::string(100000, 'a') +
                                    "\"\nat 2 type\t#field \"b\"\n",
                                "t.scn");
    ASSERT_TRUE(parsed.ok()) << parsed.error;
    auto desk = SimDesktop::create();
    ASSERT_EQ(applyScenarioSetup(*desk, *parsed.scenario), "");
    ScenarioPlayer player(desk, parsed.scenario);
    std::vector<std::string> events;
    player.setOnEvent([&](const ScenarioPlayer::Event& e) { events.push_back(e.text); });
    player.start();
    desk->advance(3);
    ASSERT_EQ(events.size(), 3u);
    EXPECT_LT(events[0].size(), 400u);
    EXPECT_EQ(events[0].rfind("type #field \"aaa", 0), 0u) << events[0].substr(0, 400);
    EXPECT_NE(events[0].find(" more bytes)"), std::string::npos);
    EXPECT_EQ(events[1], "type\\t#field \"b\"");
    EXPECT_EQ(parsed.scenario->find(*desk, "field")->text().size(), 100003u) << "typed whole";
}

// find keeps what it found, so that a long scenario does not walk the tree per action; what it
// answers must still be the element on the desktop asked about, while it is there.
TEST(SimScenarioLimits, FindAnswersForTheDesktopAskedWhileTheElementIsThere) {
    auto parsed = parseScenario(kEditor + "at 1 add #win\n  AXSheet #sheet\n", "t.scn");
    ASSERT_TRUE(parsed.ok()) << parsed.error;
    const Scenario& sc = *parsed.scenario;
    auto one = SimDesktop::create(), two = SimDesktop::create();
    ASSERT_EQ(applyScenarioSetup(*one, sc), "");
    ASSERT_EQ(applyScenarioSetup(*two, sc), "");
    SimNodePtr okOne = sc.find(*one, "#ok"), okTwo = sc.find(*two, "ok");
    ASSERT_TRUE(okOne && okTwo);
    EXPECT_NE(okOne, okTwo);
    EXPECT_EQ(sc.find(*one, "ok"), okOne);
    EXPECT_EQ(okOne->app(), one->application(100));

    two->destroy(okTwo);
    EXPECT_FALSE(sc.find(*two, "ok"));
    EXPECT_EQ(sc.find(*one, "ok"), okOne);
    EXPECT_FALSE(sc.find(*one, "sheet")) << "not added yet";
    ScenarioPlayer player(one, parsed.scenario);
    player.start();
    one->advance(2);
    ASSERT_TRUE(sc.find(*one, "sheet"));
    EXPECT_EQ(sc.find(*one, "sheet")->parent(), sc.find(*one, "win"));
    EXPECT_FALSE(sc.find(*two, "sheet"));
    one->terminateApplication(100);
    EXPECT_FALSE(sc.find(*one, "ok"));
}

}  // namespace
