#include "platform/linux/AtspiElement.h"

#include <atspi/atspi.h>

#include <functional>
#include <thread>

namespace orv::linuxdesk {

namespace {
std::thread::id g_mainThread = std::this_thread::get_id();

gboolean unrefOnMain(gpointer acc) {
    g_object_unref(acc);
    return G_SOURCE_REMOVE;
}
}  // namespace

void setElementOwnerThread() {
    g_mainThread = std::this_thread::get_id();
}

std::string busNameOf(AtspiAccessible* acc) {
    if (!acc) return {};
    AtspiObject* obj = ATSPI_OBJECT(acc);
    if (!obj->app || !obj->app->bus_name) return {};
    return obj->app->bus_name;
}

std::string pathOf(AtspiAccessible* acc) {
    if (!acc) return {};
    AtspiObject* obj = ATSPI_OBJECT(acc);
    return obj->path ? obj->path : "";
}

AtspiElement::AtspiElement(Kind kind, AtspiAccessible* acc, std::string bus, std::string path,
                           pid_t pid)
    : kind_(kind), acc_(acc), bus_(std::move(bus)), path_(std::move(path)), missingPid_(pid) {
    size_t h = std::hash<std::string>{}(bus_);
    h ^= std::hash<std::string>{}(path_) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
    h ^= static_cast<size_t>(kind_) * 31 + static_cast<size_t>(missingPid_);
    hash_ = h;
}

AtspiElement::~AtspiElement() {
    if (!acc_) return;
    // A reference dropped on another thread (the pointer poll) is released on the main loop:
    // libatspi is not thread-safe.
    if (std::this_thread::get_id() == g_mainThread)
        g_object_unref(acc_);
    else
        g_idle_add(unrefOnMain, acc_);
}

std::shared_ptr<const AtspiElement> AtspiElement::adopt(AtspiAccessible* acc) {
    if (!acc) return nullptr;
    std::string bus = busNameOf(acc);
    std::string path = pathOf(acc);
    Kind kind = path == kRootPath ? Kind::Application : Kind::Object;
    return std::shared_ptr<const AtspiElement>(
        new AtspiElement(kind, acc, std::move(bus), std::move(path), 0));
}

std::shared_ptr<const AtspiElement> AtspiElement::make(AtspiAccessible* acc) {
    if (!acc) return nullptr;
    g_object_ref(acc);
    return adopt(acc);
}

std::shared_ptr<const AtspiElement> AtspiElement::textRunOf(AtspiAccessible* acc) {
    if (!acc) return nullptr;
    g_object_ref(acc);
    return std::shared_ptr<const AtspiElement>(
        new AtspiElement(Kind::TextRun, acc, busNameOf(acc), pathOf(acc), 0));
}

std::shared_ptr<const AtspiElement> AtspiElement::systemWide() {
    return std::shared_ptr<const AtspiElement>(
        new AtspiElement(Kind::SystemWide, nullptr, "", "", 0));
}

std::shared_ptr<const AtspiElement> AtspiElement::missing(pid_t pid) {
    return std::shared_ptr<const AtspiElement>(
        new AtspiElement(Kind::Missing, nullptr, "", "", pid));
}

bool AtspiElement::equals(const AXUIElement& other) const {
    if (this == &other) return true;
    auto* o = dynamic_cast<const AtspiElement*>(&other);
    if (!o || o->kind_ != kind_ || o->hash_ != hash_) return false;
    switch (kind_) {
        case Kind::SystemWide:
            return true;
        case Kind::Missing:
            return missingPid_ == o->missingPid_;
        default:
            return bus_ == o->bus_ && path_ == o->path_;
    }
}

std::string AtspiElement::debugDescription() const {
    switch (kind_) {
        case Kind::SystemWide:
            return "<AXUIElement system-wide>";
        case Kind::Missing:
            return "<AXUIElement application pid " + std::to_string(missingPid_) + " (none)>";
        case Kind::Application:
            return "<AXUIElement application " + bus_ + ">";
        case Kind::TextRun:
            return "<AXUIElement text of " + bus_ + path_ + ">";
        default:
            return "<AXUIElement " + bus_ + path_ + ">";
    }
}

const AtspiElement* asAtspi(const AXUIElementRef& ref) {
    return ref ? dynamic_cast<const AtspiElement*>(ref.get()) : nullptr;
}

}  // namespace orv::linuxdesk
