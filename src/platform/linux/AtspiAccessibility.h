#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "platform/Accessibility.h"
#include "platform/linux/AtspiDesktop.h"
#include "platform/linux/TurnExtents.h"

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

  private:
    AXError readSystemWide(const std::string& attribute, AXValue* out);
    AXError readObject(const AtspiElement& el, const std::string& attribute, AXValue* out);
    AXError roleOf(AtspiAccessible* acc, int* role, uint32_t* hints);
    AXError roleDescription(AtspiAccessible* acc, const std::string& bus, AXValue* out);
    AXError extents(AtspiAccessible* acc, Rect* out);
    AXError children(AtspiAccessible* acc, AXArray* out, bool windowsOnly);
    AXError topLevel(const AtspiElement& el, AXValue* out);
    AXError value(AtspiAccessible* acc, int role, AXValue* out);
    AXError deepestAt(AtspiAccessible* start, int x, int y, AXUIElementRef* out);

    int callBudgetMs() const;

    TurnExtents turn_;
    std::shared_ptr<AtspiDesktop> desktop_;
    AXUIElementRef systemWide_;
    // Localized role names by application and role: they never change while it runs.
    std::map<std::pair<std::string, int>, std::string> roleNames_;
};

}  // namespace orv::linuxdesk
