#include "speech/SpeechTestSupport.h"

namespace orv::test {
namespace {

class KeyDescriptions : public SpeechFixture {};

TEST_F(KeyDescriptions, PunctuationIsNamedAndEverythingElseSaidAsTyped) {
    for (char c : kPunctuationCharacters)
        EXPECT_EQ(Controller::descriptiveChar(std::string(1, c)), "<" + std::string(1, c) + ">")
            << c;
    EXPECT_EQ(Controller::descriptiveChar("\\"), "<BACKSLASH>");
    for (const char* same : {"a", "Z", "7", "@", "^", "_", "~", " ", "\t", "é", "", "ab", ",,"})
        EXPECT_EQ(Controller::descriptiveChar(same), same) << same;
}

TEST_F(KeyDescriptions, GlyphsNameTheirKeysAndUnknownOnesNothing) {
    const std::map<long, std::string> named = {
        {2, "<TAB>"},        {9, "<SPACE>"},    {16, "<DOWNARROW>"},  {23, "<DELETE>"},
        {24, "<LEFTARROW>"}, {25, "<UPARROW>"}, {26, "<RIGHTARROW>"}, {27, "<ESCAPE>"},
        {104, "<UPARROW>"},  {148, "<FnFn>"}};
    for (long code = -1; code < 300; ++code) {
        auto it = named.find(code);
        EXPECT_EQ(Controller::descriptiveGlyph(AXValue(code)),
                  it == named.end() ? std::nullopt : std::optional<std::string>(it->second))
            << code;
    }
    EXPECT_EQ(Controller::descriptiveGlyph(AXValue(27.0)), "<ESCAPE>");
    EXPECT_EQ(Controller::descriptiveGlyph(std::nullopt), std::nullopt);
}

TEST_F(KeyDescriptions, ModifierValuesFollowTheMenuBits) {
    const std::string cmd = "<modCommand>", shift = "<modShift>", opt = "<modOption>",
                      ctl = "<modControl>";
    const std::map<long, std::string> said = {
        {0, cmd},
        {1, shift + "-" + cmd},
        {2, opt + "-" + cmd},
        {3, opt + "-" + shift + "-" + cmd},
        {4, ctl + "-" + cmd},
        {5, ctl + "-" + shift + "-" + cmd},
        {6, ctl + "-" + opt + "-" + cmd},
        {9, shift},
        {10, opt},
        {11, opt + "-" + shift},
        {12, ctl},
        {13, ctl + "-" + shift},
        {15, ctl + "-" + opt + "-" + shift},
    };
    for (long value = -2; value <= 20; ++value) {
        auto it = said.find(value);
        EXPECT_EQ(Controller::descriptiveShortcutChar("S", AXValue(value)),
                  it == said.end() ? std::nullopt : std::optional<std::string>(it->second + "-S"))
            << value;
    }
    // The key is described once more; a missing key or modifier value.
    EXPECT_EQ(Controller::descriptiveShortcutChar(",", AXValue(0)), cmd + "-<,>");
    EXPECT_EQ(Controller::descriptiveShortcutChar(std::nullopt, AXValue(0)), std::nullopt);
    EXPECT_EQ(Controller::descriptiveShortcutChar("", AXValue(0)), std::nullopt);
    EXPECT_EQ(Controller::descriptiveShortcutChar("S", std::nullopt), cmd + "-S");
    EXPECT_EQ(Controller::descriptiveShortcutChar("S", AXValue("1")), shift + "-" + cmd + "-S");
}

TEST_F(KeyDescriptions, MenuItemsCarryTheirShortcut) {
    load(R"(
AXMenu [0 0 200 200]
  AXMenuItem "Find" [0 0 100 20] #find AXMenuItemCmdChar="\\" AXMenuItemCmdModifiers=6
  AXMenuItem "Quit" [0 0 100 20] #seven AXMenuItemCmdChar="Q" AXMenuItemCmdModifiers=7
  AXMenuItem "Close" [0 0 100 20] #escape AXMenuItemCmdChar="" AXMenuItemCmdGlyph=27 AXMenuItemCmdModifiers=0
  AXMenuItem "Up" [0 0 100 20] #glyphonly AXMenuItemCmdGlyph=104 AXMenuItemCmdModifiers=8
  AXMenuItem "Odd" [0 0 100 20] #unknownglyph AXMenuItemCmdGlyph=3 AXMenuItemCmdModifiers=0
  AXMenuItem "Plain" [0 0 100 20] #plain
  AXMenuItem "Two" [0 0 100 20] #twochar AXMenuItemCmdChar="F5" AXMenuItemCmdModifiers=9)");
    auto d = Controller::echoMenuItem(element("find"));
    EXPECT_EQ(detailed(d), "MenuItem(Find)");
    EXPECT_EQ(d->extraInfo, "<modControl>-<modOption>-<modCommand>-<BACKSLASH>");
    // Shift, Option and Control with Command is deliberately not announced.
    EXPECT_EQ(Controller::echoMenuItem(element("seven"))->extraInfo, std::nullopt);
    EXPECT_EQ(Controller::echoMenuItem(element("escape"))->extraInfo, "<modCommand>-<ESCAPE>");
    EXPECT_EQ(Controller::echoMenuItem(element("glyphonly"))->extraInfo, std::nullopt);
    EXPECT_EQ(Controller::echoMenuItem(element("unknownglyph"))->extraInfo, std::nullopt);
    EXPECT_EQ(Controller::echoMenuItem(element("plain"))->extraInfo, std::nullopt);
    EXPECT_EQ(Controller::echoMenuItem(element("twochar"))->extraInfo, "<modShift>-F5");
}

}  // namespace
}  // namespace orv::test
