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

}  // namespace
