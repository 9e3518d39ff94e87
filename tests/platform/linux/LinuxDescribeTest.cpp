// What the speech describers read: menu shortcuts parsed from key bindings (no desktop needed),
// and help, value text, identifiers, role names and shortcuts read from the GTK test window's
// "describe" widgets (inside tests/platform/linux/desktop-session.sh; elsewhere those skip).
#if __has_include(<atspi/atspi.h>)

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <utility>

#include "platform/linux/AtspiDescribe.h"
#include "platform/linux/LinuxDesktopSession.h"

namespace orv::linuxdesk {
namespace {

// "key glyph modifiers", or "none".
std::string shortcut(std::string_view binding) {
    const auto s = parseKeyBinding(binding);
    if (!s) return "none";
    return s->key + " " + std::to_string(s->glyph) + " " + std::to_string(s->modifiers);
}

void expectShortcuts(std::initializer_list<std::pair<const char*, const char*>> cases) {
    for (auto [binding, expected] : cases) EXPECT_EQ(shortcut(binding), expected) << binding;
}

TEST(LinuxKeyBinding, TheAcceleratorIsTakenWithItsModifiers) {
    expectShortcuts({
        {"<Control>s", "S 0 12"}, {"<Primary><Shift>z", "Z 0 13"}, {"<Alt>F4", "F4 0 10"},
        // GTK 3 and Firefox: mnemonic, its path through the menus, accelerator.
        {"s;<Alt>f:s;<Primary>s", "S 0 12"}, {";;<Primary><Shift>z", "Z 0 13"},
        {"s;<Alt>f:s;", "none"}, {"", "none"}, {"<Primary>", "none"},
        // Super takes the Command key's place; GTK's Meta is Alt; NumLock and Release are no keys.
        {"<Super>q", "Q 0 0"}, {"<Meta>x", "X 0 10"}, {"<Mod2><Release><Control>o", "O 0 12"},
        {"F5", "F5 0 8"},
        // Qt's notation; its Meta is the Super key, and localized names are not guessed at.
        {"Ctrl+Shift+Z", "Z 0 13"}, {"Alt+F4", "F4 0 10"}, {"Ctrl++", "+ 0 12"},
        {"Ctrl+;", "; 0 12"}, {"Meta+E", "E 0 0"}, {"Strg+S", "none"},
    });
}

TEST(LinuxKeyBinding, KeysBecomeGlyphsCharactersOrNames) {
    expectShortcuts({
        {"<Primary>Tab", " 2 12"}, {"<Primary>space", " 9 12"}, {"<Alt>Down", " 16 10"},
        {"<Primary>BackSpace", " 23 12"}, {"Delete", " 23 8"}, {"Ctrl+Del", " 23 12"},
        {"<Alt>Left", " 24 10"}, {"<Alt>Up", " 25 10"}, {"<Alt>Right", " 26 10"},
        {"Escape", " 27 8"},
        // X key names of characters are those characters, upper-cased as menus show them.
        {"<Primary>plus", "+ 0 12"}, {"<Primary>eacute", "\xC3\x89 0 12"},
        // The rest are said by name.
        {"<Primary>Page_Up", "Page Up 0 12"}, {"<Alt>Home", "Home 0 10"},
    });
}

}  // namespace
}  // namespace orv::linuxdesk

namespace orv::linuxtest {
namespace {

using contract::waitForTitle;

class LinuxDescribeTest : public LinuxDesktopTest {
  protected:
    void SetUp() override {
        LinuxDesktopTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        app_->send("describe");
    }
    AXUIElementRef find(const char* title) {
        AXUIElementRef e = waitForTitle(*this, title);
        EXPECT_TRUE(e) << title;
        return e;
    }
    // The value as text ("#12" for an integer), or "(error N)".
    std::string read(const AXUIElementRef& e, const char* attribute) {
        if (!e) return "(no element)";
        AXValue v;
        const AXError err = ax().copyAttributeValue(e, attribute, &v);
        if (err != kAXErrorSuccess) return "(error " + std::to_string(err) + ")";
        if (const auto* s = v.get<std::string>()) return *s;
        if (const auto* i = v.get<int64_t>()) return "#" + std::to_string(*i);
        return v.description();
    }
    const std::string noValue = "(error " + std::to_string(kAXErrorNoValue) + ")";
    const std::string unsupported =
        "(error " + std::to_string(kAXErrorAttributeUnsupported) + ")";
};

TEST_F(LinuxDescribeTest, MenuItemsTellTheirShortcuts) {
    struct Expected {
        const char* title;
        std::string cmdChar, modifiers, glyph;
    };
    const Expected expected[] = {
        {"Save", "S", "#12", noValue},
        {"Redo", "Z", "#13", noValue},
        {"Quit", "F4", "#10", noValue},
        {"Wrap", noValue, "#12", "#16"},   // a check item
        {"Erase", noValue, "#12", "#23"},  // a radio item
        {"Zoom in", "+", "#12", noValue},
        {"Top", "Home", "#10", noValue},
        {"Plain", noValue, noValue, noValue},
    };
    for (const auto& x : expected) {
        AXUIElementRef item = find(x.title);
        EXPECT_EQ(read(item, "AXMenuItemCmdChar"), x.cmdChar) << x.title;
        EXPECT_EQ(read(item, "AXMenuItemCmdModifiers"), x.modifiers) << x.title;
        EXPECT_EQ(read(item, "AXMenuItemCmdGlyph"), x.glyph) << x.title;
    }
    // Only menu items have shortcuts; GTK 3 makes an item that opens a menu ("File") a menu.
    for (const char* other : {"Tip", "File"}) {
        AXUIElementRef e = find(other);
        EXPECT_EQ(read(e, "AXMenuItemCmdChar"), unsupported) << other;
        EXPECT_EQ(read(e, "AXMenuItemCmdModifiers"), unsupported) << other;
        EXPECT_EQ(read(e, "AXMenuItemCmdGlyph"), unsupported) << other;
    }
}

TEST_F(LinuxDescribeTest, HelpIdentifierRoleAndValueText) {
    AXUIElementRef tip = find("Tip");
    // GTK 3 makes the tooltip the description; beside a name it is help.
    EXPECT_EQ(read(tip, "AXHelp"), "Shows a tip");
    EXPECT_EQ(read(tip, "AXIdentifier"), "tip-button");
    EXPECT_EQ(read(tip, "AXRoleDescription"), "push button");
    EXPECT_EQ(read(find("First"), "AXHelp"), noValue);
    EXPECT_EQ(read(find("First"), "AXIdentifier"), noValue);
    EXPECT_EQ(read(find("Save"), "AXRoleDescription"), "menu item");
    EXPECT_EQ(read(find("Wrap"), "AXRoleDescription"), "check menu item");

    // GTK 3's sliders answer an empty text.
    EXPECT_EQ(read(find("Level"), "AXValueDescription"), noValue);
    EXPECT_EQ(read(tip, "AXValueDescription"), unsupported);
}

}  // namespace
}  // namespace orv::linuxtest

#endif
