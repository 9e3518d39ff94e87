// Each application's focused object and active window, as AT-SPI's events and states tell them.

#include <atspi/atspi.h>

#include <deque>

#include "platform/linux/AtspiDesktop.h"
#include "platform/linux/AtspiDesktopInternal.h"

namespace orv::linuxdesk {

using namespace detail;

bool AtspiDesktop::hasState(AtspiAccessible* acc, int state) {
    if (!acc) return false;
    AtspiStateSet* set = atspi_accessible_get_state_set(acc);
    if (!set) return false;
    const bool has = atspi_state_set_contains(set, static_cast<AtspiStateType>(state));
    g_object_unref(set);
    return has;
}

AtspiElementRef AtspiDesktop::activeWindow(AppInfo& app, AXError* err) {
    *err = kAXErrorSuccess;
    if (app.activeWindow) {
        AtspiAccessible* w = app.activeWindow->accessible();
        // GTK tells of the activation before the window shows the state.
        if (app.activeFromEvent ? !hasState(w, ATSPI_STATE_DEFUNCT)
                                : hasState(w, ATSPI_STATE_ACTIVE))
            return app.activeWindow;
    }
    app.activeWindow.reset();
    app.activeFromEvent = false;
    AtspiAccessible* root = app.root ? app.root->accessible() : nullptr;
    if (!root) {
        *err = kAXErrorInvalidUIElement;
        return nullptr;
    }
    CallClock clock;
    GError* gerr = nullptr;
    const int n = atspi_accessible_get_child_count(root, &gerr);
    if (n < 0 || gerr) {
        *err = errorFor(gerr, clock, kAXErrorNoValue);
        if (gerr) g_error_free(gerr);
        return nullptr;
    }
    for (int i = 0; i < n; ++i) {
        AtspiAccessible* w = atspi_accessible_get_child_at_index(root, i, nullptr);
        if (!w) continue;
        if (hasState(w, ATSPI_STATE_ACTIVE)) {
            app.activeWindow = AtspiElement::adopt(w);
            return app.activeWindow;
        }
        g_object_unref(w);
    }
    *err = looksTimedOut(clock) ? kAXErrorCannotComplete : kAXErrorNoValue;
    return nullptr;
}

AtspiElementRef AtspiDesktop::searchFocus(AppInfo& app) {
    ++stats_.focusSearches;
    AXError err;
    AtspiElementRef window = activeWindow(app, &err);
    if (!window) return nullptr;
    return focusedWithin(window->accessible(), kFocusSearchLimit);
}

AtspiElementRef AtspiDesktop::focusedWithin(AtspiAccessible* win, int limit) {
    if (AtspiCollection* coll = atspi_accessible_get_collection_iface(win)) {
        AtspiStateSet* states = atspi_state_set_new(nullptr);
        atspi_state_set_add(states, ATSPI_STATE_FOCUSED);
        AtspiMatchRule* rule = atspi_match_rule_new(
            states, ATSPI_Collection_MATCH_ALL, nullptr, ATSPI_Collection_MATCH_NONE, nullptr,
            ATSPI_Collection_MATCH_NONE, nullptr, ATSPI_Collection_MATCH_NONE, FALSE);
        GError* gerr = nullptr;
        GArray* found = atspi_collection_get_matches(
            coll, rule, ATSPI_Collection_SORT_ORDER_CANONICAL, 1, TRUE, &gerr);
        g_object_unref(rule);
        g_object_unref(states);
        g_object_unref(coll);
        AtspiElementRef result;
        const bool answered = found && !gerr;
        if (found) {
            if (found->len > 0)
                result = AtspiElement::make(g_array_index(found, AtspiAccessible*, 0));
            for (guint i = 0; i < found->len; ++i)
                g_object_unref(g_array_index(found, AtspiAccessible*, i));
            g_array_free(found, TRUE);
        }
        if (gerr) g_error_free(gerr);
        if (answered) return result;
    }
    // No Collection interface: walk the showing part breadth-first, then what is only VISIBLE
    // (GTK 4 shows SHOWING on few of a dialog's containers; a window's hidden pages are VISIBLE
    // too, and many).
    std::deque<AtspiAccessible*> queue{static_cast<AtspiAccessible*>(g_object_ref(win))};
    std::deque<AtspiAccessible*> later;
    AtspiElementRef result;
    int seen = 0;
    // What is only VISIBLE is walked for a while at most: each object may cost a round trip, and
    // gtk4-widget-factory's hidden pages once held the loop for 2.5 s.
    double until = 0;
    while ((!queue.empty() || !later.empty()) && seen < limit &&
           (until == 0 || monotonicSeconds() < until)) {
        if (queue.empty()) {
            queue.swap(later);
            if (until == 0) until = monotonicSeconds() + kFocusSearchTime;
        }
        AtspiAccessible* node = queue.front();
        queue.pop_front();
        ++seen;
        AtspiStateSet* set = atspi_accessible_get_state_set(node);
        const bool focused = set && atspi_state_set_contains(set, ATSPI_STATE_FOCUSED);
        const bool showing = set && atspi_state_set_contains(set, ATSPI_STATE_SHOWING);
        const bool walk = set && (showing || atspi_state_set_contains(set, ATSPI_STATE_VISIBLE)) &&
                          !atspi_state_set_contains(set, ATSPI_STATE_MANAGES_DESCENDANTS);
        if (set) g_object_unref(set);
        if (focused && node != win) {
            result = AtspiElement::adopt(node);
            break;
        }
        if (walk || node == win) {
            auto& into = showing || node == win ? queue : later;
            const int n = atspi_accessible_get_child_count(node, nullptr);
            for (int i = 0; i < n; ++i)
                if (AtspiAccessible* c = atspi_accessible_get_child_at_index(node, i, nullptr))
                    into.push_back(c);
        }
        g_object_unref(node);
    }
    for (AtspiAccessible* node : later) g_object_unref(node);
    for (AtspiAccessible* node : queue) g_object_unref(node);
    return result;
}

AtspiElementRef AtspiDesktop::focusedObject(AppInfo& app, AXError* err) {
    *err = kAXErrorSuccess;
    // An object announced focused, with no focus-out since, that does not show the state.
    AtspiElementRef announced;
    // Nothing has happened since the last check: the answer stands (the pollers ask ten times a
    // second).
    if (app.focus && app.focusLive && app.checkedAt == stats_.events) return app.focus;
    if (app.focus && app.focusLive) {
        AtspiAccessible* check =
            app.focusContainer ? app.focusContainer->accessible() : app.focus->accessible();
        if (hasState(check, ATSPI_STATE_DEFUNCT)) {
            // Gone with its dialog, perhaps before its focus-out is handled: it has left, and
            // the next focus-in may still come.
            if (app.leftAt <= 0) app.leftAt = monotonicSeconds();
            app.focusLive = false;
            app.searched = false;
        } else if (hasState(check, ATSPI_STATE_FOCUSED) ||
                   (app.focusContainer && hasState(app.focus->accessible(), ATSPI_STATE_FOCUSED))) {
            // GTK's tree view shows the state and its cell may not; Qt's cell does and its
            // tree view never.
            app.checkedAt = stats_.events;
            return app.focus;
        } else {
            announced = app.focus;
            app.focusLive = false;
            app.searched = false;
        }
    }
    // Between a focus-out and the next focus-in nothing shows the state, or a stale object
    // still does (Qt keeps it on its current tab): neither is where the focus is going.
    if (!announced) {
        for (auto it = pending_.rbegin(); it != pending_.rend(); ++it) {
            if (it->kind != EventKind::Focused && it->kind != EventKind::Unfocused) continue;
            if (it->source->busName() != app.bus) continue;
            if (it->kind == EventKind::Focused) return it->source;
            break;
        }
        if (auto left = focusInTransit(app)) return left;
    }
    if (!app.searched) {
        app.searched = true;
        if (auto found = searchFocus(app)) {
            app.focus = found;
            app.focusContainer.reset();
            app.focusLive = true;
            if (!app.toldFocus || !app.toldFocus->equals(*found)) {
                // Found before its focus-in was handled, which would then pass for a repeat:
                // the observers of this moment are told on the next turn, as by the event.
                app.toldFocus = found;
                notify(app.bus, "AXFocusedUIElementChanged", found, found_);
                scheduleFlush();
            }
            return found;
        }
    }
    // A focus-in waiting for the next turn is newer than anything held: GTK shows the focused
    // state only from a later idle, so a search in between finds nothing.
    for (auto it = pending_.rbegin(); it != pending_.rend(); ++it) {
        if (it->kind != EventKind::Focused && it->kind != EventKind::Unfocused) continue;
        if (it->source->busName() != app.bus) continue;
        if (it->kind == EventKind::Focused) return it->source;
        break;
    }
    if (announced) {
        // GtkListBox announces a row focused before the row takes focus, and in between nothing
        // in the window shows the state: the announcement stands until something else does.
        app.focusLive = true;
        return announced;
    }
    if (app.resumeFocus && app.focus && app.activeWindow &&
        !hasState(app.focus->accessible(), ATSPI_STATE_DEFUNCT) &&
        isWithin(app.focus->accessible(), *app.activeWindow)) {
        // GTK tells of a window's activation first and of its focus widget's focus-in on a later
        // turn; the window keeps its focus widget meanwhile. Answering "none" in between moved
        // the magnifier off the window and back at every switch of application.
        app.resumeFocus = false;
        app.focusLive = true;
        return app.focus;
    }
    *err = kAXErrorNoValue;
    return nullptr;
}

bool AtspiDesktop::isWithin(AtspiAccessible* acc, const AtspiElement& window) {
    AtspiAccessible* cur = acc ? static_cast<AtspiAccessible*>(g_object_ref(acc)) : nullptr;
    bool within = false;
    for (int depth = 0; cur && depth < 64 && !within; ++depth) {
        within = window.isSame(busNameOf(cur), pathOf(cur));
        AtspiAccessible* parent = atspi_accessible_get_parent(cur, nullptr);
        g_object_unref(cur);
        cur = parent;
    }
    if (cur) g_object_unref(cur);
    return within;
}

AtspiElementRef AtspiDesktop::systemFocusedObject(AXError* err) {
    AppInfo* app = frontmostApp();
    if (!app) {
        *err = kAXErrorNoValue;
        return nullptr;
    }
    return focusedObject(*app, err);
}

bool AtspiDesktop::repeatedFocusIn(AppInfo& app, const Pending& ev) {
    // GTK sends each focus-in twice, the second from an idle callback: after a focus-out when
    // the focus left the widget for nothing at once. That one is stale.
    if (app.focusLive && app.focus && app.focus->equals(*ev.source) && !app.focusContainer &&
        app.toldFocus && app.toldFocus->equals(*ev.source))
        return true;
    if (app.lastFocusIn && app.lastFocusIn->equals(*ev.source) &&
        ev.at - app.lastFocusInAt < kSecondAnnouncement) {
        ++stats_.staleFocusIns;
        return true;
    }
    return false;
}

bool AtspiDesktop::focusedNow(AtspiAccessible* acc) {
    // libatspi's cache took the state from the events themselves, the stale one included.
    atspi_accessible_clear_cache(acc);
    return hasState(acc, ATSPI_STATE_FOCUSED);
}

void AtspiDesktop::focusStays(AppInfo& app, const Pending& ev, std::vector<Delivery>& out) {
    app.focusLive = true;
    app.searched = true;
    app.leftAt = 0;
    app.answeredInTransit = false;
    app.checkedAt = stats_.events;
    if (app.toldFocus && app.toldFocus->equals(*ev.source)) return;
    app.toldFocus = ev.source;
    newFocus_.push_back(ev.source);
    notify(app.bus, "AXFocusedUIElementChanged", ev.source, out);
}

void AtspiDesktop::focusLeft(AppInfo& app, const AtspiElement& source, double at) {
    const AtspiElementRef& held = app.focusContainer ? app.focusContainer : app.focus;
    if (held && held->equals(source)) {
        app.focusLive = false;
        app.searched = false;
        app.resumeFocus = false;
        app.leftAt = at;
        app.answeredInTransit = false;
    }
}

AtspiElementRef AtspiDesktop::focusInTransit(AppInfo& app) {
    if (app.leftAt <= 0 || !app.focus) return nullptr;
    const double since = monotonicSeconds() - app.leftAt;
    // A focus that went with its dialog still stands until the next focus-in: its last place
    // answers for it (see isKeptFocus), where "no focus" sent the magnifier to nothing.
    if (since >= kFocusTransit) return nullptr;
    ++stats_.transitAnswers;
    app.answeredInTransit = true;
    if (!app.transitTimerSet) {
        app.transitTimerSet = true;
        std::weak_ptr<AtspiDesktop> weak = weak_from_this();
        const std::string bus = app.bus;
        loop_->postAfter(kFocusTransit - since, [weak, bus] {
            if (auto self = weak.lock()) self->endTransit(bus);
        });
    }
    return app.focus;
}

bool AtspiDesktop::isKeptFocus(AtspiAccessible* acc) {
    AppInfo* app = acc ? appForBus(busNameOf(acc)) : nullptr;
    if (!app) return false;
    const std::string bus = busNameOf(acc), path = pathOf(acc);
    // The object or one of its descendants: the window a focus is clipped to loses its place
    // with it.
    auto chainHas = [&](const AtspiElementRef& from) {
        if (!from || !from->accessible()) return false;
        AtspiAccessible* cur = static_cast<AtspiAccessible*>(g_object_ref(from->accessible()));
        bool found = false;
        for (int depth = 0; cur && depth < 64 && !found; ++depth) {
            found = pathOf(cur) == path && busNameOf(cur) == bus;
            AtspiAccessible* parent = atspi_accessible_get_parent(cur, nullptr);
            g_object_unref(cur);
            cur = parent;
        }
        if (cur) g_object_unref(cur);
        return found;
    };
    if (chainHas(app->focus)) return true;
    const double now = monotonicSeconds();
    for (const auto& [old, at] : app->replaced)
        if (now - at < kFocusTransit && chainHas(old)) return true;
    return false;
}

void AtspiDesktop::endTransit(const std::string& bus) {
    AppInfo* app = appForBus(bus);
    if (!app) return;
    app->transitTimerSet = false;
    if (app->leftAt <= 0) return;  // a focus-in came
    const double since = monotonicSeconds() - app->leftAt;
    if (since < kFocusTransit) {
        // Another focus-out since the timer was set: wait for its own end.
        app->transitTimerSet = true;
        std::weak_ptr<AtspiDesktop> weak = weak_from_this();
        loop_->postAfter(kFocusTransit - since, [weak, bus] {
            if (auto self = weak.lock()) self->endTransit(bus);
        });
        return;
    }
    app->leftAt = 0;
    if (!app->answeredInTransit || app->focusLive) return;
    app->answeredInTransit = false;
    notify(bus, "AXFocusedUIElementChanged", app->focus, found_);
    scheduleFlush();
}

bool AtspiDesktop::focusSettled(AppInfo& app) {
    if (app.focusLive) return true;
    return app.resumeFocus && app.focus && app.activeWindow &&
           isWithin(app.focus->accessible(), *app.activeWindow);
}

}  // namespace orv::linuxdesk
