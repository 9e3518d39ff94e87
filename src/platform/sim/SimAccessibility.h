#pragma once

// The simulated desktop's accessibility interface: every call is counted, then answered from the
// desktop's trees (SimDesktop holds the rules for derived attributes).

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/Accessibility.h"

namespace orv::sim {

class SimDesktop;

// Round trips to the simulated applications, per operation and per attribute read.
class SimCallCounter {
  public:
    void count(const std::string& operation) {
        ++byOperation_[operation];
        ++total_;
    }
    void countRead(const std::string& attribute) { ++byAttribute_[attribute]; }
    void reset();

    size_t total() const { return total_; }
    size_t calls(const std::string& operation) const;
    // Plain and parameterised reads of one attribute.
    size_t reads(const std::string& attribute) const;
    // All attribute reads, plain and parameterised.
    size_t reads() const;
    const std::map<std::string, size_t>& byOperation() const { return byOperation_; }
    const std::map<std::string, size_t>& byAttribute() const { return byAttribute_; }
    // "total=5 copyAttributeValue=4 getPid=1 | AXRole=2 AXTitle=2" for failure messages and
    // benches.
    std::string summary() const;

  private:
    std::map<std::string, size_t> byOperation_;
    std::map<std::string, size_t> byAttribute_;
    size_t total_ = 0;
};

class SimObserver : public AXObserver {
  public:
    struct Registration {
        uint64_t id;
        AXUIElementRef element;
        std::string notification;
        void* refcon;
    };

    SimObserver(std::weak_ptr<SimDesktop> desktop, pid_t pid, AXObserverCallback callback);

    AXError addNotification(const AXUIElementRef& element, const std::string& notification,
                            void* refcon) override;
    AXError removeNotification(const AXUIElementRef& element,
                               const std::string& notification) override;
    void attachToMainLoop() override { attached_ = true; }
    void detachFromMainLoop() override { attached_ = false; }

    pid_t pid() const { return pid_; }
    bool isAttached() const { return attached_; }
    const std::vector<Registration>& registrations() const { return registrations_; }
    bool hasRegistration(uint64_t id) const;
    const Registration* registration(uint64_t id) const;
    const AXObserverCallback& callback() const { return callback_; }

  private:
    std::weak_ptr<SimDesktop> desktop_;
    pid_t pid_;
    AXObserverCallback callback_;
    bool attached_ = false;
    std::vector<Registration> registrations_;
};

class SimAccessibility : public AccessibilityAPI {
  public:
    explicit SimAccessibility(SimDesktop& desktop) : desk_(desktop) {}

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
    bool isAPIEnabled() override;

    // Trust as the platform would report it.
    void setTrusted(bool trusted) { trusted_ = trusted; }
    void setAPIEnabled(bool enabled) { apiEnabled_ = enabled; }
    int trustChecks() const { return trustChecks_; }
    int trustPrompts() const { return trustPrompts_; }

  private:
    SimDesktop& desk_;
    bool trusted_ = true;
    bool apiEnabled_ = true;
    int trustChecks_ = 0;
    int trustPrompts_ = 0;
};

}  // namespace orv::sim
