#pragma once

// Turns one accessibility element into words: the short text said when it gains focus or lies
// under the pointer, the role's detailed phrase, and an extra remark. Class methods only; phrases
// come from the "Echo" phrase table through OrvLocalization.

#include <optional>
#include <string>
#include <vector>

#include "accessibility/element/ORVAXElement.h"
#include "platform/AXTypes.h"
#include "speech/ORVAXSpeechDirective.h"

namespace orv {

class OrvLocalization;

class ORVAXSpeechDirectiveController {
  public:
    static ORVAXSpeechDirectiveRef speechDirectiveForElement(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef detailedSpeechDirectiveForElement(
        const ORVAXElementRef& element);
    // Null unless the text has at least one character.
    static ORVAXSpeechDirectiveRef directiveForText(const std::optional<std::string>& text);
    static std::string groupDescription(const ORVAXElementRef& element);
    static std::optional<std::vector<std::string>> childrenDescriptions(
        const ORVAXElementRef& element);
    static std::optional<std::string> textFromSlider(const ORVAXElementRef& element);
    static std::optional<std::string> genericButtonDescription(const ORVAXElementRef& element);

    // One describer per role.
    static ORVAXSpeechDirectiveRef echoMenuItem(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoMenu(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoMenuBarItem(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoButton(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoStaticText(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoTextField(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoTextArea(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoPopUpButton(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoSlider(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoList(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoRow(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoImage(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoCheckbox(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoRadioButton(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoMenuButton(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoGroup(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoGrid(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoOutline(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoWindow(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoDisclosureTriangle(const ORVAXElementRef& element);
    static ORVAXSpeechDirectiveRef echoWebArea(const ORVAXElementRef& element);

    // Spoken key names.
    static std::string descriptiveChar(const std::string& key);
    static std::optional<std::string> descriptiveGlyph(const std::optional<AXValue>& glyph);
    static std::optional<std::string> descriptiveShortcutChar(const std::optional<std::string>& key,
                                                              const std::optional<AXValue>& modifier);

    // The phrase source, set up on first use.
    static OrvLocalization& localization();
    // Back to the state at process start: the phrase source is set up again on next use (tests).
    static void resetForTesting();
};

}  // namespace orv
