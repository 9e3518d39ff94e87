#include "platform/linux/AtspiAccessibility.h"

#include <atspi/atspi.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <unordered_map>

#include "platform/linux/AtspiCalls.h"
#include "platform/linux/LinuxRoles.h"

namespace orv::linuxdesk {

using namespace detail;

namespace {

constexpr const char* kRegistryBus = "org.a11y.atspi.Registry";

enum class Attr {
    Role,
    Subrole,
    RoleDescription,
    Title,
    Description,
    Value,
    Identifier,
    Position,
    Size,
    Frame,
    Parent,
    Children,
    Windows,
    FocusedUIElement,
    FocusedWindow,
    MainWindow,
    TopLevelUIElement,
    Window,
    FullScreen,
    Enabled,
    Focused,
    Selected,
    Frontmost,
    Minimized,
    SelectedChildren,
    FocusedApplication,
};

const std::unordered_map<std::string, Attr>& attributeTable() {
    static const std::unordered_map<std::string, Attr> table = {
        {"AXRole", Attr::Role},
        {"AXSubrole", Attr::Subrole},
        {"AXRoleDescription", Attr::RoleDescription},
        {"AXTitle", Attr::Title},
        {"AXDescription", Attr::Description},
        {"AXValue", Attr::Value},
        {"AXIdentifier", Attr::Identifier},
        {"AXPosition", Attr::Position},
        {"AXSize", Attr::Size},
        {"AXFrame", Attr::Frame},
        {"AXParent", Attr::Parent},
        {"AXChildren", Attr::Children},
        {"AXWindows", Attr::Windows},
        {"AXFocusedUIElement", Attr::FocusedUIElement},
        {"AXFocusedWindow", Attr::FocusedWindow},
        {"AXMainWindow", Attr::MainWindow},
        {"AXTopLevelUIElement", Attr::TopLevelUIElement},
        {"AXWindow", Attr::Window},
        {"AXFullScreen", Attr::FullScreen},
        {"AXEnabled", Attr::Enabled},
        {"AXFocused", Attr::Focused},
        {"AXSelected", Attr::Selected},
        {"AXFrontmost", Attr::Frontmost},
        {"AXMinimized", Attr::Minimized},
        {"AXSelectedChildren", Attr::SelectedChildren},
        {"AXFocusedApplication", Attr::FocusedApplication},
    };
    return table;
}


}  // namespace


AtspiAccessibility::AtspiAccessibility(std::shared_ptr<AtspiDesktop> desktop)
    : desktop_(std::move(desktop)), systemWide_(AtspiElement::systemWide()) {
    // A new focus's readers will ask where it, its container and its window are: the requests
    // leave with its focus-in and are awaited once, just before the readers run.
    desktop_->focusAnnounced = [this](AtspiAccessible* focus) {
        turn_.request(focus, callBudgetMs());
    };
    desktop_->geometryChanged = [this](const std::string& bus) { turn_.forgetSteady(bus); };
    turn_.hearsMoves = [this](AtspiAccessible* acc) {
        return desktop_->hearsMoves(busNameOf(acc));
    };
    desktop_->prefetchFocus = [this](const std::vector<AtspiElementRef>& focus) {
        if (focus.empty()) return turn_.cancel();
        for (const auto& f : focus)
            if (f && f->accessible()) turn_.request(f->accessible(), callBudgetMs());
        turn_.collect();
    };
    desktop_->toldExtents = [this](AtspiAccessible* acc, Rect* x11) {
        return turn_.find(acc, x11);
    };
    desktop_->unplaced = [this](AtspiAccessible* acc) {
        if (turn_.unplaced(acc)) return true;
        Rect r;
        if (!turn_.find(acc, &r)) return false;  // no answer: nothing to wait for
        // GTK 4 answers 0x0 for an item of a popover not laid out yet, and the popover has no
        // surface on the X server to place it on.
        return (r.size.width <= 0 && r.size.height <= 0) || !surfaceOffset(acc);
    };
}

AtspiAccessibility::~AtspiAccessibility() {
    desktop_->focusAnnounced = nullptr;
    desktop_->geometryChanged = nullptr;
    desktop_->prefetchFocus = nullptr;
    desktop_->toldExtents = nullptr;
    desktop_->unplaced = nullptr;
}

int AtspiAccessibility::callBudgetMs() const {
    return std::max(1, static_cast<int>(std::lround(desktop_->callBudget() * 1000)));
}

AXUIElementRef AtspiAccessibility::createSystemWide() {
    return systemWide_;
}

AXUIElementRef AtspiAccessibility::createApplication(pid_t pid) {
    if (!desktop_->loop().isMainThread()) {
        AXUIElementRef made;
        desktop_->loop().postAndWait([&] { made = createApplication(pid); });
        return made;
    }
    if (AppInfo* app = desktop_->appForPid(pid)) return app->root;
    return AtspiElement::missing(pid);
}

AXError AtspiAccessibility::getPid(const AXUIElementRef& element, pid_t* out) {
    ORV_ON_MAIN(getPid(element, out));
    *out = 0;
    const AtspiElement* el = asAtspi(element);
    if (!el) return kAXErrorIllegalArgument;
    switch (el->kind()) {
        case AtspiElement::Kind::SystemWide:
            return kAXErrorIllegalArgument;
        case AtspiElement::Kind::Missing:
            *out = el->missingPid();
            return kAXErrorSuccess;
        default:
            if (AppInfo* app = desktop_->appOf(*el)) {
                *out = app->pid;
                return app->pid > 0 ? kAXErrorSuccess : kAXErrorCannotComplete;
            }
            return kAXErrorInvalidUIElement;
    }
}

AXError AtspiAccessibility::setMessagingTimeout(const AXUIElementRef& element, float seconds) {
    ORV_ON_MAIN(setMessagingTimeout(element, seconds));
    const AtspiElement* el = asAtspi(element);
    if (!el || seconds < 0) return kAXErrorIllegalArgument;
    // libatspi has one timeout for the whole process: the system-wide element's sets it, as the
    // system-wide element's does for every element on the platform the seam is shaped after.
    if (el->kind() == AtspiElement::Kind::SystemWide) desktop_->setMessagingTimeout(seconds);
    return kAXErrorSuccess;
}

AXError AtspiAccessibility::createObserver(pid_t pid, AXObserverCallback callback,
                                           AXObserverRef* out) {
    ORV_ON_MAIN(createObserver(pid, callback, out));
    if (pid <= 0 || !callback) return kAXErrorIllegalArgument;
    auto observer = std::make_shared<AtspiObserver>(desktop_, pid, std::move(callback));
    desktop_->addObserver(observer);
    *out = observer;
    return kAXErrorSuccess;
}

bool AtspiAccessibility::isProcessTrusted(bool) {
    // Nothing to grant on this desktop: reaching the registry is the permission.
    return true;
}

// --- Reads ------------------------------------------------------------------------------------

AXError AtspiAccessibility::copyAttributeValue(const AXUIElementRef& element,
                                               const std::string& attribute, AXValue* out) {
    ORV_ON_MAIN(copyAttributeValue(element, attribute, out));
    *out = AXValue();
    const AtspiElement* el = asAtspi(element);
    if (!el) return kAXErrorIllegalArgument;
    switch (el->kind()) {
        case AtspiElement::Kind::SystemWide:
            return readSystemWide(attribute, out);
        case AtspiElement::Kind::Missing:
            return kAXErrorInvalidUIElement;
        case AtspiElement::Kind::TextRun:
            return readTextRun(*el, attribute, out);
        default: {
            const AXError err = readObject(*el, attribute, out);
            // What was kept of an application that stopped answering is not vouched for.
            if (err == kAXErrorCannotComplete && el->accessible())
                turn_.noAnswerFrom(el->accessible());
            return err;
        }
    }
}

AXError AtspiAccessibility::readSystemWide(const std::string& attribute, AXValue* out) {
    auto it = attributeTable().find(attribute);
    if (it == attributeTable().end()) return kAXErrorAttributeUnsupported;
    switch (it->second) {
        case Attr::Role:
            *out = AXValue("AXSystemWide");
            return kAXErrorSuccess;
        case Attr::FocusedUIElement: {
            AXError err = kAXErrorSuccess;
            auto focus = desktop_->systemFocusedObject(&err);
            if (!focus) return err;
            *out = AXValue(AXUIElementRef(focus));
            return kAXErrorSuccess;
        }
        case Attr::FocusedApplication: {
            AppInfo* app = desktop_->frontmostApp();
            if (!app) return kAXErrorNoValue;
            *out = AXValue(AXUIElementRef(app->root));
            return kAXErrorSuccess;
        }
        default:
            return kAXErrorAttributeUnsupported;
    }
}

AXError AtspiAccessibility::roleOf(AtspiAccessible* acc, int* role, uint32_t* hints) {
    CallClock clock;
    Err err;
    const AtspiRole r = atspi_accessible_get_role(acc, &err);
    if (err.e || r == ATSPI_ROLE_INVALID) {
        AXError code = desktop_->errorFor(err.e, clock, kAXErrorNoValue);
        if (code != kAXErrorSuccess) return code;
    }
    *role = r;
    if (hints) {
        *hints = kHintNone;
        if (isTextRole(r) || r == ATSPI_ROLE_COMBO_BOX || r == ATSPI_ROLE_PARAGRAPH ||
            r == ATSPI_ROLE_HEADING) {
            if (AtspiStateSet* set = statesOf(acc)) {
                if (atspi_state_set_contains(set, ATSPI_STATE_MULTI_LINE)) *hints |= kHintMultiLine;
                if (atspi_state_set_contains(set, ATSPI_STATE_EDITABLE)) *hints |= kHintEditable;
                g_object_unref(set);
            }
        }
    }
    return kAXErrorSuccess;
}

AXError AtspiAccessibility::roleDescription(AtspiAccessible* acc, const std::string& bus,
                                            AXValue* out) {
    int role = 0;
    if (AXError e = roleOf(acc, &role, nullptr)) return e;
    auto key = std::make_pair(bus, role);
    auto it = roleNames_.find(key);
    if (it == roleNames_.end()) {
        CallClock clock;
        Err err;
        GStr name{atspi_accessible_get_localized_role_name(acc, &err)};
        if (err.e || !name.s || !*name.s) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
        it = roleNames_.emplace(key, name.str()).first;
    }
    *out = AXValue(it->second);
    return kAXErrorSuccess;
}

AXError AtspiAccessibility::children(AtspiAccessible* acc, AXArray* out, bool windowsOnly) {
    CallClock clock;
    Err err;
    const int n = atspi_accessible_get_child_count(acc, &err);
    if (n < 0 || err.e) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
    out->reserve(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        Err childErr;
        AtspiAccessible* c = atspi_accessible_get_child_at_index(acc, i, &childErr);
        if (!c) {
            // A child that vanished in between is skipped; a stuck application ends the read.
            if (childErr.e || desktop_->looksTimedOut(clock)) {
                AXError e = desktop_->errorFor(childErr.e, clock, kAXErrorSuccess);
                if (e == kAXErrorCannotComplete || e == kAXErrorInvalidUIElement) return e;
            }
            continue;
        }
        auto child = AtspiElement::adopt(c);
        if (windowsOnly) {
            Err roleErr;
            if (!isWindowRole(atspi_accessible_get_role(c, &roleErr))) continue;
        }
        out->push_back(AXValue(AXUIElementRef(child)));
    }
    return kAXErrorSuccess;
}

AXError AtspiAccessibility::topLevel(const AtspiElement& el, AXValue* out) {
    if (el.kind() == AtspiElement::Kind::Application) return kAXErrorNoValue;
    AtspiAccessible* cur = static_cast<AtspiAccessible*>(g_object_ref(el.accessible()));
    CallClock clock;
    for (int depth = 0; depth < kMaxDepth; ++depth) {
        Err err;
        AtspiAccessible* parent = atspi_accessible_get_parent(cur, &err);
        if (!parent) {
            g_object_unref(cur);
            return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
        }
        const bool parentIsApp = pathOf(parent) == kRootPath || busNameOf(parent) == kRegistryBus;
        if (parentIsApp) {
            g_object_unref(parent);
            *out = AXValue(AXUIElementRef(AtspiElement::adopt(cur)));
            return kAXErrorSuccess;
        }
        g_object_unref(cur);
        cur = parent;
    }
    g_object_unref(cur);
    return kAXErrorNoValue;
}

AXError AtspiAccessibility::value(AtspiAccessible* acc, int role, AXValue* out) {
    CallClock clock;
    if (isToggleRole(role)) {
        AtspiStateSet* set = statesOf(acc);
        if (!set) return desktop_->looksTimedOut(clock) ? kAXErrorCannotComplete : kAXErrorNoValue;
        const AtspiStateType on =
            role == ATSPI_ROLE_PAGE_TAB ? ATSPI_STATE_SELECTED : ATSPI_STATE_CHECKED;
        int v = atspi_state_set_contains(set, on) ? 1 : 0;
        if (atspi_state_set_contains(set, ATSPI_STATE_INDETERMINATE)) v = 2;
        g_object_unref(set);
        *out = AXValue(v);
        return kAXErrorSuccess;
    }
    if (isRangeRole(role)) {
        GRef<AtspiValue> val(atspi_accessible_get_value_iface(acc));
        if (val) {
            Err err;
            const double v = atspi_value_get_current_value(val.p, &err);
            if (err.e) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
            *out = AXValue(v);
            return kAXErrorSuccess;
        }
    }
    if (isTextRole(role) || isRangeRole(role)) {
        GRef<AtspiText> text(atspi_accessible_get_text_iface(acc));
        if (!text)
            return desktop_->looksTimedOut(clock) ? kAXErrorCannotComplete
                                                  : kAXErrorAttributeUnsupported;
        Err err;
        GStr s{atspi_text_get_text(text.p, 0, -1, &err)};
        if (err.e || !s.s) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
        // An empty text is a value; an empty answer after the whole timeout is not.
        if (!*s.s && desktop_->looksTimedOut(clock)) return kAXErrorCannotComplete;
        *out = AXValue(s.str());
        return kAXErrorSuccess;
    }
    if (isStaticTextRole(role) || role == ATSPI_ROLE_COMBO_BOX) {
        Err err;
        GStr name{atspi_accessible_get_name(acc, &err)};
        if (err.e) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
        if (name.s && *name.s) {
            *out = AXValue(name.str());
            return kAXErrorSuccess;
        }
        if (GRef<AtspiText> text(atspi_accessible_get_text_iface(acc)); text) {
            GStr s{atspi_text_get_text(text.p, 0, -1, nullptr)};
            if (s.s && *s.s) {
                *out = AXValue(s.str());
                return kAXErrorSuccess;
            }
        }
        if (role == ATSPI_ROLE_LIST_ITEM && contentText(acc, out)) return kAXErrorSuccess;
        return desktop_->looksTimedOut(clock) ? kAXErrorCannotComplete : kAXErrorNoValue;
    }
    return kAXErrorAttributeUnsupported;
}

AXError AtspiAccessibility::readObject(const AtspiElement& el, const std::string& attribute,
                                       AXValue* out) {
    AtspiAccessible* acc = el.accessible();
    if (isTextAttribute(attribute)) {
        if (appGone(acc)) return kAXErrorInvalidUIElement;
        return readText(acc, attribute, out);
    }
    if (auto web = readWeb(el, attribute, out)) return *web;
    if (auto described = readDescribed(el, attribute, out)) return *described;
    auto it = attributeTable().find(attribute);
    if (it == attributeTable().end()) return kAXErrorAttributeUnsupported;
    if (appGone(acc)) return kAXErrorInvalidUIElement;
    const bool isApp = el.kind() == AtspiElement::Kind::Application;

    auto stateAttr = [&](AtspiStateType state) -> AXError {
        CallClock clock;
        AtspiStateSet* set = statesOf(acc);
        if (!set)
            return desktop_->looksTimedOut(clock) ? kAXErrorCannotComplete
                                                  : kAXErrorInvalidUIElement;
        if (atspi_state_set_contains(set, ATSPI_STATE_DEFUNCT)) {
            g_object_unref(set);
            return kAXErrorInvalidUIElement;
        }
        *out = AXValue(static_cast<bool>(atspi_state_set_contains(set, state)));
        g_object_unref(set);
        return kAXErrorSuccess;
    };
    auto appInfo = [&]() -> AppInfo* { return desktop_->appOf(el); };

    switch (it->second) {
        case Attr::Role:
        case Attr::Subrole: {
            int role = 0;
            uint32_t hints = 0;
            if (AXError e = roleOf(acc, &role, &hints)) return e;
            AXRoleNames names = axRoleFor(role, hints);
            if (it->second == Attr::Role) {
                *out = AXValue(names.role);
                return kAXErrorSuccess;
            }
            if (!names.subrole) return kAXErrorNoValue;
            *out = AXValue(names.subrole);
            return kAXErrorSuccess;
        }
        case Attr::RoleDescription:
            return roleDescription(acc, el.busName(), out);
        case Attr::Title: {
            if (!isApp) {
                int role = 0;
                if (AXError e = roleOf(acc, &role, nullptr)) return e;
                if (isStaticTextRole(role)) return kAXErrorNoValue;  // a label's text is its value
            }
            CallClock clock;
            Err err;
            GStr name{atspi_accessible_get_name(acc, &err)};
            if (err.e || !name.s) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
            if (!*name.s) return desktop_->errorFor(nullptr, clock, kAXErrorNoValue);
            *out = AXValue(name.str());
            return kAXErrorSuccess;
        }
        case Attr::Description: {
            CallClock clock;
            Err err;
            GStr d{atspi_accessible_get_description(acc, &err)};
            if (err.e || !d.s || !*d.s) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
            // Beside a name of its own the description is help (a tooltip): AXHelp answers it,
            // so that a button is not said as its tooltip.
            GStr name{atspi_accessible_get_name(acc, &err)};
            if (err.e) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
            if (name.s && *name.s && std::strcmp(name.s, d.s) != 0) return kAXErrorNoValue;
            *out = AXValue(d.str());
            return kAXErrorSuccess;
        }
        case Attr::Identifier: {
            CallClock clock;
            Err err;
            GStr id{atspi_accessible_get_accessible_id(acc, &err)};
            if (err.e || !id.s || !*id.s) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
            *out = AXValue(id.str());
            return kAXErrorSuccess;
        }
        case Attr::Value: {
            if (isApp) return kAXErrorAttributeUnsupported;
            int role = 0;
            if (AXError e = roleOf(acc, &role, nullptr)) return e;
            return value(acc, role, out);
        }
        case Attr::Position:
        case Attr::Size:
        case Attr::Frame: {
            if (isApp) return kAXErrorAttributeUnsupported;
            Rect r;
            if (AXError e = extents(acc, &r)) return e;
            if (it->second == Attr::Position)
                *out = AXValue(r.origin);
            else if (it->second == Attr::Size)
                *out = AXValue(r.size);
            else
                *out = AXValue(r);
            return kAXErrorSuccess;
        }
        case Attr::Parent: {
            if (isApp) return kAXErrorAttributeUnsupported;
            CallClock clock;
            Err err;
            AtspiAccessible* parent = atspi_accessible_get_parent(acc, &err);
            if (!parent) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
            auto p = AtspiElement::adopt(parent);
            if (p->busName() == kRegistryBus) return kAXErrorNoValue;
            *out = AXValue(AXUIElementRef(p));
            return kAXErrorSuccess;
        }
        case Attr::Children:
        case Attr::Windows: {
            if (it->second == Attr::Windows && !isApp) return kAXErrorAttributeUnsupported;
            AXArray items;
            if (AXError e = children(acc, &items, it->second == Attr::Windows)) return e;
            *out = AXValue(std::move(items));
            return kAXErrorSuccess;
        }
        case Attr::FocusedUIElement: {
            if (!isApp) return kAXErrorAttributeUnsupported;
            AppInfo* app = appInfo();
            if (!app) return kAXErrorInvalidUIElement;
            AXError err = kAXErrorSuccess;
            auto focus = desktop_->focusedObject(*app, &err);
            if (!focus) return err;
            *out = AXValue(AXUIElementRef(focus));
            return kAXErrorSuccess;
        }
        case Attr::FocusedWindow:
        case Attr::MainWindow: {
            if (!isApp) return kAXErrorAttributeUnsupported;
            AppInfo* app = appInfo();
            if (!app) return kAXErrorInvalidUIElement;
            AXError err = kAXErrorSuccess;
            if (auto w = desktop_->activeWindow(*app, &err)) {
                *out = AXValue(AXUIElementRef(w));
                return kAXErrorSuccess;
            }
            if (it->second == Attr::FocusedWindow || err != kAXErrorNoValue) return err;
            // No active window: the first one on screen is the main one.
            AXArray windows;
            if (AXError e = children(acc, &windows, true)) return e;
            for (const auto& w : windows) {
                auto* we = asAtspi(*w.get<AXUIElementRef>());
                AtspiStateSet* set = statesOf(we->accessible());
                const bool showing = set && atspi_state_set_contains(set, ATSPI_STATE_SHOWING);
                if (set) g_object_unref(set);
                if (showing) {
                    *out = w;
                    return kAXErrorSuccess;
                }
            }
            return kAXErrorNoValue;
        }
        case Attr::TopLevelUIElement:
        case Attr::Window:
            return topLevel(el, out);
        case Attr::FullScreen: {
            if (isApp) return kAXErrorAttributeUnsupported;
            int role = 0;
            if (AXError e = roleOf(acc, &role, nullptr)) return e;
            if (!isWindowRole(role)) return kAXErrorAttributeUnsupported;
            Rect r;
            if (AXError e = extents(acc, &r)) return e;
            // AT-SPI does not say; a window that covers a whole monitor exactly is full screen.
            const Point o = desktop_->screenOrigin();
            const Rect screen(r.origin.x + o.x, r.origin.y + o.y, r.size.width, r.size.height);
            bool full = false;
            if (desktop_->monitorRects)
                for (const Rect& m : desktop_->monitorRects()) full = full || m == screen;
            *out = AXValue(full);
            return kAXErrorSuccess;
        }
        case Attr::Enabled:
            if (isApp) {
                *out = AXValue(true);
                return kAXErrorSuccess;
            }
            return stateAttr(ATSPI_STATE_ENABLED);
        case Attr::Focused:
            return stateAttr(ATSPI_STATE_FOCUSED);
        case Attr::Selected:
            return stateAttr(ATSPI_STATE_SELECTED);
        case Attr::Minimized:
            return stateAttr(ATSPI_STATE_ICONIFIED);
        case Attr::Frontmost: {
            if (!isApp) return kAXErrorAttributeUnsupported;
            AppInfo* app = appInfo();
            if (!app) return kAXErrorInvalidUIElement;
            *out = AXValue(desktop_->frontmostPid() == app->pid);
            return kAXErrorSuccess;
        }
        case Attr::SelectedChildren: {
            CallClock clock;
            GRef<AtspiSelection> sel(atspi_accessible_get_selection_iface(acc));
            if (!sel)
                return desktop_->looksTimedOut(clock) ? kAXErrorCannotComplete
                                                      : kAXErrorAttributeUnsupported;
            Err err;
            const int n = atspi_selection_get_n_selected_children(sel.p, &err);
            if (n < 0 || err.e) return desktop_->errorFor(err.e, clock, kAXErrorNoValue);
            AXArray items;
            for (int i = 0; i < n; ++i)
                if (AtspiAccessible* c = atspi_selection_get_selected_child(sel.p, i, nullptr))
                    items.push_back(AXValue(AXUIElementRef(AtspiElement::adopt(c))));
            *out = AXValue(std::move(items));
            return kAXErrorSuccess;
        }
        case Attr::FocusedApplication:
            return kAXErrorAttributeUnsupported;
    }
    return kAXErrorAttributeUnsupported;
}

}  // namespace orv::linuxdesk
