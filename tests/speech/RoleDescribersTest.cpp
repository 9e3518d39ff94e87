#include "speech/SpeechTestSupport.h"

namespace orv::test {
namespace {

class RoleDescribers : public SpeechFixture {};

TEST_F(RoleDescribers, ButtonsPutDisabledBeforeTheBestLabel) {
    load(R"(
AXWindow "W" [0 0 500 500]
  AXButton "Save" [0 0 10 10] #disabled AXEnabled=false AXDescription="" AXHelp="Saves it"
  AXButton "Title" [0 0 10 10] #described AXDescription="Close"
  AXButton [0 0 10 10] #bare AXRoleDescription="button"
  AXMenuButton "Tools" [0 0 10 10] #menubutton AXEnabled=false
  AXDisclosureTriangle [0 0 10 10] #triangle AXDescription="Details" AXHelp="Shows more")");
    auto d = Controller::echoButton(element("disabled"));
    EXPECT_EQ(detailed(d), "Button(<Disabled>|Save)");
    EXPECT_EQ(d->extraInfo, "Saves it");
    d = Controller::echoButton(element("described"));
    EXPECT_EQ(detailed(d), "Button(|Close)");
    EXPECT_EQ(d->extraInfo, std::nullopt);
    EXPECT_EQ(detailed(Controller::echoButton(element("bare"))), "Button(|button)");
    EXPECT_EQ(detailed(Controller::echoMenuButton(element("menubutton"))),
              "MenuButton(<Disabled>|Tools)");
    d = Controller::echoDisclosureTriangle(element("triangle"));
    EXPECT_EQ(detailed(d), "Disclosure(Details)");
    EXPECT_EQ(d->extraInfo, "Shows more");
}

TEST_F(RoleDescribers, PopUpButtonNamesItsRoleOnlyWithADescription) {
    load(R"(
AXWindow "W" [0 0 500 500]
  AXPopUpButton [0 0 10 10] #size AXValue="Large" AXDescription="Font size"
  AXPopUpButton [0 0 10 10] #plain AXValue="Small")");
    auto d = Controller::echoPopUpButton(element("size"));
    EXPECT_EQ(detailed(d), "PopupButton(|Large)");
    EXPECT_EQ(d->extraInfo, "Role(Font size)");
    EXPECT_EQ(Controller::echoPopUpButton(element("plain"))->extraInfo, std::nullopt);
}

TEST_F(RoleDescribers, CheckBoxesAndRadioButtonsReadTheirValueDifferently) {
    load(R"(
AXWindow "W" [0 0 500 500]
  AXCheckBox "Mixed" [0 0 10 10] #mixed AXValue=2
  AXCheckBox "Off" [0 0 10 10] #off AXValue=0
  AXCheckBox "Unset" [0 0 10 10] #unset
  AXRadioButton "Two" [0 0 10 10] #radio2 AXValue=2 AXDescription="Second"
  AXGroup [0 0 100 100] #group
    AXRadioButton [0 0 10 10] #radio1 AXValue=1 AXDescription="Small"
    AXRadioButton [0 0 10 10] AXValue=0 AXDescription="Big")");
    // Mixed reads as checked, while a radio button is selected only by exactly 1.
    EXPECT_EQ(detailed(Controller::echoCheckbox(element("mixed"))), "Checkbox(Mixed|<Checked>)");
    EXPECT_EQ(detailed(Controller::echoCheckbox(element("off"))), "Checkbox(Off|<Unchecked>)");
    EXPECT_EQ(detailed(Controller::echoCheckbox(element("unset"))), "Checkbox(Unset|<Unchecked>)");
    auto d = Controller::echoRadioButton(element("radio2"));
    EXPECT_EQ(detailed(d), "RadioButton(Second|<NotSelected>)");
    EXPECT_EQ(d->extraInfo, std::nullopt);  // its parent is the window
    d = Controller::echoRadioButton(element("radio1"));
    EXPECT_EQ(detailed(d), "RadioButton(Small|<Selected>)");
    EXPECT_EQ(d->extraInfo, "Small\n\nBig\n\n");
}

TEST_F(RoleDescribers, TextAreasCountLinesAndTextFieldsNameTheirText) {
    load(R"(
AXWindow "W" [0 0 500 500]
  AXTextArea [0 0 10 10] #three AXValue="one\ntwo\nthree"
  AXTextArea [0 0 10 10] #one AXValue="single"
  AXTextArea [0 0 10 10] #emptyarea AXValue=""
  AXTextField [0 0 10 10] #field AXValue="hello"
  AXTextField [0 0 10 10] #emptyfield AXValue=""
  AXTextField [0 0 10 10] #nilfield
  AXTextField [0 0 10 10] #tokens AXValue="￼￼"
    AXButton "Ann" [0 0 1 1]
    AXButton [0 0 1 1]
    AXButton "Bob" [0 0 1 1]
  AXTextField [0 0 10 10] #twotokens AXValue="￼￼"
    AXButton "Ann" [0 0 1 1]
    AXButton "Bob" [0 0 1 1])");
    EXPECT_EQ(detailed(Controller::echoTextArea(element("three"))), "TextArea(3)");
    EXPECT_EQ(detailed(Controller::echoTextArea(element("one"))), "TextField(single)");
    EXPECT_EQ(detailed(Controller::echoTextArea(element("emptyarea"))), "<TextArea Empty>");
    EXPECT_EQ(detailed(Controller::echoTextField(element("field"))), "TextField(hello)");
    EXPECT_EQ(detailed(Controller::echoTextField(element("emptyfield"))), "<TextField Empty>");
    EXPECT_EQ(detailed(Controller::echoTextField(element("nilfield"))), "<TextField Empty>");
    // Two placeholders (one UTF-16 unit each, three bytes) but three children: plain text.
    EXPECT_EQ(detailed(Controller::echoTextField(element("tokens"))), "TextField(￼￼)");
    EXPECT_EQ(detailed(Controller::echoTextField(element("twotokens"))),
              "TextField Container(Ann, Bob)");
}

TEST_F(RoleDescribers, FinderTextFieldsAreSaidAsTheyStand) {
    auto& finder = addApp(200, "com.apple.finder", "Finder");
    load(finder, R"(
AXWindow "Home" [0 0 500 500]
  AXTextField [0 0 10 10] #empty AXValue=""
  AXTextField [0 0 10 10] #name AXValue="notes.txt")");
    EXPECT_EQ(Controller::echoTextField(element("empty", &finder)), nullptr);
    EXPECT_EQ(detailed(Controller::echoTextField(element("name", &finder))), "notes.txt");
}

TEST_F(RoleDescribers, SlidersSayTheValueDescriptionOrTheValue) {
    load(R"(
AXWindow "W" [0 0 500 500]
  AXSlider [0 0 10 10] #numeric AXValue=50
  AXSlider [0 0 10 10] #fraction AXValue=0.25
  AXSlider [0 0 10 10] #described AXValue=3 AXValueDescription="loud"
  AXSlider [0 0 10 10] #novalue)");
    EXPECT_EQ(detailed(Controller::echoSlider(element("numeric"))), "Slider(50)");
    EXPECT_EQ(detailed(Controller::echoSlider(element("fraction"))), "Slider(0.25)");
    EXPECT_EQ(detailed(Controller::echoSlider(element("described"))), "Slider(loud)");
    EXPECT_EQ(Controller::echoSlider(element("novalue")), nullptr);
}

TEST_F(RoleDescribers, MenusNameTheirOwnerAndTheSelectedItem) {
    load(R"(
AXMenuBar [0 0 500 22]
  AXMenuBarItem "File" [0 0 40 22] #file
    AXMenu [0 22 100 100] #idle
      AXMenuItem "Open" [0 22 100 20]
  AXMenuBarItem "Edit" [40 0 40 22]
    AXMenu [40 22 100 100] #busy AXSelectedChildren=(@copy)
      AXMenuItem "Copy" [40 22 100 20] #copy AXEnabled=false
  AXMenuBarItem "View" [80 0 40 22]
    AXMenu [80 22 100 100] #other AXSelectedChildren=(@sep)
      AXStaticText "Zoom" [80 22 100 20] #sep
  AXMenuBarItem "" [120 0 40 22] #appmenu)");
    auto d = Controller::echoMenu(element("idle"));
    EXPECT_EQ(detailed(d), "Menu(File)");
    EXPECT_EQ(d->extraInfo, std::nullopt);
    EXPECT_EQ(Controller::echoMenu(element("busy"))->extraInfo, "MenuItem(Copy)");
    EXPECT_EQ(Controller::echoMenu(element("other"))->extraInfo, "Zoom");
    EXPECT_EQ(detailed(Controller::echoMenuItem(element("copy"))), "DisabledMenuItem(Copy)");
    EXPECT_EQ(detailed(Controller::echoMenuBarItem(element("file"))), "MenuBarItem(File)");
    EXPECT_EQ(detailed(Controller::echoMenuBarItem(element("appmenu"))), "MenuBarItem(Example)");
}

TEST_F(RoleDescribers, ContainersCountTheirItems) {
    load(R"(
AXWindow "W" [0 0 500 500] #window
  AXList [0 0 10 10] #list
    AXStaticText [0 0 1 1]
    AXStaticText [0 0 1 1]
    AXStaticText [0 0 1 1]
  AXGroup [0 0 10 10] #group
  AXGrid [0 0 10 10] #grid
    AXCell [0 0 1 1]
  AXOutline [0 0 10 10] #outline AXRows=(@r1 @r2)
    AXRow [0 0 1 1] #r1
    AXRow [0 0 1 1] #r2
    AXColumn [0 0 1 1])");
    EXPECT_EQ(detailed(Controller::echoList(element("list"))), "List(3)");
    EXPECT_EQ(detailed(Controller::echoGroup(element("group"))), "Group(0)");
    auto grid = Controller::echoGrid(element("grid"));
    EXPECT_EQ(detailed(grid), "Grid(1)");
    EXPECT_EQ(grid->extraInfo, "");  // a grid has no group description of its own
    EXPECT_EQ(detailed(Controller::echoOutline(element("outline"))), "Outline(2)");
    EXPECT_EQ(detailed(Controller::echoWindow(element("window"))), "Window(W)");
}

TEST_F(RoleDescribers, TextRolesWithoutPhrasesSayTheirTextOrNothing) {
    load(R"(
AXWindow "W" [0 0 500 500]
  AXStaticText [0 0 10 10] #label AXValue="Name:"
  AXStaticText [0 0 10 10] #blank AXValue=""
  AXImage "Logo" [0 0 10 10] #logo
  AXImage [0 0 10 10] #anonymous
  AXRow [0 0 10 10] #row
    AXStaticText [0 0 1 1] AXValue="a"
    AXTextField [0 0 1 1] AXValue="b"
  AXRow [0 0 10 10] #formrow
    AXStaticText [0 0 1 1] AXValue="a"
    AXButton "Go" [0 0 1 1])");
    EXPECT_EQ(detailed(Controller::echoStaticText(element("label"))), "Name:");
    EXPECT_EQ(Controller::echoStaticText(element("blank")), nullptr);
    EXPECT_EQ(detailed(Controller::echoImage(element("logo"))), "Logo");
    EXPECT_EQ(Controller::echoImage(element("anonymous")), nullptr);
    EXPECT_EQ(detailed(Controller::echoRow(element("row"))), "a\n\nb\n\n");
    EXPECT_EQ(Controller::echoRow(element("formrow")), nullptr);
}

TEST_F(RoleDescribers, TheRoleChoosesTheDescriber) {
    load(R"(
AXWindow "W" [0 0 500 500]
  AXWebArea "" [0 0 10 10] #web AXValue="page"
  AXScrollArea "Scroll" [0 0 10 10] #scroll
  AXCheckBox "Box" [0 0 10 10] #box AXValue=1)");
    // No role leads to the web area describer, though it works when called.
    EXPECT_EQ(Controller::detailedSpeechDirectiveForElement(element("web")), nullptr);
    EXPECT_EQ(detailed(Controller::echoWebArea(element("web"))), "WebArea(page)");
    EXPECT_EQ(Controller::detailedSpeechDirectiveForElement(element("scroll")), nullptr);
    EXPECT_EQ(detailed(Controller::detailedSpeechDirectiveForElement(element("box"))),
              "Checkbox(Box|<Checked>)");
}

}  // namespace
}  // namespace orv::test
