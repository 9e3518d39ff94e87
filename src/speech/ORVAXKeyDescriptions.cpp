// Spoken names of keys and menu shortcuts: the modifiers by name joined with "-", then the key.

#include <cctype>
#include <climits>
#include <cmath>

#include "speech/ORVAXSpeechDirectiveController.h"
#include "speech/OrvLocalization.h"

namespace orv {

namespace {

using Controller = ORVAXSpeechDirectiveController;

// A value read as a signed integer the way numbers and their texts convert: a number as it is
// (a fraction cut towards zero), a text by its leading digits, anything else 0.
long long integerOf(const std::optional<AXValue>& value) {
    if (!value) return 0;
    if (const auto* i = value->get<int64_t>()) return *i;
    if (const auto* b = value->get<bool>()) return *b ? 1 : 0;
    if (const auto* d = value->get<double>()) {
        if (std::isnan(*d)) return 0;
        if (*d >= 9.2e18) return LLONG_MAX;
        if (*d <= -9.2e18) return LLONG_MIN;
        return static_cast<long long>(*d);
    }
    if (const auto* s = value->get<std::string>()) {
        size_t i = 0;
        while (i < s->size() && std::isspace(static_cast<unsigned char>((*s)[i]))) ++i;
        bool negative = false;
        if (i < s->size() && ((*s)[i] == '+' || (*s)[i] == '-')) negative = (*s)[i++] == '-';
        long long v = 0;
        for (; i < s->size() && std::isdigit(static_cast<unsigned char>((*s)[i])); ++i) {
            const int digit = (*s)[i] - '0';
            if (v > (LLONG_MAX - digit) / 10) return negative ? LLONG_MIN : LLONG_MAX;
            v = v * 10 + digit;
        }
        return negative ? -v : v;
    }
    return 0;
}

}  // namespace

std::string Controller::descriptiveChar(const std::string& key) {
    if (key.size() != 1) return key;
    const char c = key[0];
    if (c == '\\') return localization().phrase(phrases::kEchoCharBackslash);
    if (isNamedPunctuation(c))
        return localization().localizedStringForKey(punctuationKey(c), "", std::nullopt);
    return key;
}

std::optional<std::string> Controller::descriptiveGlyph(const std::optional<AXValue>& glyph) {
    if (!glyph) return std::nullopt;
    // Menu glyph codes of the accessibility interface; a negative code wraps past them all.
    const auto code = static_cast<unsigned long long>(integerOf(glyph));
    const Phrase<>* name = nullptr;
    switch (code) {
        case 2:
            name = &phrases::kEchoCharTab;
            break;
        case 9:
            name = &phrases::kEchoCharSpace;
            break;
        case 16:
            name = &phrases::kEchoCharDownArrow;
            break;
        case 23:
            name = &phrases::kEchoCharDelete;
            break;
        case 24:
            name = &phrases::kEchoCharLeftArrow;
            break;
        case 25:
        case 104:
            name = &phrases::kEchoCharUpArrow;
            break;
        case 26:
            name = &phrases::kEchoCharRightArrow;
            break;
        case 27:
            name = &phrases::kEchoCharEscape;
            break;
        case 148:
            name = &phrases::kEchoCharFnFn;
            break;
        default:
            return std::nullopt;
    }
    return localization().phrase(*name);
}

std::optional<std::string> Controller::descriptiveShortcutChar(
    const std::optional<std::string>& key, const std::optional<AXValue>& modifier) {
    if (!key) return std::nullopt;
    auto& l = localization();
    const std::string command = l.phrase(phrases::kFocusEchoModCommand);
    const std::string shift = l.phrase(phrases::kFocusEchoModShift);
    const std::string option = l.phrase(phrases::kFocusEchoModOption);
    const std::string control = l.phrase(phrases::kFocusEchoModControl);
    auto two = [](const std::string& a, const std::string& b) { return a + "-" + b; };
    auto three = [](const std::string& a, const std::string& b, const std::string& c) {
        return a + "-" + b + "-" + c;
    };
    // Bits: 1 Shift, 2 Option, 4 Control, 8 no Command key. Combinations a menu does not show
    // (7, 8, 14) are left unsaid rather than guessed at.
    std::string modifiers;
    switch (integerOf(modifier)) {
        case 0:
            modifiers = command;
            break;
        case 1:
            modifiers = two(shift, command);
            break;
        case 2:
            modifiers = two(option, command);
            break;
        case 3:
            modifiers = three(option, shift, command);
            break;
        case 4:
            modifiers = two(control, command);
            break;
        case 5:
            modifiers = three(control, shift, command);
            break;
        case 6:
            modifiers = three(control, option, command);
            break;
        case 9:
            modifiers = shift;
            break;
        case 10:
            modifiers = option;
            break;
        case 11:
            modifiers = two(option, shift);
            break;
        case 12:
            modifiers = control;
            break;
        case 13:
            modifiers = two(control, shift);
            break;
        case 15:
            modifiers = three(control, option, shift);
            break;
        default:
            return std::nullopt;
    }
    if (modifiers.empty() || key->empty()) return std::nullopt;
    return modifiers + "-" + descriptiveChar(*key);
}

}  // namespace orv
