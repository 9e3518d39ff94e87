#pragma once

// Wraps the installed AccessibilityAPI and counts the calls that reach it: on a real desktop each
// is a round trip to another process.

#include <map>
#include <memory>
#include <string>

#include "platform/Platform.h"

namespace orv::test {

class CountingAccessibilityAPI : public AccessibilityAPI {
  public:
    // Installs a counter around the installed interface until the returned guard goes.
    static std::shared_ptr<CountingAccessibilityAPI> install() {
        auto api = std::make_shared<CountingAccessibilityAPI>(platform().ax);
        platform().ax = api;
        return std::shared_ptr<CountingAccessibilityAPI>(api.get(), [api](auto*) {
            if (platform().ax == api) platform().ax = api->inner_;
        });
    }
    explicit CountingAccessibilityAPI(std::shared_ptr<AccessibilityAPI> inner)
        : inner_(std::move(inner)) {}

    size_t total() const { return total_; }
    // Plain and parameterised reads of one attribute.
    size_t reads(const std::string& attribute) const {
        auto it = reads_.find(attribute);
        return it == reads_.end() ? 0 : it->second;
    }

    AXUIElementRef createSystemWide() override { return ++total_, inner_->createSystemWide(); }
    AXUIElementRef createApplication(pid_t pid) override {
        return ++total_, inner_->createApplication(pid);
    }
    AXError copyElementAtPosition(const AXUIElementRef& e, float x, float y,
                                  AXUIElementRef* out) override {
        return ++total_, inner_->copyElementAtPosition(e, x, y, out);
    }
    AXError copyAttributeValue(const AXUIElementRef& e, const std::string& a,
                               AXValue* out) override {
        return ++total_, ++reads_[a], inner_->copyAttributeValue(e, a, out);
    }
    AXError copyParameterizedAttributeValue(const AXUIElementRef& e, const std::string& a,
                                            const AXValue& p, AXValue* out) override {
        return ++total_, ++reads_[a], inner_->copyParameterizedAttributeValue(e, a, p, out);
    }
    AXError copyAttributeNames(const AXUIElementRef& e, std::vector<std::string>* out) override {
        return ++total_, inner_->copyAttributeNames(e, out);
    }
    AXError isAttributeSettable(const AXUIElementRef& e, const std::string& a, bool* out) override {
        return ++total_, inner_->isAttributeSettable(e, a, out);
    }
    AXError setAttributeValue(const AXUIElementRef& e, const std::string& a,
                              const AXValue& v) override {
        return ++total_, inner_->setAttributeValue(e, a, v);
    }
    AXError setMessagingTimeout(const AXUIElementRef& e, float s) override {
        return ++total_, inner_->setMessagingTimeout(e, s);
    }
    AXError getPid(const AXUIElementRef& e, pid_t* out) override {
        return ++total_, inner_->getPid(e, out);
    }
    AXError createObserver(pid_t pid, AXObserverCallback cb, AXObserverRef* out) override {
        return ++total_, inner_->createObserver(pid, std::move(cb), out);
    }
    bool isProcessTrusted(bool prompt) override { return inner_->isProcessTrusted(prompt); }
    bool isAPIEnabled() override { return inner_->isAPIEnabled(); }

  private:
    std::shared_ptr<AccessibilityAPI> inner_;
    size_t total_ = 0;
    std::map<std::string, size_t> reads_;
};

}  // namespace orv::test
