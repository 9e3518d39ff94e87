// One describer per role: the phrase said for an element in the detailed focus echo style.

#include <cctype>
#include <climits>

#include "speech/ORVAXSpeechDirectiveController.h"
#include "speech/OrvLocalization.h"

namespace orv {

namespace {

using Controller = ORVAXSpeechDirectiveController;

// A missing text fills a phrase as nothing rather than as a spoken "null".
std::string orEmpty(const std::optional<std::string>& s) {
    return s.value_or(std::string());
}

bool is(const std::optional<std::string>& role, std::string_view expected) {
    return role && *role == expected;
}

OrvLocalization& echo() {
    return Controller::localization();
}

// The number at the start of a value's text, 0 when there is none: "1", " 2", "1.0" and "-3"
// read as 1, 2, 1 and -3. Saturates instead of overflowing.
long long integerValue(const std::optional<std::string>& text) {
    if (!text) return 0;
    const std::string& s = *text;
    size_t i = 0;
    while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    long long v = 0;
    for (; i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])); ++i) {
        const int d = s[i] - '0';
        if (v > (LLONG_MAX - d) / 10) return negative ? LLONG_MIN : LLONG_MAX;
        v = v * 10 + d;
    }
    return negative ? -v : v;
}

std::string disabledPrefix(const ORVAXElementRef& element) {
    return element->isEnabled() ? std::string() : echo().phrase(phrases::kFocusEchoDisabled);
}

unsigned long countOf(const std::optional<ORVAXElementArray>& elements) {
    return elements ? static_cast<unsigned long>(elements->size()) : 0;
}

// Pieces of the text split at every line-ending character (a CR LF pair makes two splits).
unsigned long lineCount(std::string_view text) {
    unsigned long pieces = 1;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto b = static_cast<unsigned char>(text[i]);
        if (b >= 0x0a && b <= 0x0d) {
            ++pieces;
        } else if (b == 0xc2 && i + 1 < text.size() &&
                   static_cast<unsigned char>(text[i + 1]) == 0x85) {
            ++pieces;  // NEL
        } else if (b == 0xe2 && i + 2 < text.size() &&
                   static_cast<unsigned char>(text[i + 1]) == 0x80 &&
                   (static_cast<unsigned char>(text[i + 2]) == 0xa8 ||
                    static_cast<unsigned char>(text[i + 2]) == 0xa9)) {
            ++pieces;  // line and paragraph separators
        }
    }
    return pieces;
}

}  // namespace

ORVAXSpeechDirectiveRef Controller::echoButton(const ORVAXElementRef& element) {
    auto directive =
        directiveForText(echo().phrase(phrases::kFocusEchoButton, disabledPrefix(element),
                                       orEmpty(genericButtonDescription(element))));
    if (directive) directive->extraInfo = element->getHelp();
    return directive;
}

ORVAXSpeechDirectiveRef Controller::echoMenuButton(const ORVAXElementRef& element) {
    return directiveForText(echo().phrase(phrases::kFocusEchoMenuButton, disabledPrefix(element),
                                          orEmpty(genericButtonDescription(element))));
}

ORVAXSpeechDirectiveRef Controller::echoPopUpButton(const ORVAXElementRef& element) {
    auto directive = directiveForText(echo().phrase(
        phrases::kFocusEchoPopupButton, disabledPrefix(element), orEmpty(element->getTextValue())));
    if (directive)
        if (auto description = element->getDescription())
            directive->extraInfo = echo().phrase(phrases::kFocusEchoRole, *description);
    return directive;
}

ORVAXSpeechDirectiveRef Controller::echoDisclosureTriangle(const ORVAXElementRef& element) {
    auto directive = directiveForText(
        echo().phrase(phrases::kFocusEchoDisclosure, orEmpty(genericButtonDescription(element))));
    if (directive) directive->extraInfo = element->getHelp();
    return directive;
}

ORVAXSpeechDirectiveRef Controller::echoCheckbox(const ORVAXElementRef& element) {
    // A mixed box (2) reads as checked.
    const bool checked = integerValue(element->getValue()) != 0;
    return directiveForText(echo().phrase(
        phrases::kFocusEchoCheckbox, orEmpty(element->getTitle()),
        echo().phrase(checked ? phrases::kFocusEchoChecked : phrases::kFocusEchoUnchecked)));
}

ORVAXSpeechDirectiveRef Controller::echoRadioButton(const ORVAXElementRef& element) {
    const bool selected = integerValue(element->getValue()) == 1;
    auto directive = directiveForText(echo().phrase(
        phrases::kFocusEchoRadioButton, orEmpty(genericButtonDescription(element)),
        echo().phrase(selected ? phrases::kFocusEchoSelected : phrases::kFocusEchoNotSelected)));
    if (directive)
        if (auto parent = element->getParent(); parent && is(parent->getRole(), "AXGroup"))
            directive->extraInfo = groupDescription(parent);
    return directive;
}

ORVAXSpeechDirectiveRef Controller::echoWindow(const ORVAXElementRef& element) {
    return directiveForText(echo().phrase(phrases::kFocusEchoWindow, orEmpty(element->getTitle())));
}

ORVAXSpeechDirectiveRef Controller::echoMenuItem(const ORVAXElementRef& element) {
    const auto& phrase =
        element->isEnabled() ? phrases::kFocusEchoMenuItem : phrases::kFocusEchoDisabledMenuItem;
    auto directive = directiveForText(echo().phrase(phrase, orEmpty(element->getTitle())));
    if (!directive) return nullptr;
    std::optional<std::string> key;
    if (auto cmdChar = element->getMenuItemCmdChar(); cmdChar && !cmdChar->empty())
        key = descriptiveChar(*cmdChar);
    else
        key = descriptiveGlyph(element->getMenuItemCmdGlyph());
    directive->extraInfo = descriptiveShortcutChar(key, element->getMenuItemCmdModifiers());
    return directive;
}

ORVAXSpeechDirectiveRef Controller::echoMenu(const ORVAXElementRef& element) {
    auto parent = element->getParent();
    auto directive = directiveForText(echo().phrase(
        phrases::kFocusEchoMenu, orEmpty(parent ? parent->getTitle() : std::nullopt)));
    if (!directive) return nullptr;
    if (auto selected = element->getSelectedChildren(); selected && !selected->empty()) {
        const auto& first = selected->front();
        directive->extraInfo = is(first->getRole(), "AXMenuItem")
                                   ? std::optional<std::string>(echo().phrase(
                                         phrases::kFocusEchoMenuItem, orEmpty(first->getTitle())))
                                   : first->getTitle();
    }
    return directive;
}

ORVAXSpeechDirectiveRef Controller::echoMenuBarItem(const ORVAXElementRef& element) {
    auto title = element->getTitle();
    if (!title || title->empty()) {
        auto app = element->getApplication();
        title = app ? std::optional<std::string>(app->localizedName) : std::nullopt;
    }
    return directiveForText(echo().phrase(phrases::kFocusEchoMenuBarItem, orEmpty(title)));
}

ORVAXSpeechDirectiveRef Controller::echoSlider(const ORVAXElementRef& element) {
    auto value = textFromSlider(element);
    if (!value || value->empty()) return nullptr;
    return directiveForText(echo().phrase(phrases::kFocusEchoSlider, *value));
}

ORVAXSpeechDirectiveRef Controller::echoList(const ORVAXElementRef& element) {
    return directiveForText(
        echo().phrase(phrases::kFocusEchoList, countOf(element->getChildren())));
}

ORVAXSpeechDirectiveRef Controller::echoGroup(const ORVAXElementRef& element) {
    return directiveForText(
        echo().phrase(phrases::kFocusEchoGroup, countOf(element->getChildren())));
}

ORVAXSpeechDirectiveRef Controller::echoGrid(const ORVAXElementRef& element) {
    auto directive =
        directiveForText(echo().phrase(phrases::kFocusEchoGrid, countOf(element->getChildren())));
    if (directive) directive->extraInfo = groupDescription(element);
    return directive;
}

ORVAXSpeechDirectiveRef Controller::echoOutline(const ORVAXElementRef& element) {
    auto directive =
        directiveForText(echo().phrase(phrases::kFocusEchoOutline, countOf(element->getRows())));
    if (directive) directive->extraInfo = groupDescription(element);
    return directive;
}

ORVAXSpeechDirectiveRef Controller::echoWebArea(const ORVAXElementRef& element) {
    return directiveForText(
        echo().phrase(phrases::kFocusEchoWebArea, orEmpty(element->getTextValue())));
}

ORVAXSpeechDirectiveRef Controller::echoTextArea(const ORVAXElementRef& element) {
    const std::string text = orEmpty(element->getTextValue());
    if (text.empty()) return directiveForText(echo().phrase(phrases::kFocusEchoTextAreaEmpty));
    const unsigned long lines = lineCount(text);
    if (lines >= 2) return directiveForText(echo().phrase(phrases::kFocusEchoTextArea, lines));
    return directiveForText(echo().phrase(phrases::kFocusEchoTextField, text));
}

ORVAXSpeechDirectiveRef Controller::echoTextField(const ORVAXElementRef& element) {
    auto text = element->getTextValue();
    if (element->getBundleIdentifier() == "com.apple.finder") return directiveForText(text);
    if (!text || text->empty())
        return directiveForText(echo().phrase(phrases::kFocusEchoTextFieldEmpty));
    // A token field holds one placeholder character per token; its tokens are its children.
    const auto children = element->getChildren();
    if (children && !children->empty() && textLength(*text) == children->size()) {
        std::string titles;
        bool first = true;
        for (const auto& child : *children) {
            auto title = child->getTitle();
            if (!title) continue;
            if (!first) titles += ", ";
            titles += *title;
            first = false;
        }
        return directiveForText(echo().phrase(phrases::kFocusEchoTextFieldContainer, titles));
    }
    return directiveForText(echo().phrase(phrases::kFocusEchoTextField, *text));
}

ORVAXSpeechDirectiveRef Controller::echoStaticText(const ORVAXElementRef& element) {
    return directiveForText(element->getValue());
}

ORVAXSpeechDirectiveRef Controller::echoImage(const ORVAXElementRef& element) {
    return directiveForText(element->getTitle());
}

ORVAXSpeechDirectiveRef Controller::echoRow(const ORVAXElementRef& element) {
    auto descriptions = childrenDescriptions(element);
    std::string text;
    if (descriptions)
        for (const auto& d : *descriptions) text += d;
    return directiveForText(text);
}

}  // namespace orv
