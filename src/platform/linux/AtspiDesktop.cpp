#include "platform/linux/AtspiDesktop.h"

#include <atspi/atspi.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <deque>

#include "Common/OrvLogger.h"
#include "platform/linux/AtspiDesktopInternal.h"
#include "platform/linux/LinuxRoles.h"

namespace orv::linuxdesk {

using namespace detail;

namespace {

// What a call may block when nobody has set a timeout: the same bound the agent asks for.
constexpr double kDefaultTimeout = 0.25;
// Objects whose last bounds-changed rectangle is remembered; past this, all are forgotten.
constexpr size_t kBoundsKept = 4096;

// Notifications and the AT-SPI events they come from. The first group is always registered: it
// keeps focus, windows and the application list.
const char* const kCoreEvents[] = {
    "object:state-changed:focused",
    "object:active-descendant-changed",
    "window:activate",
    "window:deactivate",
    // GTK 4 tells of a window's activation only by its ACTIVE state.
    "object:state-changed:active",
    "object:children-changed",
    "object:state-changed:defunct",
};

EventKind kindOf(const char* type, int detail1) {
    auto is = [type](const char* prefix) {
        return std::strncmp(type, prefix, std::strlen(prefix)) == 0;
    };
    if (is("object:state-changed:focused"))
        return detail1 ? EventKind::Focused : EventKind::Unfocused;
    if (is("object:state-changed:defunct"))
        return detail1 ? EventKind::Defunct : EventKind::Ignored;
    if (is("object:active-descendant-changed")) return EventKind::ActiveDescendant;
    if (is("object:state-changed:active"))
        return detail1 ? EventKind::ActiveState : EventKind::Ignored;
    if (is("window:activate")) return EventKind::WindowActivate;
    if (is("window:deactivate")) return EventKind::WindowDeactivate;
    if (is("window:create")) return EventKind::WindowCreate;
    if (is("object:children-changed:add")) return EventKind::ChildAdded;
    if (is("object:children-changed:remove")) return EventKind::ChildRemoved;
    if (is("object:bounds-changed")) return EventKind::Bounds;
    // A check box's value is its checked state (1, 0, or 2 while indeterminate).
    if (is("object:text-changed") || is("object:property-change:accessible-value") ||
        is("object:state-changed:checked") || is("object:state-changed:indeterminate"))
        return EventKind::ValueChanged;
    if (is("object:text-caret-moved") || is("object:text-selection-changed"))
        return EventKind::SelectedText;
    if (is("object:property-change:accessible-name")) return EventKind::NameChanged;
    if (is("object:selection-changed")) return EventKind::SelectionChanged;
    return EventKind::Ignored;
}

void onAtspiEvent(AtspiEvent* event, void* user) {
    static_cast<AtspiDesktop*>(user)->onEvent(event);
}

std::string deriveBundleIdentifier(const std::string& name, pid_t pid) {
    std::string id = name;
    while (!id.empty() && std::isspace(static_cast<unsigned char>(id.back()))) id.pop_back();
    size_t start = 0;
    while (start < id.size() && std::isspace(static_cast<unsigned char>(id[start]))) ++start;
    id = id.substr(start);
    if (!id.empty() || pid <= 0) return id;
    char buf[PATH_MAX];
    std::string link = "/proc/" + std::to_string(pid) + "/exe";
    ssize_t n = readlink(link.c_str(), buf, sizeof buf - 1);
    if (n <= 0) return {};
    buf[n] = 0;
    std::string path(buf);
    // A replaced executable reads "/usr/bin/app (deleted)".
    if (auto pos = path.rfind(" (deleted)"); pos != std::string::npos) path.erase(pos);
    auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool contains(const char* haystack, const char* needle) {
    return haystack && std::strstr(haystack, needle) != nullptr;
}

}  // namespace

namespace detail {

const std::unordered_map<std::string, std::vector<const char*>>& notificationEvents() {
    static const std::unordered_map<std::string, std::vector<const char*>> table = {
        {"AXFocusedUIElementChanged", {}},
        {"AXFocusedWindowChanged", {}},
        {"AXMainWindowChanged", {}},
        {"AXUIElementDestroyed", {}},
        {"AXCreated", {}},
        {"AXWindowCreated", {"window:create"}},
        {"AXValueChanged",
         {"object:text-changed", "object:property-change:accessible-value",
          "object:state-changed:checked", "object:state-changed:indeterminate"}},
        {"AXSelectedTextChanged", {"object:text-caret-moved", "object:text-selection-changed"}},
        {"AXMoved", {"object:bounds-changed"}},
        {"AXResized", {"object:bounds-changed"}},
        {"AXWindowMoved", {"object:bounds-changed"}},
        {"AXWindowResized", {"object:bounds-changed"}},
        {"AXTitleChanged", {"object:property-change:accessible-name"}},
        {"AXSelectedChildrenChanged", {"object:selection-changed"}},
        {"AXSelectedRowsChanged", {"object:selection-changed"}},
    };
    return table;
}

}  // namespace detail

// ---------------------------------------------------------------------------------------------

CallClock::CallClock() : start_(monotonicSeconds()) {}
double CallClock::elapsed() const {
    return monotonicSeconds() - start_;
}

AtspiDesktop::AtspiDesktop(std::shared_ptr<MainLoop> loop)
    : loop_(std::move(loop)), settle_(loop_) {
    alive_ = std::make_shared<bool>(true);
    setMessagingTimeout(0);
    settle_.moved = [this](AtspiAccessible* acc) {
        AtspiElementRef focus = AtspiElement::make(acc);
        if (!focus) return;
        ++stats_.settleMoves;
        if (geometryChanged) geometryChanged(focus->busName());
        queue(Pending{EventKind::Bounds, focus, nullptr});
    };
}

AtspiDesktop::~AtspiDesktop() {
    if (listener_) {
        for (const auto& type : registeredTypes_)
            atspi_event_listener_deregister(listener_, type.c_str(), nullptr);
        g_object_unref(listener_);
    }
    if (desktop_) g_object_unref(desktop_);
}

bool AtspiDesktop::start(std::string* whyNot) {
    desktop_ = atspi_get_desktop(0);
    if (!desktop_) {
        if (whyNot) *whyNot = "the accessibility registry does not answer";
        return false;
    }
    listener_ = atspi_event_listener_new(onAtspiEvent, this, nullptr);
    for (const char* type : kCoreEvents) registerEventType(type);
    if (registeredTypes_.empty()) {
        if (whyNot) *whyNot = "the accessibility registry refused event listeners";
        return false;
    }
    refreshApplications();
    return true;
}

void AtspiDesktop::registerEventType(const char* type) {
    if (!listener_ || registeredTypes_.count(type)) return;
    GError* err = nullptr;
    if (atspi_event_listener_register(listener_, type, &err)) {
        registeredTypes_.insert(type);
    } else {
        OrvLogger::addErrorMessageWithFormat("AT-SPI: cannot listen to %@: %@", type,
                                             err ? err->message : "unknown error");
    }
    if (err) g_error_free(err);
}

// --- Timeouts ---------------------------------------------------------------------------------

void AtspiDesktop::setMessagingTimeout(double seconds) {
    timeout_ = seconds > 0 ? seconds : kDefaultTimeout;
    // libatspi waits up to about twice what it is given (a read-write round, then the check),
    // and would give a freshly started application 15 seconds: neither is wanted here. The rest
    // of the main-loop turn that made the call must fit as well (20 ms).
    const int ms = std::max(1, static_cast<int>(std::lround((timeout_ - 0.02) * 1000.0 / 2.0)));
    callBudget_ = ms / 1000.0;
    atspi_set_timeout(ms, 0);
}

bool AtspiDesktop::looksTimedOut(const CallClock& clock) const {
    return clock.elapsed() >= callBudget_ * 0.9;
}

AXError AtspiDesktop::errorFor(GError* error, const CallClock& clock, AXError fallback) const {
    if (error) {
        const char* m = error->message;
        if (error->domain == g_quark_from_static_string("atspi_error") && error->code == 0)
            return kAXErrorInvalidUIElement;
        if (contains(m, "hung") || contains(m, "timeout") || contains(m, "Timeout") ||
            contains(m, "NoReply") || contains(m, "did not receive a reply"))
            return kAXErrorCannotComplete;
        if (contains(m, "was not provided by any") || contains(m, "no longer exists") ||
            contains(m, "UnknownObject") || contains(m, "Unknown object") ||
            contains(m, "does not exist") || contains(m, "Disconnected") ||
            contains(m, "not connected"))
            return kAXErrorInvalidUIElement;
        if (contains(m, "UnknownInterface") || contains(m, "No such interface") ||
            contains(m, "Unknown interface") || contains(m, "UnknownMethod") ||
            contains(m, "Unknown method"))
            return kAXErrorAttributeUnsupported;
        return looksTimedOut(clock) ? kAXErrorCannotComplete : kAXErrorFailure;
    }
    return looksTimedOut(clock) ? kAXErrorCannotComplete : fallback;
}

// --- Applications -----------------------------------------------------------------------------

AppInfo* AtspiDesktop::addApplication(AtspiAccessible* root) {
    std::string bus = busNameOf(root);
    if (bus.empty() || bus == kRegistryBus) return nullptr;
    auto it = apps_.find(bus);
    if (it != apps_.end()) return &it->second;
    AppInfo info;
    info.bus = bus;
    info.root = AtspiElement::make(root);
    GError* err = nullptr;
    info.pid = static_cast<pid_t>(atspi_accessible_get_process_id(root, &err));
    if (err) g_error_free(err), err = nullptr;
    gchar* name = atspi_accessible_get_name(root, &err);
    if (err) g_error_free(err);
    info.name = name ? name : "";
    g_free(name);
    info.bundleIdentifier = deriveBundleIdentifier(info.name, info.pid);
    if (info.pid > 0) busByPid_[info.pid] = bus;
    return &apps_.emplace(bus, std::move(info)).first->second;
}

void AtspiDesktop::refreshApplications() {
    if (!desktop_) return;
    GError* err = nullptr;
    const int n = atspi_accessible_get_child_count(desktop_, &err);
    if (err) {
        g_error_free(err);
        return;
    }
    std::set<std::string> present;
    for (int i = 0; i < n; ++i) {
        AtspiAccessible* child = atspi_accessible_get_child_at_index(desktop_, i, nullptr);
        if (!child) continue;
        if (AppInfo* app = addApplication(child)) present.insert(app->bus);
        g_object_unref(child);
    }
    for (auto it = apps_.begin(); it != apps_.end();) {
        if (present.count(it->first)) {
            ++it;
            continue;
        }
        if (busByPid_.count(it->second.pid) && busByPid_[it->second.pid] == it->first)
            busByPid_.erase(it->second.pid);
        if (frontBus_ == it->first) frontBus_.clear(), frontKnown_ = false;
        it = apps_.erase(it);
    }
    appsListed_ = true;
}

AppInfo* AtspiDesktop::appForBus(const std::string& bus) {
    if (bus.empty()) return nullptr;
    auto it = apps_.find(bus);
    if (it != apps_.end()) return &it->second;
    refreshApplications();
    it = apps_.find(bus);
    return it == apps_.end() ? nullptr : &it->second;
}

AppInfo* AtspiDesktop::appForPid(pid_t pid) {
    if (pid <= 0) return nullptr;
    auto it = busByPid_.find(pid);
    if (it == busByPid_.end()) {
        refreshApplications();
        it = busByPid_.find(pid);
        if (it == busByPid_.end()) return nullptr;
    }
    auto app = apps_.find(it->second);
    return app == apps_.end() ? nullptr : &app->second;
}

std::vector<AppInfo*> AtspiDesktop::applications() {
    if (!appsListed_) refreshApplications();
    std::vector<AppInfo*> out;
    for (auto& [bus, app] : apps_) out.push_back(&app);
    return out;
}

RunningApplication AtspiDesktop::runningApplication(const AppInfo& app) const {
    return RunningApplication{app.pid, app.bundleIdentifier, app.name};
}

AppInfo* AtspiDesktop::frontmostApp() {
    if (!frontKnown_) {
        // Nothing activated since we started: the application with an active window is in front.
        for (AppInfo* app : applications()) {
            AXError err = kAXErrorSuccess;
            if (activeWindow(*app, &err)) {
                frontBus_ = app->bus;
                frontKnown_ = true;
                break;
            }
        }
        if (!frontKnown_) return nullptr;
    }
    auto it = apps_.find(frontBus_);
    return it == apps_.end() ? nullptr : &it->second;
}

pid_t AtspiDesktop::frontmostPid() {
    AppInfo* app = frontmostApp();
    return app ? app->pid : 0;
}

void AtspiDesktop::setFrontmost(AppInfo* app) {
    if (!app) return;
    if (frontKnown_ && frontBus_ == app->bus) return;
    frontBus_ = app->bus;
    frontKnown_ = true;
}

// --- Focus and windows ------------------------------------------------------------------------

// --- Observers --------------------------------------------------------------------------------

void AtspiDesktop::addObserver(const std::shared_ptr<AtspiObserver>& observer) {
    observers_.emplace(observer->pid(), observer);
}

void AtspiDesktop::removeObserver(AtspiObserver* observer) {
    auto [lo, hi] = observers_.equal_range(observer->pid());
    for (auto it = lo; it != hi;) {
        auto locked = it->second.lock();
        if (!locked || locked.get() == observer)
            it = observers_.erase(it);
        else
            ++it;
    }
}

void AtspiDesktop::needNotification(const std::string& notification) {
    auto it = notificationEvents().find(notification);
    if (it == notificationEvents().end()) return;
    for (const char* type : it->second) registerEventType(type);
}

// --- Events -----------------------------------------------------------------------------------

void AtspiDesktop::onEvent(const AtspiEvent* event) {
    if (!event || !event->type || !event->source) return;
    ++stats_.events;
    // This may run inside another libatspi call (it dispatches queued events after each reply),
    // so nothing here calls back into libatspi: the event is queued and handled at top level.
    const EventKind kind = kindOf(event->type, event->detail1);
    if (kind == EventKind::Ignored) return;
    if (kind == EventKind::Focused && focusAnnounced && event->source != lastAnnounced_) {
        lastAnnounced_ = event->source;
        focusAnnounced(event->source);
    }
    AtspiAccessible* other = nullptr;
    if (G_VALUE_HOLDS(&event->any_data, ATSPI_TYPE_ACCESSIBLE))
        other = static_cast<AtspiAccessible*>(g_value_get_object(&event->any_data));
    if ((kind == EventKind::ChildAdded || kind == EventKind::ChildRemoved) && !other) return;
    if ((kind == EventKind::ChildAdded || kind == EventKind::ChildRemoved) &&
        busNameOf(event->source) != kRegistryBus) {
        // Children of application objects matter only to someone watching for them.
        bool wanted = false;
        for (auto& [pid, weak] : observers_)
            if (auto o = weak.lock())
                if (o->wants(kind == EventKind::ChildAdded ? "AXCreated" : "AXUIElementDestroyed"))
                    wanted = true;
        if (!wanted) return;
    }
    if (kind == EventKind::Bounds) {
        const std::string bus = busNameOf(event->source);
        if (auto app = apps_.find(bus); app != apps_.end()) app->second.reportsBounds = true;
        // GTK re-allocates a widget on every frame of a style transition (a focus change starts
        // one) and says bounds-changed each time with the same rectangle: nothing moved.
        const auto* r = G_VALUE_HOLDS(&event->any_data, ATSPI_TYPE_RECT)
                            ? static_cast<const AtspiRect*>(g_value_get_boxed(&event->any_data))
                            : nullptr;
        if (r) {
            const Rect now(r->x, r->y, r->width, r->height);
            std::string key = bus + pathOf(event->source);
            auto it = lastBounds_.find(key);
            if (it != lastBounds_.end() && it->second == now) {
                ++stats_.unchangedBounds;
                return;
            }
            if (lastBounds_.size() >= kBoundsKept) lastBounds_.clear();
            lastBounds_[std::move(key)] = now;
        }
        if (geometryChanged) geometryChanged(bus);
    } else if (geometryChanged &&
               (kind == EventKind::WindowActivate || kind == EventKind::ActiveState ||
                kind == EventKind::WindowDeactivate || kind == EventKind::WindowCreate ||
                kind == EventKind::Defunct)) {
        geometryChanged(busNameOf(event->source));
    }
    Pending ev{kind, AtspiElement::make(event->source), AtspiElement::make(other)};
    if (kind == EventKind::SelectedText && std::strcmp(event->type, "object:text-caret-moved") == 0)
        ev.detail = event->detail1;
    if (!takenInAtOnce(ev)) queue(std::move(ev));
}

bool AtspiDesktop::hearsMoves(const std::string& bus) const {
    if (!registeredTypes_.count("object:bounds-changed")) return false;
    auto app = apps_.find(bus);
    return app != apps_.end() && app->second.reportsBounds;
}

void AtspiDesktop::focusedWindowMoved() {
    AppInfo* app = frontmostApp();
    if (!app) return;
    AXError err = kAXErrorSuccess;
    if (AtspiElementRef window = activeWindow(*app, &err))
        queue(Pending{EventKind::WindowReshaped, window, nullptr});
}

void AtspiDesktop::queue(Pending event) {
    pending_.push_back(std::move(event));
    scheduleFlush();
}

void AtspiDesktop::scheduleFlush() {
    if (!flushScheduled_) {
        flushScheduled_ = true;
        std::weak_ptr<AtspiDesktop> weak = weak_from_this();
        loop_->post([weak] {
            if (auto self = weak.lock()) self->flush();
        });
    }
}

void AtspiDesktop::notify(const std::string& bus, const std::string& notification,
                          const AtspiElementRef& element, std::vector<Delivery>& out) {
    auto app = apps_.find(bus);
    if (app == apps_.end() || app->second.pid <= 0) return;
    auto [lo, hi] = observers_.equal_range(app->second.pid);
    for (auto it = lo; it != hi; ++it) {
        auto observer = it->second.lock();
        if (!observer || !observer->wants(notification)) continue;
        for (const auto& reg : observer->registrations(notification)) {
            const bool onApp = reg.element->kind() == AtspiElement::Kind::Application &&
                               reg.element->busName() == bus;
            if (!onApp && !(element && reg.element->equals(*element))) continue;
            // GTK reports many changes twice: one delivery per observer, notification, element
            // and registration in a batch.
            bool duplicate = false;
            for (const auto& d : out)
                if (d.key == observer.get() && d.refcon == reg.refcon &&
                    d.notification == notification && axEqual(d.element, element))
                    duplicate = true;
            if (duplicate) continue;
            out.push_back(
                Delivery{observer, observer.get(), element, notification, reg.refcon, {}});
        }
    }
}

bool AtspiDesktop::takenInAtOnce(const Pending& ev) {
    if (flushing_ || !pending_.empty() || flushScheduled_ || !held_.empty() || !found_.empty())
        return false;
    auto app = apps_.find(ev.source->busName());
    switch (ev.kind) {
        case EventKind::Unfocused:
            if (app != apps_.end()) focusLeft(app->second, *ev.source, ev.at);
            return true;
        case EventKind::Focused:
            // A repeat after the object's own focus-out is checked with the application, which
            // cannot be asked from here.
            return app != apps_.end() && app->second.focusLive && repeatedFocusIn(app->second, ev);
        default:
            return false;
    }
}

void AtspiDesktop::flush() {
    flushScheduled_ = false;
    ++flushSerial_;
    std::vector<Pending> batch;
    batch.swap(pending_);
    // Events libatspi dispatches inside the calls made from here wait for the next batch.
    const bool outerFlush = flushing_;
    flushing_ = true;
    // State first, for the whole batch, so that observers reading back see where things ended.
    std::vector<Delivery> out = std::move(held_);
    held_.clear();
    for (auto& d : found_) out.push_back(std::move(d));
    found_.clear();
    for (auto& ev : batch) {
        process(ev, out);
        if (ev.kind == EventKind::WindowActivate) {
            awaitingFocusOf_ = ev.source->busName();
            holdUntil_ = monotonicSeconds() + kFocusGrace;
        }
    }
    if (!awaitingFocusOf_.empty()) {
        // A window activated without its focus would send the reader to the window and, a moment
        // later, to the widget: everything waits for the focus-in, briefly.
        auto app = apps_.find(awaitingFocusOf_);
        const double now = monotonicSeconds();
        if (app != apps_.end() && !focusSettled(app->second) && now < holdUntil_) {
            // Extents asked for now would be stale by the time the batch is delivered.
            if (prefetchFocus) prefetchFocus({});
            holdBatch(out, holdUntil_, holdUntil_ - now);
            flushing_ = outerFlush;
            return;
        }
        awaitingFocusOf_.clear();
    }
    if (prefetchFocus) prefetchFocus(newFocus_);
    if (!newFocus_.empty() && newFocus_.back() && unplaced &&
        unplaced(newFocus_.back()->accessible())) {
        if (!awaitingPlaceOf_ || !awaitingPlaceOf_->equals(*newFocus_.back())) {
            awaitingPlaceOf_ = newFocus_.back();
            placeUntil_ = monotonicSeconds() + kPlaceGrace;
        }
        // Its extents are asked for again at the next try.
        if (holdBatch(out, placeUntil_, kPlaceRetry)) {
            flushing_ = outerFlush;
            return;
        }
    }
    awaitingPlaceOf_.reset();
    // Only readers that follow moves care whether the new focus is still on its way.
    AtspiElementRef settling;
    if (!newFocus_.empty() && registeredTypes_.count("object:bounds-changed"))
        settling = newFocus_.back();
    newFocus_.clear();
    std::weak_ptr<bool> alive = alive_;
    for (auto& d : out) {
        if (alive.expired()) return;
        try {
            if (d.action) {
                d.action();
                continue;
            }
            auto observer = d.observer.lock();
            if (!observer || !observer->attached()) continue;
            ++stats_.deliveries;
            observer->deliver(d.element, d.notification, d.refcon);
        } catch (const std::exception& e) {
            OrvLogger::addErrorMessageWithFormat("Unhandled exception in AT-SPI delivery: %@",
                                                 e.what());
        } catch (...) {
            OrvLogger::addErrorMessage("Unhandled error in AT-SPI delivery");
        }
    }
    if (settling && settling->accessible()) {
        Rect told;
        const bool known = toldExtents && toldExtents(settling->accessible(), &told);
        settle_.watch(settling->accessible(),
                      std::max(1, static_cast<int>(std::lround(callBudget_ * 1000))),
                      known ? &told : nullptr);
    }
    flushing_ = outerFlush;
}

bool AtspiDesktop::holdBatch(std::vector<Delivery>& out, double until, double retry) {
    const double now = monotonicSeconds();
    if (now >= until) return false;
    held_ = std::move(out);
    if (!holdTimerSet_) {
        holdTimerSet_ = true;
        std::weak_ptr<AtspiDesktop> weak = weak_from_this();
        loop_->postAfter(std::min(retry, until - now), [weak] {
            if (auto self = weak.lock()) {
                self->holdTimerSet_ = false;
                self->flush();
            }
        });
    }
    return true;
}

}  // namespace orv::linuxdesk
