#include "speech/ORVAXSpeechDirectiveController.h"

#include <exception>
#include <memory>
#include <string_view>
#include <utility>

#include "Common/OrvLogger.h"
#include "speech/OrvLocalization.h"

namespace orv {

namespace {

constexpr std::string_view kFinder = "com.apple.finder";
constexpr std::string_view kDock = "com.apple.dock";
constexpr std::string_view kMail = "com.apple.mail";
// Web content nests deeply, but a looping parent chain must not hang the agent.
constexpr int kMaxClimb = 64;
constexpr size_t kSnippetLength = 100;

std::unique_ptr<OrvLocalization>& sharedLocalization() {
    static std::unique_ptr<OrvLocalization> localization;
    return localization;
}

bool is(const std::optional<std::string>& role, std::string_view expected) {
    return role && *role == expected;
}

bool hasText(const std::optional<std::string>& s) {
    return s && !s->empty();
}

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
    std::string out;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i) out += separator;
        out += parts[i];
    }
    return out;
}

std::string joined(const std::optional<std::vector<std::string>>& parts) {
    return parts ? join(*parts, "") : std::string();
}

// The element lies inside a web page when its path passes through an untitled web area.
bool inWebPage(const std::string& path) {
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('\\', start);
        if (end == std::string::npos) end = path.size();
        if (std::string_view(path).substr(start, end - start) == "AXWebArea ()") return true;
        start = end + 1;
    }
    return false;
}

// --- Words of a message snippet ---

// Code point at s[i] and its length in bytes; a stray byte stands for itself.
char32_t codePointAt(std::string_view s, size_t i, size_t* length) {
    const auto b = static_cast<unsigned char>(s[i]);
    size_t n = b >= 0xf0 && b <= 0xf4 ? 4 : b >= 0xe0 ? 3 : b >= 0xc2 && b < 0xe0 ? 2 : 1;
    if (n == 1 || i + n > s.size()) {
        *length = 1;
        return b;
    }
    char32_t c = b & (0xff >> (n + 1));
    for (size_t k = 1; k < n; ++k) c = (c << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3f);
    *length = n;
    return c;
}

bool isDigit(char32_t c) {
    return c >= '0' && c <= '9';
}

// Letters, digits and the characters of scripts the table below does not list as spacing or
// punctuation.
bool isWordCharacter(char32_t c) {
    if (c < 0x80) return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || isDigit(c) || c == '_';
    if (c == 0x85 || c == 0xa0 || c == 0xa1 || c == 0xab || c == 0xbb || c == 0xbf) return false;
    if (c >= 0x2000 && c <= 0x206f) return false;  // spaces, dashes, quotes, ellipsis
    if (c >= 0x3000 && c <= 0x3011) return false;  // ideographic space and brackets
    return c != 0xfeff;
}

// Marks that stay inside a word between two word characters ("don't", "e.g", "3,5").
bool joinsWord(char32_t mark, char32_t before, char32_t after) {
    if (mark == '\'' || mark == '.' || mark == 0x2019) return true;
    return (mark == ',' || mark == ';') && isDigit(before) && isDigit(after);
}

// The snippet's words, each followed by one space, until the text passes kSnippetLength
// characters (the word that passes it is kept), then "...".
std::string snippetText(std::string_view snippet) {
    std::string out;
    size_t i = 0;
    while (i < snippet.size() && textLength(out) <= kSnippetLength) {
        size_t n;
        char32_t c = codePointAt(snippet, i, &n);
        if (!isWordCharacter(c)) {
            i += n;
            continue;
        }
        const size_t start = i;
        char32_t previous = c;
        i += n;
        while (i < snippet.size()) {
            c = codePointAt(snippet, i, &n);
            if (isWordCharacter(c)) {
                previous = c;
                i += n;
                continue;
            }
            if (i + n >= snippet.size()) break;
            size_t m;
            const char32_t next = codePointAt(snippet, i + n, &m);
            if (!isWordCharacter(next) || !joinsWord(c, previous, next)) break;
            previous = next;
            i += n + m;
        }
        out.append(snippet.substr(start, i - start));
        out.push_back(' ');
    }
    return out + "...";
}

// A message of the mail program's message list, said as its state, sender, date, subject and
// the start of its text.
std::string mailMessageDescription(const ORVAXElementRef& cell) {
    std::vector<std::string> parts;
    parts.emplace_back(cell->childWithDescription("unread") ? "unread message" : "read message");
    auto valueOf = [&cell](const char* identifier) -> std::optional<std::string> {
        auto child = cell->childWithIdentifier(identifier);
        return child ? child->getValue() : std::nullopt;
    };
    if (auto sender = valueOf("_MV_RICH_LIST_SENDER")) {
        parts.emplace_back("from");
        parts.push_back(*sender);
    }
    if (auto date = valueOf("_MV_RICH_LIST_DATE")) parts.push_back(*date);
    if (auto subject = valueOf("_MV_RICH_LIST_SUBJECT")) parts.push_back(*subject);
    if (auto snippet = valueOf("_MV_RICH_LIST_SNIPPET")) parts.push_back(snippetText(*snippet));
    return join(parts, ", ");
}

}  // namespace

OrvLocalization& ORVAXSpeechDirectiveController::localization() {
    auto& shared = sharedLocalization();
    if (!shared) {
        shared = std::make_unique<OrvLocalization>();
        std::string tried;
        if (auto bundle = OrvLocalization::findBundle("Echo", &tried)) {
            shared->setBundle(std::move(bundle));
            shared->setTable("Echo");
        } else {
            OrvLogger::addErrorMessageWithFormat(
                "initialize of speech directive controller failed to load Ocuvane main bundle: %@",
                tried);
        }
    }
    return *shared;
}

void ORVAXSpeechDirectiveController::resetForTesting() {
    sharedLocalization().reset();
}

ORVAXSpeechDirectiveRef ORVAXSpeechDirectiveController::speechDirectiveForElement(
    const ORVAXElementRef& element) {
    if (!element) return nullptr;
    ORVAXSpeechDirectiveRef directive;
    // An application may raise while answering any of these queries; what was built stands.
    try {
        const auto role = element->getRole();
        std::optional<std::string> text;
        bool plainRole = true;
        if (is(role, "AXStaticText") || is(role, "AXTextField")) {
            if (inWebPage(element->getPath())) {
                // Text in a page is said with the group or link it belongs to.
                ORVAXElementRef current = element;
                for (int depth = 0; depth < kMaxClimb; ++depth) {
                    auto parent = current->getParent();
                    if (!parent) break;
                    const auto parentRole = parent->getRole();
                    if (is(parentRole, "AXGroup")) {
                        current = parent;
                        continue;
                    }
                    if (is(parentRole, "AXLink")) current = parent;
                    break;
                }
                text = groupDescription(current);
            } else {
                text = element->getValue();
            }
        } else if (is(role, "AXSlider")) {
            text = textFromSlider(element);
        } else if (is(role, "AXCell") || is(role, "AXRow") || is(role, "AXGroup") ||
                   is(role, "AXList") || is(role, "AXGrid") || is(role, "AXOutline")) {
            text = groupDescription(element);
            plainRole = false;
        }
        if (!text) text = element->getTitle();

        if (!hasText(text)) {
            if (!plainRole) {
                // Finder's icon views have no text of their own; their window's title tells
                // where the user is.
                if (element->getBundleIdentifier() == kFinder)
                    if (auto window = element->getParentWithRole("AXWindow"))
                        text = window->getTitle();
            } else {
                auto raw = element->getValueAttribute("AXValue");
                const std::string* textValue = raw ? raw->get<std::string>() : nullptr;
                if (textValue && !textValue->empty()) {
                    text = *textValue;
                } else if (auto description = element->getDescription(); hasText(description)) {
                    text = description;
                } else if (is(role, "AXButton")) {
                    text = element->getRoleDescription();
                } else if (is(role, "AXMenuBarItem")) {
                    auto app = element->getApplication();
                    text = app ? std::optional<std::string>(app->localizedName) : std::nullopt;
                } else {
                    text = std::nullopt;
                }
            }
        }
        if (!text) return nullptr;

        // A role without describer makes no directive at all.
        directive = detailedSpeechDirectiveForElement(element);
        if (!directive) return nullptr;
        directive->simplifiedDescription = text;
        directive->source = element->getBundleIdentifier() == kDock
                                ? ORVAXSpeechDirective::kSourceDock
                                : ORVAXSpeechDirective::kSourceFocus;
        directive->associatedElementIsDescendantOfMenuItem = element->isDescendantOf("AXMenuItem");
    } catch (const std::exception&) {
    }
    return directive;
}

ORVAXSpeechDirectiveRef ORVAXSpeechDirectiveController::detailedSpeechDirectiveForElement(
    const ORVAXElementRef& element) {
    using Describer = ORVAXSpeechDirectiveRef (*)(const ORVAXElementRef&);
    static const std::pair<std::string_view, Describer> describers[] = {
        {"AXMenuItem", echoMenuItem},
        {"AXMenu", echoMenu},
        {"AXMenuBarItem", echoMenuBarItem},
        {"AXButton", echoButton},
        {"AXStaticText", echoStaticText},
        {"AXTextField", echoTextField},
        {"AXTextArea", echoTextArea},
        {"AXPopUpButton", echoPopUpButton},
        {"AXSlider", echoSlider},
        {"AXList", echoList},
        {"AXRow", echoRow},
        {"AXImage", echoImage},
        {"AXCheckBox", echoCheckbox},
        {"AXRadioButton", echoRadioButton},
        {"AXMenuButton", echoMenuButton},
        {"AXGroup", echoGroup},
        {"AXGrid", echoGrid},
        {"AXOutline", echoOutline},
        {"AXWindow", echoWindow},
        {"AXDisclosureTriangle", echoDisclosureTriangle},
    };
    if (!element) return nullptr;
    const auto role = element->getRole();
    for (const auto& [name, describe] : describers)
        if (is(role, name)) return describe(element);
    return nullptr;
}

ORVAXSpeechDirectiveRef ORVAXSpeechDirectiveController::directiveForText(
    const std::optional<std::string>& text) {
    if (!hasText(text)) return nullptr;
    auto directive = ORVAXSpeechDirective::make();
    directive->detailedDescription = text;
    return directive;
}

std::string ORVAXSpeechDirectiveController::groupDescription(const ORVAXElementRef& element) {
    if (!element) return {};
    const auto role = element->getRole();
    if (is(role, "AXStaticText") || is(role, "AXTextField"))
        return element->getTextValue().value_or(std::string()) + "\n\n";
    if (is(role, "AXRadioButton"))
        return element->getDescription().value_or(std::string()) + "\n\n";
    if (is(role, "AXLink"))
        return format("%@: %@,", localization().phrase(phrases::kFocusEchoLink),
                      joined(childrenDescriptions(element)));
    if (is(role, "AXGroup") || is(role, "AXRow")) return joined(childrenDescriptions(element));
    if (is(role, "AXCell")) {
        if (element->getBundleIdentifier() == kMail) return mailMessageDescription(element);
        return joined(childrenDescriptions(element));
    }
    return {};
}

std::optional<std::vector<std::string>> ORVAXSpeechDirectiveController::childrenDescriptions(
    const ORVAXElementRef& element) {
    std::vector<std::string> descriptions;
    if (!element) return descriptions;
    const auto children = element->getChildren();
    if (!children) return descriptions;
    for (const auto& child : *children) {
        const auto role = child->getRole();
        // Controls inside a container mean it is a form, not text to be read out.
        if (is(role, "AXGroup") || is(role, "AXRadioGroup") || is(role, "AXButton") ||
            is(role, "AXPopUpButton") || is(role, "AXSlider")) {
            OrvLogger::addWarningMessageWithFormat(
                "%s element description ignored after detecting objectionable element: %@",
                "+[ORVAXSpeechDirectiveController childrenDescriptions:]", *role);
            return std::nullopt;
        }
        descriptions.push_back(groupDescription(child));
    }
    return descriptions;
}

std::optional<std::string> ORVAXSpeechDirectiveController::textFromSlider(
    const ORVAXElementRef& element) {
    if (!element) return std::nullopt;
    if (auto description = element->getValueDescription()) return description;
    // String reads give a number's description already.
    return element->getValue();
}

std::optional<std::string> ORVAXSpeechDirectiveController::genericButtonDescription(
    const ORVAXElementRef& element) {
    if (!element) return std::nullopt;
    if (auto description = element->getDescription(); hasText(description)) return description;
    if (auto title = element->getTitle(); hasText(title)) return title;
    return element->getRoleDescription();
}

}  // namespace orv
