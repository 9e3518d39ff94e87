#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace orv {

// Length of UTF-8 text in UTF-16 units, the unit in which the accessibility interface counts
// characters (and so the unit of every length rule on the speech side).
size_t textLength(std::string_view utf8);
// The longest start of the text that is at most `units` UTF-16 units long, never splitting a
// character.
std::string_view textPrefix(std::string_view utf8, size_t units);

class ORVAXSpeechDirective;
using ORVAXSpeechDirectiveRef = std::shared_ptr<ORVAXSpeechDirective>;

// What one element (or one text handed in) would be said as. Never speaks; the echo controller
// decides whether and how.
class ORVAXSpeechDirective {
  public:
    enum Source : int64_t {
        kSourceFocus = 0,
        kSourceDock = 1,
        kSourceMouse = 2,
        kSourceSelfVoice = 3,
    };

    // Optional strings: nil and empty differ (an empty simplified description is still said as
    // nothing, but it is not replaced by the title).
    std::optional<std::string> simplifiedDescription;
    std::optional<std::string> detailedDescription;
    std::optional<std::string> extraInfo;
    int64_t source = kSourceFocus;
    bool associatedElementIsDescendantOfMenuItem = false;
    std::function<void()> completionHandler;

    static ORVAXSpeechDirectiveRef make() { return std::make_shared<ORVAXSpeechDirective>(); }

    // "<ORVAXSpeechDirective: 0x... simplified:[...] source:N>", the simplified description cut
    // to 30 characters and "..." when it has 31 or more.
    std::string description() const;
};

}  // namespace orv
