#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/Accessibility.h"
#include "platform/linux/AtspiDesktop.h"
#include "platform/linux/TurnExtents.h"
#include "platform/linux/WindowRelative.h"

typedef struct _AtspiText AtspiText;

namespace orv::linuxdesk {

// The accessibility calls of the seam answered from AT-SPI. Main thread only: libatspi is not
// thread-safe.
class AtspiAccessibility final : public AccessibilityAPI {
  public:
    explicit AtspiAccessibility(std::shared_ptr<AtspiDesktop> desktop);
    ~AtspiAccessibility() override;

    AXUIElementRef createSystemWide() override;
    AXUIElementRef createApplication(pid_t pid) override;
    AXError copyElementAtPosition(const AXUIElementRef& element, float x, float y,
                                  AXUIElementRef* out) override;
    AXError copyAttributeValue(const AXUIElementRef& element, const std::string& attribute,
                               AXValue* out) override;
    AXError copyParameterizedAttributeValue(const AXUIElementRef& element,
                                            const std::string& attribute, const AXValue& parameter,
                                            AXValue* out) override;
    AXError copyAttributeNames(const AXUIElementRef& element,
                               std::vector<std::string>* out) override;
    AXError isAttributeSettable(const AXUIElementRef& element, const std::string& attribute,
                                bool* settable) override;
    AXError setAttributeValue(const AXUIElementRef& element, const std::string& attribute,
                              const AXValue& value) override;
    AXError setMessagingTimeout(const AXUIElementRef& element, float seconds) override;
    AXError getPid(const AXUIElementRef& element, pid_t* out) override;
    AXError createObserver(pid_t pid, AXObserverCallback callback, AXObserverRef* out) override;
    bool isProcessTrusted(bool prompt) override;
    bool isAPIEnabled() override { return true; }

    AtspiDesktop& desktop() { return *desktop_; }
    const TurnExtents& turnExtents() const { return turn_; }
    // Where the top-level windows' changes come from (see TurnExtents::topLevelGeneration).
    void setTopLevelGeneration(std::function<uint64_t()> generation) {
        turn_.topLevelGeneration = std::move(generation);
    }
    const std::shared_ptr<AtspiDesktop>& sharedDesktop() const { return desktop_; }
    // The X windows of a process, for toolkits that answer window-relative extents.
    std::function<std::vector<XSurface>(pid_t)> surfacesOf;

  private:
    AXError readSystemWide(const std::string& attribute, AXValue* out);
    AXError readObject(const AtspiElement& el, const std::string& attribute, AXValue* out);
    AXError roleOf(AtspiAccessible* acc, int* role, uint32_t* hints);
    AXError roleDescription(AtspiAccessible* acc, const std::string& bus, AXValue* out);
    AXError extents(AtspiAccessible* acc, Rect* out);
    // As the toolkit answered, in X screen coordinates as far as it knows them.
    AXError rawExtents(AtspiAccessible* acc, Rect* x11);
    // What to add to the object's extents to make them X screen coordinates: zero for toolkits
    // that know where their windows are; nothing when the window cannot be found.
    std::optional<Point> surfaceOffset(AtspiAccessible* acc);
    AXError children(AtspiAccessible* acc, AXArray* out, bool windowsOnly);
    AXError topLevel(const AtspiElement& el, AXValue* out);
    AXError value(AtspiAccessible* acc, int role, AXValue* out);
    AXError deepestAt(AtspiAccessible* start, int x, int y, AXUIElementRef* out);

    int callBudgetMs() const;

    // Text (AtspiText.cpp).
    static bool isTextAttribute(const std::string& attribute);
    AXError readText(AtspiAccessible* acc, const std::string& attribute, AXValue* out);
    // Extents of the characters start..end, on the agent's screen; the zero rectangle where the
    // toolkit says there is none.
    AXError textExtents(AtspiAccessible* acc, AtspiText* text, int start, int end, Rect* out);

    // Web pages (AtspiWebText.cpp): text markers name an object of the page and an offset in
    // its text. Nothing when the attribute is not one of theirs.
    std::optional<AXError> readWeb(const AtspiElement& el, const std::string& attribute,
                                   AXValue* out);
    std::optional<AXError> readWebParameterized(const AtspiElement& el,
                                                const std::string& attribute,
                                                const AXValue& parameter, AXValue* out);
    AXError readTextRun(const AtspiElement& el, const std::string& attribute, AXValue* out);

    // Help, value text and menu shortcuts (AtspiDescribe.cpp); nothing for other attributes.
    std::optional<AXError> readDescribed(const AtspiElement& el, const std::string& attribute,
                                         AXValue* out);
    // The names of an item's children, for list rows that hold their text in a label of their
    // own (AtspiDescribe.cpp). False when they have none.
    bool contentText(AtspiAccessible* acc, AXValue* out);

    TurnExtents turn_;
    std::shared_ptr<AtspiDesktop> desktop_;
    AXUIElementRef systemWide_;
    // Localized role names by application and role: they never change while it runs.
    std::map<std::pair<std::string, int>, std::string> roleNames_;
    // Surface offsets by topmost ancestor (bus name and path), for the current turn.
    std::unordered_map<std::string, std::optional<Point>> offsets_;
    uint64_t offsetsTurn_ = ~uint64_t{0};
    // The last extents each object answered (bus name and path), in X screen coordinates.
    std::unordered_map<std::string, Rect> lastExtents_;
    // When the focus (bus name and path) first had no extents since it last had some.
    std::unordered_map<std::string, double> lostAt_;
    // The objects that text markers name, by bus name and path: a marker holds only those.
    std::unordered_map<std::string, AtspiElementRef> markerObjects_;
};

}  // namespace orv::linuxdesk
