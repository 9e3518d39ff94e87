#pragma once

// Wraps whatever AccessibilityAPI is installed and counts the calls that reach it: every call is
// one round trip to another process on a real desktop.

#include <map>
#include <memory>
#include <string>

#include "platform/Platform.h"

namespace orv::test {

class CountingAccessibilityAPI : public AccessibilityAPI {
  public:
    explicit CountingAccessibilityAPI(std::shared_ptr<AccessibilityAPI> inner)
        : inner_(std::move(inner)) {}

    // Installs a counting wrapper around the installed platform's interface; the previous
    // interface comes back when the returned guard goes.
    struct Installed {
        std::shared_ptr<CountingAccessibilityAPI> api;
        std::shared_ptr<AccessibilityAPI> previous;
        ~Installed() { platform().ax = previous; }
        CountingAccessibilityAPI* operator->() const { return api.get(); }
    };
    static std::unique_ptr<Installed> install() {
        auto guard = std::make_unique<Installed>();
        guard->previous = platform().ax;
        guard->api = std::make_shared<CountingAccessibilityAPI>(guard->previous);
        platform().ax = guard->api;
        return guard;
    }

    size_t total() const { return total_; }
    // Calls of one operation ("copyAttributeValue", "getPid", ...).
    size_t calls(const std::string& operation) const { return count(byOperation_, operation); }
    // Attribute reads (plain and parameterised) of one attribute.
    size_t reads(const std::string& attribute) const { return count(byAttribute_, attribute); }
    void reset() {
        total_ = 0;
        byOperation_.clear();
        byAttribute_.clear();
    }

    AXUIElementRef createSystemWide() override {
        note("createSystemWide");
        return inner_->createSystemWide();
    }
    AXUIElementRef createApplication(pid_t pid) override {
        note("createApplication");
        return inner_->createApplication(pid);
    }
    AXError copyElementAtPosition(const AXUIElementRef& e, float x, float y,
                                  AXUIElementRef* out) override {
        note("copyElementAtPosition");
        return inner_->copyElementAtPosition(e, x, y, out);
    }
    AXError copyAttributeValue(const AXUIElementRef& e, const std::string& attribute,
                               AXValue* out) override {
        note("copyAttributeValue", attribute);
        return inner_->copyAttributeValue(e, attribute, out);
    }
    AXError copyParameterizedAttributeValue(const AXUIElementRef& e, const std::string& attribute,
                                            const AXValue& parameter, AXValue* out) override {
        note("copyParameterizedAttributeValue", attribute);
        return inner_->copyParameterizedAttributeValue(e, attribute, parameter, out);
    }
    AXError copyAttributeNames(const AXUIElementRef& e, std::vector<std::string>* out) override {
        note("copyAttributeNames");
        return inner_->copyAttributeNames(e, out);
    }
    AXError isAttributeSettable(const AXUIElementRef& e, const std::string& attribute,
                                bool* settable) override {
        note("isAttributeSettable");
        return inner_->isAttributeSettable(e, attribute, settable);
    }
    AXError setAttributeValue(const AXUIElementRef& e, const std::string& attribute,
                              const AXValue& value) override {
        note("setAttributeValue");
        return inner_->setAttributeValue(e, attribute, value);
    }
    AXError setMessagingTimeout(const AXUIElementRef& e, float seconds) override {
        note("setMessagingTimeout");
        return inner_->setMessagingTimeout(e, seconds);
    }
    AXError getPid(const AXUIElementRef& e, pid_t* out) override {
        note("getPid");
        return inner_->getPid(e, out);
    }
    AXError createObserver(pid_t pid, AXObserverCallback callback, AXObserverRef* out) override {
        note("createObserver");
        return inner_->createObserver(pid, std::move(callback), out);
    }
    bool isProcessTrusted(bool prompt) override { return inner_->isProcessTrusted(prompt); }
    bool isAPIEnabled() override { return inner_->isAPIEnabled(); }

  private:
    static size_t count(const std::map<std::string, size_t>& m, const std::string& key) {
        auto it = m.find(key);
        return it == m.end() ? 0 : it->second;
    }
    void note(const std::string& operation, const std::string& attribute = {}) {
        ++total_;
        ++byOperation_[operation];
        if (!attribute.empty()) ++byAttribute_[attribute];
    }

    std::shared_ptr<AccessibilityAPI> inner_;
    size_t total_ = 0;
    std::map<std::string, size_t> byOperation_;
    std::map<std::string, size_t> byAttribute_;
};

}  // namespace orv::test
