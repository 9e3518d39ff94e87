#pragma once

// A menu item's shortcut, taken from the key binding its toolkit hands AT-SPI.

#include <optional>
#include <string>
#include <string_view>

namespace orv::linuxdesk {

// Bits of AXMenuItemCmdModifiers.
inline constexpr int kCmdShift = 1;
inline constexpr int kCmdOption = 2;
inline constexpr int kCmdControl = 4;
inline constexpr int kCmdNoCommand = 8;

struct MenuShortcut {
    // One upper-case character, or the name of a key that has neither character nor glyph
    // ("F4", "Page Up"); empty for a glyph.
    std::string key;
    int glyph = 0;  // 0: none
    int modifiers = kCmdNoCommand;
};

// The accelerator of a key binding: GTK's and Firefox's "<Primary><Shift>z" (alone, or the last
// of "mnemonic;path;accelerator"), or Qt's "Ctrl+Shift+Z". Nothing when there is none or it is
// not understood.
std::optional<MenuShortcut> parseKeyBinding(std::string_view binding);

}  // namespace orv::linuxdesk
