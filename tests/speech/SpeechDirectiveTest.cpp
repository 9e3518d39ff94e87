#include "speech/SpeechTestSupport.h"
#include "support/LogCapture.h"

namespace orv::test {
namespace {

class SpeechDirectives : public SpeechFixture {
  protected:
    ORVAXSpeechDirectiveRef directive(const std::string& label, sim::SimApp* in = nullptr) {
        return Controller::speechDirectiveForElement(element(label, in));
    }
    static std::optional<std::string> simplified(const ORVAXSpeechDirectiveRef& d) {
        return d ? d->simplifiedDescription : std::optional<std::string>("(no directive)");
    }
};

TEST(SpeechDirectiveRecord, DescriptionCutsLongSimplifiedTexts) {
    auto d = ORVAXSpeechDirective::make();
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(d.get()));
    EXPECT_EQ(d->description(),
              "<ORVAXSpeechDirective: " + std::string(address) + " simplified:[(null)] source:0>");
    d->source = ORVAXSpeechDirective::kSourceDock;
    d->simplifiedDescription = std::string(30, 'x');
    EXPECT_NE(d->description().find("[" + std::string(30, 'x') + "] source:1>"), std::string::npos);
    d->simplifiedDescription = std::string(30, 'x') + "y";
    EXPECT_NE(d->description().find("[" + std::string(30, 'x') + "...]"), std::string::npos);
    // Characters, not bytes: 31 two-byte letters are cut between letters.
    std::string accented;
    for (int i = 0; i < 31; ++i) accented += "é";
    d->simplifiedDescription = accented;
    EXPECT_NE(d->description().find("[" + accented.substr(0, 60) + "...]"), std::string::npos);
}

TEST(SpeechDirectiveRecord, TextLengthCountsUtf16Units) {
    EXPECT_EQ(textLength("abc"), 3u);
    EXPECT_EQ(textLength("é￼"), 2u);
    EXPECT_EQ(textLength("😀a"), 3u);
    EXPECT_EQ(textPrefix("😀a", 1), "");  // a surrogate pair is never split
    EXPECT_EQ(textPrefix("a😀b", 3), "a😀");
}

TEST_F(SpeechDirectives, DirectiveForTextNeedsAtLeastOneCharacter) {
    EXPECT_EQ(Controller::directiveForText(std::nullopt), nullptr);
    EXPECT_EQ(Controller::directiveForText(""), nullptr);
    auto d = Controller::directiveForText("hi");
    ASSERT_TRUE(d);
    EXPECT_EQ(d->detailedDescription, "hi");
    EXPECT_EQ(d->simplifiedDescription, std::nullopt);
    EXPECT_EQ(d->source, ORVAXSpeechDirective::kSourceFocus);
}

TEST_F(SpeechDirectives, SimplifiedTextComesFromTheRoleThenTitleThenFallbacks) {
    load(R"(
AXWindow "W" [0 0 500 500]
  AXButton "Save" [0 0 10 10] #titled
  AXButton [0 0 10 10] #bare AXRoleDescription="button"
  AXButton [0 0 10 10] #described AXDescription="Close"
  AXTextField "Label" [0 0 10 10] #emptytext AXValue="" AXDescription="Described"
  AXTextField "Label" [0 0 10 10] #silenttext AXValue=""
  AXSlider [0 0 10 10] #slider AXValue=40
  AXCheckBox [0 0 10 10] #box AXValue=1
  AXScrollArea "Scroll" [0 0 10 10] #scroll
  AXTextField [0 0 10 10] #field AXValue="typed"
AXMenuBar [0 0 500 22]
  AXMenuBarItem "" [0 0 40 22] #appmenu)");
    auto d = directive("titled");
    EXPECT_EQ(simplified(d), "Save");
    EXPECT_EQ(detailed(d), "Button(|Save)");
    EXPECT_EQ(d->source, ORVAXSpeechDirective::kSourceFocus);
    EXPECT_FALSE(d->associatedElementIsDescendantOfMenuItem);
    EXPECT_EQ(simplified(directive("bare")), "button");
    EXPECT_EQ(simplified(directive("described")), "Close");
    // An empty value is kept over the title; the description still helps.
    EXPECT_EQ(simplified(directive("emptytext")), "Described");
    EXPECT_EQ(directive("silenttext"), nullptr);
    EXPECT_EQ(simplified(directive("slider")), "40");
    // A check box's numeric value is not text.
    EXPECT_EQ(directive("box"), nullptr);
    // Titled, but no describer for the role.
    EXPECT_EQ(directive("scroll"), nullptr);
    EXPECT_EQ(simplified(directive("field")), "typed");
    EXPECT_EQ(simplified(directive("appmenu")), "Example");
}

TEST_F(SpeechDirectives, TextInAWebPageIsSaidWithItsGroupOrLink) {
    load(R"(
AXWindow "W" [0 0 500 500]
  AXWebArea "" [0 0 400 400]
    AXGroup [0 0 100 100]
      AXStaticText [0 0 10 10] #grouped AXValue="one"
      AXStaticText [0 0 10 10] AXValue="two"
    AXGroup [0 0 100 100]
      AXGroup [0 0 100 100]
        AXStaticText [0 0 10 10] #nested AXValue="three"
    AXLink [0 0 100 10]
      AXStaticText [0 0 10 10] #linked AXValue="Home"
  AXStaticText [0 0 10 10] #outside AXValue="plain")");
    EXPECT_EQ(simplified(directive("grouped")), "one\n\ntwo\n\n");
    EXPECT_EQ(detailed(directive("grouped")), "one");
    // The climb reaches the outer group, whose inner group makes it a form: the text's own
    // value is said instead.
    EXPECT_EQ(simplified(directive("nested")), "three");
    EXPECT_EQ(simplified(directive("linked")), "<Link>: Home\n\n,");
    EXPECT_EQ(simplified(directive("outside")), "plain");
}

TEST_F(SpeechDirectives, FinderGroupsWithoutTextTakeTheirWindowTitle) {
    auto& finder = addApp(200, "com.apple.finder", "Finder");
    load(finder, R"(
AXWindow "Documents" [0 0 500 500]
  AXScrollArea [0 0 400 400]
    AXGroup [0 0 100 100] #icons)");
    load(R"(
AXWindow "Elsewhere" [0 0 500 500]
  AXGroup [0 0 100 100] #group)");
    auto d = directive("icons", &finder);
    EXPECT_EQ(simplified(d), "Documents");
    EXPECT_EQ(detailed(d), "Group(0)");
    // Elsewhere the empty group text stays: said as nothing, but still a directive.
    EXPECT_EQ(simplified(directive("group")), "");
}

TEST_F(SpeechDirectives, DockElementsAreMarkedAndMenuItemsFlagged) {
    auto& dock = addApp(300, "com.apple.dock", "Dock");
    load(dock, R"(
AXList [0 0 500 50]
  AXButton "Mail" [0 0 50 50] #tile)");
    load(R"(
AXMenu [0 0 200 200]
  AXMenuItem "Open" [0 0 100 20] #item
    AXStaticText [0 0 10 10] #inside AXValue="Open")");
    EXPECT_EQ(directive("tile", &dock)->source, ORVAXSpeechDirective::kSourceDock);
    EXPECT_TRUE(directive("item")->associatedElementIsDescendantOfMenuItem);
    EXPECT_TRUE(directive("inside")->associatedElementIsDescendantOfMenuItem);
}

TEST_F(SpeechDirectives, AnApplicationRaisingMidWayLeavesWhatWasBuilt) {
    load(R"(
AXWindow "W" [0 0 500 500]
  AXButton "Save" [0 0 10 10] #early
  AXButton "Save" [0 0 10 10] #late)");
    app->find("early")->raiseOnRead("AXTitle", "busy");
    app->find("late")->raiseOnRead("AXParent", "busy");
    EXPECT_EQ(directive("early"), nullptr);
    // The menu-item check comes last: the directive is there, the flag unset.
    auto d = directive("late");
    ASSERT_TRUE(d);
    EXPECT_EQ(d->simplifiedDescription, "Save");
    EXPECT_FALSE(d->associatedElementIsDescendantOfMenuItem);
}

TEST_F(SpeechDirectives, ContainersWithControlsAreNotReadAsText) {
    LogCapture log(2);
    load(R"(
AXWindow "W" [0 0 500 500]
  AXTable [0 0 400 400]
    AXCell [0 0 100 20] #cell
      AXStaticText [0 0 10 10] AXValue="text"
      AXButton "Go" [0 0 10 10]
    AXRow [0 0 100 20] #row
      AXStaticText [0 0 10 10] AXValue="a"
      AXRadioButton [0 0 10 10] AXDescription="b"
      AXImage "ignored" [0 0 10 10])");
    EXPECT_EQ(Controller::childrenDescriptions(element("cell")), std::nullopt);
    EXPECT_EQ(log.countContaining(
                  "(warning) +[ORVAXSpeechDirectiveController childrenDescriptions:] element "
                  "description ignored after detecting objectionable element: AXButton"),
              1u);
    EXPECT_EQ(Controller::groupDescription(element("cell")), "");
    // An empty text but a cell has no describer: nothing at all.
    EXPECT_EQ(directive("cell"), nullptr);
    EXPECT_EQ(Controller::childrenDescriptions(element("row")),
              (std::vector<std::string>{"a\n\n", "b\n\n", ""}));
    EXPECT_EQ(simplified(directive("row")), "a\n\nb\n\n");
}

class MailMessages : public SpeechDirectives {
  protected:
    // Each message in an application of its own, so that labels stay unique.
    std::string describe(const std::string& cellChildren) {
        mail = &addApp(nextPid++, "com.apple.mail", "Mail");
        const std::string tree =
            "AXWindow \"Inbox\" [0 0 500 500]\n  AXTable [0 0 400 400]\n"
            "    AXCell [0 0 400 40] #cell\n" +
            cellChildren;
        auto result = mail->load(tree);
        EXPECT_TRUE(result.ok()) << result.message();
        return Controller::groupDescription(element("cell", mail));
    }
    static std::string child(const char* identifier, const std::string& value) {
        return "      AXStaticText [0 0 1 1] AXIdentifier=\"" + std::string(identifier) +
               "\" AXValue=\"" + value + "\"\n";
    }
    sim::SimApp* mail = nullptr;
    pid_t nextPid = 400;
};

TEST_F(MailMessages, AMessageIsSaidAsStateSenderDateSubjectAndSnippet) {
    EXPECT_EQ(describe("      AXImage [0 0 1 1] AXDescription=\"unread\"\n" +
                       child("_MV_RICH_LIST_SENDER", "Ann") + child("_MV_RICH_LIST_DATE", "Today") +
                       child("_MV_RICH_LIST_SUBJECT", "Lunch") +
                       child("_MV_RICH_LIST_SNIPPET", "See you, there!")),
              "unread message, from, Ann, Today, Lunch, See you there ...");
}

TEST_F(MailMessages, MissingPartsAreLeftOut) {
    EXPECT_EQ(describe(child("_MV_RICH_LIST_SUBJECT", "Hi")), "read message, Hi");
    EXPECT_EQ(describe("      AXImage [0 0 1 1] AXDescription=\"flagged\"\n"), "read message");
}

TEST_F(MailMessages, ALongSnippetStopsAtTheWordThatPassesOneHundredCharacters) {
    // Words of nine letters take ten characters each with their space: ten make exactly 100,
    // which is not past the limit, so the eleventh is still taken and nothing after it.
    std::string words;
    for (int i = 0; i < 14; ++i) words += std::string(9, char('a' + i)) + "  ";
    std::string expected = "read message, ";
    for (int i = 0; i < 11; ++i) expected += std::string(9, char('a' + i)) + " ";
    EXPECT_EQ(describe(child("_MV_RICH_LIST_SNIPPET", words)), expected + "...");
}

TEST_F(MailMessages, SnippetWordsKeepApostrophesAndNumbers) {
    EXPECT_EQ(describe(child("_MV_RICH_LIST_SNIPPET", "Don't pay 3,50 \u2014 \u201cok\u201d...")),
              "read message, Don't pay 3,50 ok ...");
}

TEST_F(MailMessages, OnlyTheMailProgramsCellsUseTheRule) {
    load(R"(
AXWindow "W" [0 0 500 500]
  AXCell [0 0 100 20] #cell
    AXStaticText [0 0 1 1] AXIdentifier="_MV_RICH_LIST_SENDER" AXValue="Ann")");
    EXPECT_EQ(Controller::groupDescription(element("cell")), "Ann\n\n");
}

}  // namespace
}  // namespace orv::test
