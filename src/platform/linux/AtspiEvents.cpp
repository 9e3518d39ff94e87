// One AT-SPI event taken in: the state it changes and the notifications it makes.

#include <atspi/atspi.h>

#include "platform/linux/AtspiDesktop.h"
#include "platform/linux/AtspiDesktopInternal.h"
#include "platform/linux/LinuxRoles.h"

namespace orv::linuxdesk {

using namespace detail;

void AtspiDesktop::bringToFront(AppInfo& app, std::vector<Delivery>& out) {
    if (frontKnown_ && frontBus_ == app.bus) return;
    setFrontmost(&app);
    const pid_t pid = app.pid;
    out.push_back(Delivery{
        {}, nullptr, nullptr, {}, nullptr, [this, pid] { frontApplicationSwitched.emit(pid); }});
}

void AtspiDesktop::takeFocus(AppInfo& app, const AtspiElementRef& focus,
                             const AtspiElementRef& container, std::vector<Delivery>& out) {
    app.focus = focus;
    app.focusContainer = container;
    app.focusLive = true;
    app.searched = true;
    app.resumeFocus = false;
    bringToFront(app, out);
    newFocus_.push_back(focus);
    app.toldFocus = focus;
    notify(app.bus, "AXFocusedUIElementChanged", focus, out);
}

bool AtspiDesktop::isTopLevel(AtspiAccessible* acc) {
    AtspiAccessible* parent = atspi_accessible_get_parent(acc, nullptr);
    if (!parent) return false;
    const bool top = pathOf(parent) == kRootPath;
    g_object_unref(parent);
    return top;
}

AtspiElementRef AtspiDesktop::focusedItemOf(AppInfo& app, const Pending& ev) {
    GError* err = nullptr;
    const AtspiRole role = atspi_accessible_get_role(ev.source->accessible(), &err);
    if (err) g_error_free(err);
    if (role != ATSPI_ROLE_TABLE && role != ATSPI_ROLE_TREE && role != ATSPI_ROLE_TREE_TABLE &&
        role != ATSPI_ROLE_LIST && role != ATSPI_ROLE_LIST_BOX)
        return nullptr;
    // GTK's containers show the state themselves and tell of their items otherwise. Qt's tree
    // and table views never do: their current item has it, told of just before or not at all.
    if (focusedNow(ev.source->accessible())) return nullptr;
    if (app.focusLive && app.focus && !app.focus->equals(*ev.source) &&
        isWithin(app.focus->accessible(), *ev.source) && focusedNow(app.focus->accessible()))
        return app.focus;
    return focusedWithin(ev.source->accessible(), kItemSearchLimit);
}

void AtspiDesktop::process(Pending& ev, std::vector<Delivery>& out) {
    const std::string& bus = ev.source->busName();
    switch (ev.kind) {
        case EventKind::Focused: {
            AppInfo* app = appForBus(bus);
            if (!app) return;
            if (repeatedFocusIn(*app, ev)) {
                if (!app->focusLive && app->focus && app->focus->equals(*ev.source) &&
                    focusedNow(ev.source->accessible()))
                    // Focus-out and focus-in of the same object at once (GTK 4 popovers): it has
                    // the focus, it was not GTK 3's late repeat for a widget the focus left.
                    focusStays(*app, ev, out);
                return;
            }
            app->lastFocusIn = ev.source;
            app->lastFocusInAt = ev.at;
            app->leftAt = 0;
            app->answeredInTransit = false;
            if (app->focusLive && app->focusContainer && app->focusContainer->equals(*ev.source))
                // A tree or table tells of its focused cell before its own focus-in (GTK 3):
                // the cell stays the focus.
                return;
            AtspiElementRef item = focusedItemOf(*app, ev);
            if (item && app->focusLive && app->focus && app->focus->equals(*item)) {
                // Qt tells of a tree's focused cell, then of the tree: the cell stays the focus.
                app->focusContainer = ev.source;
                return;
            }
            if (app->focus && !app->focus->equals(*ev.source)) app->replace(ev.at);
            if (item) {
                takeFocus(*app, item, ev.source, out);
                return;
            }
            if (app->idleContainer && app->idleContainer->equals(*ev.source) &&
                app->idleDescendant &&
                !hasState(app->idleDescendant->accessible(), ATSPI_STATE_DEFUNCT)) {
                AtspiElementRef cell = app->idleDescendant;
                app->idleContainer.reset();
                app->idleDescendant.reset();
                app->replace(ev.at);
                takeFocus(*app, cell, ev.source, out);
                return;
            }
            takeFocus(*app, ev.source, nullptr, out);
            return;
        }
        case EventKind::Unfocused: {
            auto it = apps_.find(bus);
            if (it != apps_.end()) focusLeft(it->second, *ev.source, ev.at);
            return;
        }
        case EventKind::ActiveDescendant: {
            if (!ev.other) return;
            AppInfo* app = appForBus(bus);
            if (!app) return;
            const bool containerHasFocus =
                (app->focusLive && app->focus && app->focus->equals(*ev.source)) ||
                (app->focusContainer && app->focusContainer->equals(*ev.source) &&
                 app->focusLive) ||
                hasState(ev.source->accessible(), ATSPI_STATE_FOCUSED);
            if (!containerHasFocus) {
                app->idleContainer = ev.source;
                app->idleDescendant = ev.other;
                return;
            }
            if (app->focusLive && app->focus && app->focus->equals(*ev.other) && app->toldFocus &&
                app->toldFocus->equals(*ev.other))
                return;
            if (app->focus && !app->focus->equals(*ev.other)) app->replace(ev.at);
            app->focus = ev.other;
            app->focusContainer = ev.source;
            app->focusLive = true;
            app->leftAt = 0;
            app->answeredInTransit = false;
            app->searched = true;
            app->resumeFocus = false;
            newFocus_.push_back(ev.other);
            app->toldFocus = ev.other;
            notify(bus, "AXFocusedUIElementChanged", ev.other, out);
            return;
        }
        case EventKind::ActiveState:
        case EventKind::WindowActivate: {
            AppInfo* app = appForBus(bus);
            if (!app) return;
            if (ev.kind == EventKind::ActiveState) {
                // GTK 3 says window:activate as well; GTK 4 only this, for windows and dialogs
                // alike (its dialogs are fillers, so the role does not tell).
                if ((app->activeWindow && app->activeWindow->equals(*ev.source)) ||
                    !isTopLevel(ev.source->accessible()))
                    return;
                ev.kind = EventKind::WindowActivate;  // the batch treats it as one
            }
            app->activeWindow = ev.source;
            app->activeFromEvent = true;
            if (!app->focusLive) {
                app->searched = false;
                app->resumeFocus = app->focus != nullptr;
            }
            bringToFront(*app, out);
            notify(bus, "AXFocusedWindowChanged", ev.source, out);
            notify(bus, "AXMainWindowChanged", ev.source, out);
            return;
        }
        case EventKind::WindowDeactivate: {
            auto it = apps_.find(bus);
            if (it != apps_.end() && it->second.activeWindow &&
                it->second.activeWindow->equals(*ev.source)) {
                it->second.activeWindow.reset();
                it->second.activeFromEvent = false;
            }
            return;
        }
        case EventKind::WindowCreate:
            notify(bus, "AXWindowCreated", ev.source, out);
            return;
        case EventKind::ChildAdded: {
            if (bus != kRegistryBus) {
                notify(ev.other->busName(), "AXCreated", ev.other, out);
                return;
            }
            const bool known = apps_.count(ev.other->busName()) != 0;
            AppInfo* app = addApplication(ev.other->accessible());
            if (!app || known) return;
            RunningApplication ra = runningApplication(*app);
            out.push_back(Delivery{
                {}, nullptr, nullptr, {}, nullptr, [this, ra] { didLaunchApplication.emit(ra); }});
            return;
        }
        case EventKind::ChildRemoved: {
            if (bus != kRegistryBus) {
                notify(ev.other->busName(), "AXUIElementDestroyed", ev.other, out);
                return;
            }
            auto it = apps_.find(ev.other->busName());
            if (it == apps_.end()) return;
            notify(it->first, "AXUIElementDestroyed", it->second.root, out);
            RunningApplication ra = runningApplication(it->second);
            out.push_back(Delivery{{}, nullptr, nullptr, {}, nullptr, [this, ra] {
                                       didTerminateApplication.emit(ra);
                                   }});
            if (busByPid_.count(it->second.pid) && busByPid_[it->second.pid] == it->first)
                busByPid_.erase(it->second.pid);
            if (frontBus_ == it->first) frontBus_.clear(), frontKnown_ = false;
            apps_.erase(it);
            return;
        }
        case EventKind::Defunct: {
            auto it = apps_.find(bus);
            if (it != apps_.end() && it->second.focus && it->second.focus->equals(*ev.source)) {
                AppInfo& app = it->second;
                if (app.focusLive && app.leftAt <= 0) app.leftAt = ev.at;  // gone: it has left
                app.focusLive = false, app.searched = false, app.resumeFocus = false;
            }
            notify(bus, "AXUIElementDestroyed", ev.source, out);
            return;
        }
        case EventKind::Bounds: {
            GError* err = nullptr;
            const bool window =
                isWindowRole(atspi_accessible_get_role(ev.source->accessible(), &err));
            if (err) g_error_free(err);
            notify(bus, window ? "AXWindowMoved" : "AXMoved", ev.source, out);
            notify(bus, window ? "AXWindowResized" : "AXResized", ev.source, out);
            return;
        }
        case EventKind::WindowReshaped:
            notify(bus, "AXWindowMoved", ev.source, out);
            notify(bus, "AXWindowResized", ev.source, out);
            return;
        case EventKind::ValueChanged:
            notify(bus, "AXValueChanged", ev.source, out);
            return;
        case EventKind::SelectedText:
            if (ev.detail >= 0) lastCaret_[bus] = TextCaret{ev.source, ev.detail, flushSerial_};
            notify(bus, "AXSelectedTextChanged", ev.source, out);
            notifyHolders(bus, ev.source, out);
            return;
        case EventKind::NameChanged:
            notify(bus, "AXTitleChanged", ev.source, out);
            return;
        case EventKind::SelectionChanged:
            notify(bus, "AXSelectedChildrenChanged", ev.source, out);
            notify(bus, "AXSelectedRowsChanged", ev.source, out);
            return;
        case EventKind::Ignored:
            return;
    }
}

const AtspiDesktop::TextCaret* AtspiDesktop::lastCaret(const std::string& bus) const {
    auto it = lastCaret_.find(bus);
    return it == lastCaret_.end() ? nullptr : &it->second;
}

int AtspiDesktop::caretBeingTold(AtspiAccessible* acc) const {
    if (!flushing_ || !acc) return -1;
    auto it = lastCaret_.find(busNameOf(acc));
    if (it == lastCaret_.end() || it->second.batch != flushSerial_ || !it->second.object ||
        !it->second.object->isSame(it->first, pathOf(acc)))
        return -1;
    return it->second.offset;
}

void AtspiDesktop::notifyHolders(const std::string& bus, const AtspiElementRef& source,
                                 std::vector<Delivery>& out) {
    static const std::string kNotification = "AXSelectedTextChanged";
    auto app = apps_.find(bus);
    if (!source || app == apps_.end() || app->second.pid <= 0) return;
    auto [lo, hi] = observers_.equal_range(app->second.pid);
    for (auto it = lo; it != hi; ++it) {
        auto observer = it->second.lock();
        if (!observer || !observer->wants(kNotification)) continue;
        for (const auto& reg : observer->registrations(kNotification)) {
            const AtspiElementRef& holder = reg.element;
            if (holder->kind() != AtspiElement::Kind::Object || holder->busName() != bus ||
                holder->equals(*source))
                continue;
            // A field hears of its own caret only; pages and editable regions of them hold
            // carets of other objects.
            if (isTextRole(atspi_accessible_get_role(holder->accessible(), nullptr))) continue;
            if (!isWithin(source->accessible(), *holder)) continue;
            bool duplicate = false;
            for (const auto& d : out)
                if (d.key == observer.get() && d.refcon == reg.refcon &&
                    d.notification == kNotification && axEqual(d.element, holder))
                    duplicate = true;
            if (!duplicate)
                out.push_back(
                    Delivery{observer, observer.get(), holder, kNotification, reg.refcon, {}});
        }
    }
}

}  // namespace orv::linuxdesk
