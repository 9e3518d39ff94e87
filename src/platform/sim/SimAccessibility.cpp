#include "platform/sim/SimAccessibility.h"

#include <algorithm>

#include "platform/sim/SimDesktop.h"

namespace orv::sim {

// --- SimCallCounter

void SimCallCounter::reset() {
    byOperation_.clear();
    byAttribute_.clear();
    total_ = 0;
}

size_t SimCallCounter::calls(const std::string& operation) const {
    auto it = byOperation_.find(operation);
    return it == byOperation_.end() ? 0 : it->second;
}

size_t SimCallCounter::reads(const std::string& attribute) const {
    auto it = byAttribute_.find(attribute);
    return it == byAttribute_.end() ? 0 : it->second;
}

size_t SimCallCounter::reads() const {
    size_t n = 0;
    for (auto& [name, count] : byAttribute_) n += count;
    return n;
}

std::string SimCallCounter::summary() const {
    std::string out = "total=" + std::to_string(total_);
    for (auto& [op, n] : byOperation_) out += " " + op + "=" + std::to_string(n);
    if (!byAttribute_.empty()) out += " |";
    for (auto& [attr, n] : byAttribute_) out += " " + attr + "=" + std::to_string(n);
    return out;
}

// --- SimObserver

SimObserver::SimObserver(std::weak_ptr<SimDesktop> desktop, pid_t pid, AXObserverCallback callback)
    : desktop_(std::move(desktop)), pid_(pid), callback_(std::move(callback)) {}

AXError SimObserver::addNotification(const AXUIElementRef& element, const std::string& notification,
                                     void* refcon) {
    auto desk = desktop_.lock();
    if (!desk) return kAXErrorInvalidUIElementObserver;
    desk->calls().count("addNotification");
    auto r = SimElementRef::from(element);
    if (!r || notification.empty()) return kAXErrorIllegalArgument;
    // An observer serves one process; the system-wide element belongs to none.
    if (r->kind() == SimElementRef::Kind::SystemWide || r->pid() != pid_)
        return kAXErrorIllegalArgument;
    if (!desk->node(element)) return kAXErrorInvalidUIElement;
    for (auto& reg : registrations_)
        if (reg.notification == notification && axEqual(reg.element, element))
            return kAXErrorNotificationAlreadyRegistered;
    registrations_.push_back(
        Registration{desk->nextRegistrationId(), element, notification, refcon});
    return kAXErrorSuccess;
}

AXError SimObserver::removeNotification(const AXUIElementRef& element,
                                        const std::string& notification) {
    auto desk = desktop_.lock();
    if (!desk) return kAXErrorInvalidUIElementObserver;
    desk->calls().count("removeNotification");
    auto it = std::find_if(registrations_.begin(), registrations_.end(), [&](auto& reg) {
        return reg.notification == notification && axEqual(reg.element, element);
    });
    if (it == registrations_.end()) return kAXErrorNotificationNotRegistered;
    registrations_.erase(it);
    return kAXErrorSuccess;
}

bool SimObserver::hasRegistration(uint64_t id) const {
    return registration(id) != nullptr;
}

const SimObserver::Registration* SimObserver::registration(uint64_t id) const {
    for (auto& reg : registrations_)
        if (reg.id == id) return &reg;
    return nullptr;
}

// --- SimAccessibility

AXUIElementRef SimAccessibility::createSystemWide() {
    desk_.calls().count("createSystemWide");
    return SimElementRef::systemWide();
}

AXUIElementRef SimAccessibility::createApplication(pid_t pid) {
    desk_.calls().count("createApplication");
    return SimElementRef::forApplication(pid);
}

AXError SimAccessibility::copyElementAtPosition(const AXUIElementRef& element, float x, float y,
                                                AXUIElementRef* out) {
    desk_.calls().count("copyElementAtPosition");
    return desk_.elementAtPosition(element, Point{x, y}, out);
}

AXError SimAccessibility::copyAttributeValue(const AXUIElementRef& element,
                                             const std::string& attribute, AXValue* out) {
    desk_.calls().count("copyAttributeValue");
    desk_.calls().countRead(attribute);
    return desk_.readAttribute(element, attribute, out);
}

AXError SimAccessibility::copyParameterizedAttributeValue(const AXUIElementRef& element,
                                                          const std::string& attribute,
                                                          const AXValue& parameter, AXValue* out) {
    desk_.calls().count("copyParameterizedAttributeValue");
    desk_.calls().countRead(attribute);
    return desk_.readParameterized(element, attribute, parameter, out);
}

AXError SimAccessibility::copyAttributeNames(const AXUIElementRef& element,
                                             std::vector<std::string>* out) {
    desk_.calls().count("copyAttributeNames");
    return desk_.attributeNames(element, out);
}

AXError SimAccessibility::isAttributeSettable(const AXUIElementRef& element,
                                              const std::string& attribute, bool* settable) {
    desk_.calls().count("isAttributeSettable");
    return desk_.attributeSettable(element, attribute, settable);
}

AXError SimAccessibility::setAttributeValue(const AXUIElementRef& element,
                                            const std::string& attribute, const AXValue& value) {
    desk_.calls().count("setAttributeValue");
    return desk_.writeAttribute(element, attribute, value);
}

AXError SimAccessibility::setMessagingTimeout(const AXUIElementRef& element, float seconds) {
    desk_.calls().count("setMessagingTimeout");
    return desk_.recordTimeout(element, seconds);
}

AXError SimAccessibility::getPid(const AXUIElementRef& element, pid_t* out) {
    desk_.calls().count("getPid");
    if (out) *out = 0;
    auto r = SimElementRef::from(element);
    // The pid travels with the reference, so it is known even for a dead element.
    if (!r || r->kind() == SimElementRef::Kind::SystemWide) return kAXErrorIllegalArgument;
    if (out) *out = r->pid();
    return kAXErrorSuccess;
}

AXError SimAccessibility::createObserver(pid_t pid, AXObserverCallback callback,
                                         AXObserverRef* out) {
    desk_.calls().count("createObserver");
    return desk_.makeObserver(pid, std::move(callback), out);
}

bool SimAccessibility::isProcessTrusted(bool prompt) {
    desk_.calls().count("isProcessTrusted");
    ++trustChecks_;
    if (prompt) ++trustPrompts_;
    return trusted_;
}

bool SimAccessibility::isAPIEnabled() {
    desk_.calls().count("isAPIEnabled");
    return apiEnabled_;
}

}  // namespace orv::sim
