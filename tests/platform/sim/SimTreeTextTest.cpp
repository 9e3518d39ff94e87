#include <gtest/gtest.h>

#include "platform/sim/SimDesktop.h"

using namespace orv;
using namespace orv::sim;

namespace {

TEST(SimTreeText, LoadThenDumpGivesTheSameText) {
    const std::string text =
        "AXApplication \"Editor\" #app AXEnhancedUserInterface=false\n"
        "  AXWindow/AXStandardWindow \"Doc \\\"1\\\"\" [0 22 800 600.5] #win AXMain=true\n"
        "    AXTextArea [10 40 400 300] #text AXLabelUIElement=@label AXSelectedTextRange=range(3 "
        "0) "
        "AXValue=\"one\\ntwo\"\n"
        "    AXStaticText \"Label\" #label AXFontSize=12.0 AXLevel=-2 AXSpot=point(1.5 2) "
        "AXURL=url(\"file:///x\")\n"
        "    - AXBox=[1 2 3 4] AXEmpty=none AXItems=(@win @text 3) AXSize2=size(5 6)\n";
    auto desk = SimDesktop::create();
    auto& app = desk->addApplication(100, "com.example.editor", "Editor");
    auto loaded = app.load(text);
    ASSERT_TRUE(loaded.ok()) << loaded.message();
    EXPECT_EQ(app.dump(), text);

    // What was loaded is what the interface answers.
    auto area = app.find("text");
    EXPECT_EQ(area->role(), "AXTextArea");
    EXPECT_EQ(area->selection(), (Range{3, 0}));
    AXValue v;
    ASSERT_EQ(desk->ax().copyAttributeValue(desk->ref(area), "AXLabelUIElement", &v),
              kAXErrorSuccess);
    EXPECT_EQ(desk->node(*v.get<AXUIElementRef>()), app.find("label"));
    EXPECT_EQ(app.find("win")->title(), "Doc \"1\"");
    EXPECT_EQ(*app.find("label")->stored("AXFontSize"), AXValue(12.0));
    EXPECT_EQ(*app.find("label")->stored("AXLevel"), AXValue(-2));
    ASSERT_TRUE(app.load("AXGroup #big AXId=9007199254740993").ok());
    EXPECT_EQ(*app.find("big")->stored("AXId"), AXValue(9007199254740993LL))
        << "not through a double";
    EXPECT_TRUE(app.find("win")->children()[2]->role().empty());
}

TEST(SimTreeText, DocumentedExampleReadsBack) {
    const std::string text = R"(AXApplication "Editor" #app
  AXMenuBar [0 0 1440 22] #menubar
    AXMenuBarItem "File" [40 0 40 22]
  AXWindow/AXStandardWindow "Notes" [100 60 800 600] #win AXMain=true
    AXStaticText "Subject" [120 100 80 20] #label
    AXTextArea [120 130 600 300] #text AXSelectedTextRange=range(5 0) AXTitleUIElement=@label AXValue="Hello\nworld"
    AXSheet [250 60 500 200] #sheet
      AXButton "Cancel" [500 220 80 30] #cancel
      AXButton "Save" [600 220 80 30] #save AXDefault=true
)";
    auto desk = SimDesktop::create();
    auto& app = desk->addApplication(100, "com.example.editor", "Editor");
    ASSERT_TRUE(app.load(text).ok());
    EXPECT_EQ(app.dump(), text);
    EXPECT_EQ(app.find("text")->text(), "Hello\nworld");
}

TEST(SimTreeText, LoadsUnderAnyElementAndIgnoresCommentsAndBlankLines) {
    auto desk = SimDesktop::create();
    auto& app = desk->addApplication(100, "com.example.editor", "Editor");
    ASSERT_TRUE(app.load("AXWindow \"W\" #w\n").ok());
    auto result = loadTreeText(app.find("w"), R"(
// a comment
AXButton "A"

AXButton "B" AXTitleUIElement=@w
  AXImage)");
    ASSERT_TRUE(result.ok()) << result.message();
    ASSERT_EQ(result.nodes.size(), 2u);
    EXPECT_EQ(app.find("w")->children().size(), 2u);
    EXPECT_EQ(result.nodes[1]->children()[0]->role(), "AXImage");
}

TEST(SimTreeText, MalformedInputNamesTheLineAndBuildsNothing) {
    struct Case {
        const char* text;
        const char* message;
    } cases[] = {
        {"AXWindow\n\tAXButton", "line 2: tab in indentation; indent with two spaces per level"},
        {"AXWindow\n   AXButton", "line 2: indentation of 3 spaces is not a multiple of two"},
        {"AXWindow\n    AXButton", "line 2: indented by more than one level below the line above"},
        {"  AXWindow", "line 1: the first element must not be indented"},
        {"AXWindow \"Doc", "line 1: unterminated string"},
        {"AXWindow [1 2 3]", "line 1: expected a number, found ']'"},
        {"AXWindow AXMain=maybe", "line 1: cannot read value 'maybe'"},
        {"AXWindow AXMain", "line 1: expected attribute as key=value, found 'AXMain'"},
        {"AXWindow AXMain=true \"late title\"", "line 1: the title must come right after the role"},
        {"AXWindow\n  AXButton AXTitleUIElement=@nowhere", "line 2: unknown element @nowhere"},
        {"AXWindow #a\n  AXButton #a", "line 2: label 'a' is used twice"},
        {"AXWindow AXItems=(1 2", "line 1: unterminated array, expected ')'"},
        {"AXWindow AXR=range(1)", "line 1: expected a number, found ')'"},
    };
    for (auto& c : cases) {
        auto desk = SimDesktop::create();
        auto& app = desk->addApplication(100, "com.example.editor", "Editor");
        auto result = app.load(c.text);
        EXPECT_EQ(result.message(), c.message) << c.text;
        EXPECT_TRUE(app.root()->children().empty()) << c.text;
    }
}

// A line of each level from 1 to levels, each indented one level more than the one above.
std::string treeOfDepth(int levels) {
    std::string text;
    for (int level = 0; level < levels; ++level)
        text += std::string(static_cast<size_t>(level) * 2, ' ') + "AXGroup\n";
    return text;
}

TEST(SimTreeText, NestingPastItsBoundIsRefusedNotRecursedInto) {
    auto desk = SimDesktop::create();
    auto& app = desk->addApplication(100, "com.example.editor", "Editor");
    // Read by recursion, 30,000 open parentheses overflowed the stack.
    EXPECT_EQ(app.load("AXWindow AXItems=" + std::string(30000, '(')).message(),
              "line 1: arrays nested more than 100 deep");
    EXPECT_EQ(
        app.load("AXWindow AXItems=" + std::string(101, '(') + std::string(101, ')')).message(),
        "line 1: arrays nested more than 100 deep");
    ASSERT_TRUE(
        app.load("AXWindow #w AXItems=" + std::string(100, '(') + "1" + std::string(100, ')'))
            .ok());
    EXPECT_EQ(formatTreeValue(*app.find("w")->stored("AXItems")),
              std::string(100, '(') + "1" + std::string(100, ')'));

    // Elements lie at most 100 levels below their application; a text indents at most as many.
    EXPECT_EQ(parseTreeText(treeOfDepth(102)).message(), "line 102: indented more than 100 levels");
    auto& deep = desk->addApplication(200, "com.example.deep", "Deep");
    EXPECT_EQ(deep.load(treeOfDepth(101)).message(),
              "line 101: the element would lie 101 levels below its application, past the most "
              "of 100");
    EXPECT_TRUE(deep.root()->children().empty());
    ASSERT_TRUE(deep.load(treeOfDepth(100)).ok());
    SimNodePtr bottom = deep.root();
    while (!bottom->children().empty()) bottom = bottom->children()[0];
    ASSERT_EQ(bottom->depth(), 100);
    EXPECT_EQ(loadTreeText(bottom, "AXGroup").message(),
              "line 1: the element would lie 101 levels below its application, past the most of "
              "100");
    // The dump starts with the application element, a level above the tree's top.
    std::string expected;
    for (size_t level = 1; level <= 100; ++level)
        expected += std::string(level * 2, ' ') + "AXGroup\n";
    std::string dump = deep.dump();
    EXPECT_EQ(dump.substr(dump.find('\n') + 1), expected);
    // The dump, a level deeper than the tree, loads back.
    auto& again = desk->addApplication(300, "com.example.deep", "Deep");
    ASSERT_TRUE(again.load(dump).ok());
    EXPECT_EQ(again.dump(), dump);
}

TEST(SimTreeText, MessagesQuoteTheTextEscapedAndCut) {
    struct Case {
        std::string text;
        std::string message;
    } cases[] = {
        {"AXWindow AXMain=\x1b[2J", "line 1: cannot read value '\\x1b[2J'"},
        {std::string("AXWindow AXMain=\0", 17), "line 1: cannot read value '\\x00'"},
        {"AXWindow \"a\\\x07\"", "line 1: unknown escape \\\\x07 in string"},
        {"A=\xe2\x80\xae", "line 1: expected a role before the attributes, found 'A=\\u{202e}'"},
        {"AXWindow #a\xef\xbb\xbf", "line 1: expected attribute as key=value, found '\\u{feff}'"},
    };
    for (auto& c : cases) EXPECT_EQ(parseTreeText(c.text).message(), c.message) << c.text;

    // A token of 10 MB is quoted in a short line, not echoed whole.
    for (std::string text : {"AXWindow AXMain=" + std::string(10 << 20, 'x'),
                             "AXWindow AXId=" + std::string(10 << 20, '7') + "e",
                             "AXWindow #" + std::string(10 << 20, 'l') + "\n  AXButton #" +
                                 std::string(10 << 20, 'l')}) {
        std::string message = parseTreeText(text).message();
        if (message.empty()) {
            auto desk = SimDesktop::create();
            message = desk->addApplication(100, "com.example.a", "A").load(text).message();
        }
        EXPECT_LT(message.size(), 300u) << message.substr(0, 300);
        EXPECT_NE(message.find(" more bytes)"), std::string::npos) << message.substr(0, 300);
    }
}

}  // namespace
