// What the speech describers read besides an object's role, name and value: help, the text of a
// value, and a menu item's shortcut.

#include "platform/linux/AtspiDescribe.h"

#include <atspi/atspi.h>

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "platform/linux/AtspiAccessibility.h"
#include "platform/linux/AtspiCalls.h"

// Last: Xlib's macros (None, Status, Bool) would rename what the headers above declare.
#include <X11/Xlib.h>

namespace orv::linuxdesk {

using namespace detail;

namespace {

// Internal: the Command key, which clears kCmdNoCommand at the end.
constexpr int kCommand = 16;

bool sameNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
        return g_ascii_tolower(x) == g_ascii_tolower(y);
    });
}

bool isAny(std::string_view name, std::initializer_list<std::string_view> names) {
    return std::any_of(names.begin(), names.end(),
                       [&](std::string_view n) { return sameNoCase(name, n); });
}

// Control stays Control: Linux applications bind their shortcuts to it, and calling it Command
// would have a key said that the keyboard does not have. The Super key takes the Command key's
// place (and its modifier, under X). GTK's <Meta> is Alt on PC keyboards; Qt's Meta is Super.
// -1: not a modifier.
int modifierBit(std::string_view name, bool qt) {
    if (isAny(name, {"Control", "Ctrl", "Ctl", "Primary"})) return kCmdControl;
    if (isAny(name, {"Shift", "Shft"})) return kCmdShift;
    if (isAny(name, {"Alt", "Mod1", "Option"})) return kCmdOption;
    if (sameNoCase(name, "Meta")) return qt ? kCommand : kCmdOption;
    if (isAny(name, {"Super", "Hyper", "Mod4", "Command", "Cmd"})) return kCommand;
    return -1;
}

struct Glyph {
    std::string_view name;
    int glyph;
};

// Keys the describers say from a glyph code; names as GTK (X key names) and Qt write them.
constexpr Glyph kGlyphs[] = {
    {"Tab", 2},        {"ISO_Left_Tab", 2}, {"space", 9},      {"Down", 16},    {"KP_Down", 16},
    {"BackSpace", 23}, {"Delete", 23},      {"KP_Delete", 23}, {"Del", 23},     {"Left", 24},
    {"KP_Left", 24},   {"Up", 25},          {"KP_Up", 25},     {"Right", 26},   {"KP_Right", 26},
    {"Escape", 27},    {"Esc", 27},
};

// The character a key types, upper-cased as menus show it; empty for a key without one.
std::string characterOf(std::string_view name) {
    gunichar c = 0;
    if (g_utf8_validate(name.data(), static_cast<gssize>(name.size()), nullptr) &&
        g_utf8_strlen(name.data(), static_cast<gssize>(name.size())) == 1) {
        c = g_utf8_get_char(name.data());
    } else {
        // X key names ("plus", "eacute", "U20AC"): Latin-1 keys are their code points, others
        // carry one with a flag.
        const KeySym sym = XStringToKeysym(std::string(name).c_str());
        if ((sym >= 0x20 && sym <= 0x7e) || (sym >= 0xa0 && sym <= 0xff))
            c = static_cast<gunichar>(sym);
        else if ((sym & 0xff000000UL) == 0x01000000UL)
            c = static_cast<gunichar>(sym & 0x00ffffffUL);
    }
    if (!c || !g_unichar_isprint(c)) return {};
    char utf8[8];
    return std::string(utf8, static_cast<size_t>(g_unichar_to_utf8(g_unichar_toupper(c), utf8)));
}

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && g_ascii_isspace(s.front())) s.remove_prefix(1);
    while (!s.empty() && g_ascii_isspace(s.back())) s.remove_suffix(1);
    return s;
}

}  // namespace

std::optional<MenuShortcut> parseKeyBinding(std::string_view binding) {
    // "mnemonic;path;accelerator": the accelerator is all after the second separator (Qt's ";"
    // key comes whole in a binding without the other two).
    std::string_view accel = binding;
    if (std::count(binding.begin(), binding.end(), ';') >= 2)
        accel = binding.substr(binding.find(';', binding.find(';') + 1) + 1);
    accel = trimmed(accel);
    int bits = 0;
    if (!accel.empty() && accel.front() == '<') {
        for (size_t close; !accel.empty() && accel.front() == '<' &&
                           (close = accel.find('>')) != std::string_view::npos;) {
            // Modifiers without a key of their own (NumLock's Mod2, <Release>) change nothing.
            bits |= std::max(0, modifierBit(accel.substr(1, close - 1), false));
            accel.remove_prefix(close + 1);
        }
    } else {
        // "Ctrl++" is Control and the plus key.
        for (size_t plus; (plus = accel.find('+')) != std::string_view::npos && plus > 0;) {
            const int bit = modifierBit(trimmed(accel.substr(0, plus)), true);
            if (bit < 0) return std::nullopt;  // a localized name, or not a shortcut
            bits |= bit;
            accel.remove_prefix(plus + 1);
        }
    }
    accel = trimmed(accel);
    if (accel.empty()) return std::nullopt;

    MenuShortcut out;
    out.modifiers = (bits & (kCmdShift | kCmdOption | kCmdControl)) |
                    ((bits & kCommand) ? 0 : kCmdNoCommand);
    for (const Glyph& g : kGlyphs)
        if (sameNoCase(accel, g.name)) {
            out.glyph = g.glyph;
            return out;
        }
    out.key = characterOf(accel);
    if (out.key.empty()) {
        // A named key without a glyph is said by its name.
        out.key = std::string(accel);
        std::replace(out.key.begin(), out.key.end(), '_', ' ');
    }
    return out;
}

namespace {

enum class Described { Help, ValueDescription, CmdChar, CmdModifiers, CmdGlyph };

const std::unordered_map<std::string, Described>& describedAttributes() {
    static const std::unordered_map<std::string, Described> table = {
        {"AXHelp", Described::Help},
        {"AXValueDescription", Described::ValueDescription},
        {"AXMenuItemCmdChar", Described::CmdChar},
        {"AXMenuItemCmdModifiers", Described::CmdModifiers},
        {"AXMenuItemCmdGlyph", Described::CmdGlyph},
    };
    return table;
}

bool isMenuItemRole(int role) {
    return role == ATSPI_ROLE_MENU_ITEM || role == ATSPI_ROLE_CHECK_MENU_ITEM ||
           role == ATSPI_ROLE_RADIO_MENU_ITEM;
}

}  // namespace

std::optional<AXError> AtspiAccessibility::readDescribed(const AtspiElement& el,
                                                         const std::string& attribute,
                                                         AXValue* out) {
    auto it = describedAttributes().find(attribute);
    if (it == describedAttributes().end()) return std::nullopt;
    AtspiAccessible* acc = el.accessible();
    if (appGone(acc)) return kAXErrorInvalidUIElement;
    CallClock clock;
    Err err;
    switch (it->second) {
        case Described::Help: {
            // A description beside a name is what GTK makes of a tooltip, and what web pages
            // make of aria-describedby; without a name it stands for the name.
            GStr description{atspi_accessible_get_description(acc, &err)};
            if (err.e || !description.s || !*description.s)
                return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
            GStr name{atspi_accessible_get_name(acc, &err)};
            if (err.e) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
            if (!name.s || !*name.s || std::strcmp(name.s, description.s) == 0)
                return kAXErrorNoValue;
            *out = AXValue(description.str());
            return kAXErrorSuccess;
        }
        case Described::ValueDescription: {
            GRef<AtspiValue> value(atspi_accessible_get_value_iface(acc));
            if (!value)
                return desktop_->looksTimedOut(clock) ? kAXErrorCannotComplete
                                                      : kAXErrorAttributeUnsupported;
            GStr text{atspi_value_get_text(value.p, &err)};
            if (err.e) {
                // Bridges older than the property answer an error: they have no text.
                const AXError e = desktop_->errorFor(err.e, clock, kAXErrorNoValue);
                return e == kAXErrorFailure || e == kAXErrorAttributeUnsupported ? kAXErrorNoValue
                                                                                 : e;
            }
            if (!text.s || !*text.s) return kAXErrorNoValue;
            *out = AXValue(text.str());
            return kAXErrorSuccess;
        }
        default:
            break;
    }
    int role = 0;
    if (AXError e = roleOf(acc, &role, nullptr)) return e;
    if (!isMenuItemRole(role)) return kAXErrorAttributeUnsupported;
    GRef<AtspiAction> action(atspi_accessible_get_action_iface(acc));
    if (!action) return desktop_->looksTimedOut(clock) ? kAXErrorCannotComplete : kAXErrorNoValue;
    GStr binding{atspi_action_get_key_binding(action.p, 0, &err)};
    if (err.e) {
        const AXError e = desktop_->errorFor(err.e, clock, kAXErrorNoValue);
        return e == kAXErrorFailure || e == kAXErrorAttributeUnsupported ? kAXErrorNoValue : e;
    }
    const auto shortcut = parseKeyBinding(binding.s ? binding.s : "");
    if (!shortcut) return kAXErrorNoValue;
    if (it->second == Described::CmdModifiers) {
        *out = AXValue(shortcut->modifiers);
    } else if (it->second == Described::CmdGlyph) {
        if (!shortcut->glyph) return kAXErrorNoValue;
        *out = AXValue(shortcut->glyph);
    } else {
        if (shortcut->key.empty()) return kAXErrorNoValue;
        *out = AXValue(shortcut->key);
    }
    return kAXErrorSuccess;
}

bool AtspiAccessibility::contentText(AtspiAccessible* acc, AXValue* out) {
    // A row of a GTK list box has no name: its label child says what it is. A bounded look, one
    // level down, so a row that holds a whole form costs little.
    constexpr int kMaxChildren = 8;
    Err err;
    const int count = atspi_accessible_get_child_count(acc, &err);
    if (err.e || count <= 0) return false;
    std::string text;
    for (int i = 0; i < std::min(count, kMaxChildren); ++i) {
        Err childErr;
        GRef<AtspiAccessible> child(atspi_accessible_get_child_at_index(acc, i, &childErr));
        if (childErr.e || !child) continue;
        GStr name{atspi_accessible_get_name(child.p, nullptr)};
        if (!name.s || !*name.s) continue;
        if (!text.empty()) text += ' ';
        text += name.s;
    }
    if (text.empty()) return false;
    *out = AXValue(std::move(text));
    return true;
}

}  // namespace orv::linuxdesk
