// Which attributes an object has, which can be set, and setting them.

#include <atspi/atspi.h>

#include <climits>
#include <cmath>

#include "platform/linux/AtspiAccessibility.h"
#include "platform/linux/AtspiCalls.h"
#include "platform/linux/LinuxRoles.h"

namespace orv::linuxdesk {

using namespace detail;

AXError AtspiAccessibility::copyAttributeNames(const AXUIElementRef& element,
                                               std::vector<std::string>* out) {
    ORV_ON_MAIN(copyAttributeNames(element, out));
    out->clear();
    const AtspiElement* el = asAtspi(element);
    if (!el) return kAXErrorIllegalArgument;
    switch (el->kind()) {
        case AtspiElement::Kind::SystemWide:
            *out = {"AXRole", "AXFocusedUIElement", "AXFocusedApplication"};
            return kAXErrorSuccess;
        case AtspiElement::Kind::Missing:
            return kAXErrorInvalidUIElement;
        case AtspiElement::Kind::Application:
            *out = {"AXRole",      "AXRoleDescription",  "AXTitle",         "AXChildren",
                    "AXWindows",   "AXFocusedUIElement", "AXFocusedWindow", "AXMainWindow",
                    "AXFrontmost", "AXEnabled"};
            return kAXErrorSuccess;
        case AtspiElement::Kind::TextRun:
            *out = {"AXRole", "AXParent", "AXPosition", "AXSize", "AXFrame", "AXValue",
                    "AXTopLevelUIElement", "AXWindow"};
            return kAXErrorSuccess;
        case AtspiElement::Kind::Object:
            break;
    }
    AtspiAccessible* acc = el->accessible();
    if (appGone(acc)) return kAXErrorInvalidUIElement;
    int role = 0;
    if (AXError e = roleOf(acc, &role, nullptr)) return e;
    *out = {"AXRole",    "AXSubrole",    "AXRoleDescription",   "AXTitle",  "AXDescription",
            "AXHelp",    "AXIdentifier", "AXPosition",          "AXSize",   "AXFrame",
            "AXParent",  "AXChildren",   "AXTopLevelUIElement", "AXWindow", "AXEnabled",
            "AXFocused", "AXSelected"};
    if (isWindowRole(role)) out->insert(out->end(), {"AXFullScreen", "AXMinimized"});
    if (isToggleRole(role) || isRangeRole(role) || isTextRole(role) || isStaticTextRole(role) ||
        role == ATSPI_ROLE_COMBO_BOX)
        out->push_back("AXValue");
    if (isTextRole(role))
        out->insert(out->end(), {"AXNumberOfCharacters", "AXSelectedTextRange", "AXSelectedText"});
    return kAXErrorSuccess;
}

AXError AtspiAccessibility::isAttributeSettable(const AXUIElementRef& element,
                                                const std::string& attribute, bool* settable) {
    ORV_ON_MAIN(isAttributeSettable(element, attribute, settable));
    *settable = false;
    const AtspiElement* el = asAtspi(element);
    if (!el) return kAXErrorIllegalArgument;
    if (el->kind() == AtspiElement::Kind::Missing) return kAXErrorInvalidUIElement;
    if (el->kind() != AtspiElement::Kind::Object) return kAXErrorSuccess;
    AtspiAccessible* acc = el->accessible();
    if (appGone(acc)) return kAXErrorInvalidUIElement;
    CallClock clock;
    AtspiStateSet* set = statesOf(acc);
    if (!set)
        return desktop_->looksTimedOut(clock) ? kAXErrorCannotComplete : kAXErrorInvalidUIElement;
    if (attribute == "AXFocused") {
        *settable = atspi_state_set_contains(set, ATSPI_STATE_FOCUSABLE);
    } else if (attribute == "AXValue") {
        int role = 0;
        if (roleOf(acc, &role, nullptr) == kAXErrorSuccess) {
            *settable = (isTextRole(role) && atspi_state_set_contains(set, ATSPI_STATE_EDITABLE)) ||
                        isRangeRole(role);
        }
    } else if (attribute == "AXSelectedTextRange") {
        GRef<AtspiText> text(atspi_accessible_get_text_iface(acc));
        *settable = static_cast<bool>(text);
    }
    g_object_unref(set);
    return kAXErrorSuccess;
}

AXError AtspiAccessibility::setAttributeValue(const AXUIElementRef& element,
                                              const std::string& attribute, const AXValue& value) {
    ORV_ON_MAIN(setAttributeValue(element, attribute, value));
    const AtspiElement* el = asAtspi(element);
    if (!el) return kAXErrorIllegalArgument;
    if (el->kind() == AtspiElement::Kind::Missing) return kAXErrorInvalidUIElement;
    if (el->kind() != AtspiElement::Kind::Object) return kAXErrorAttributeUnsupported;
    AtspiAccessible* acc = el->accessible();
    if (appGone(acc)) return kAXErrorInvalidUIElement;
    CallClock clock;
    Err err;
    if (attribute == "AXFocused") {
        const bool* on = value.get<bool>();
        if (!on) return kAXErrorIllegalArgument;
        if (!*on) return kAXErrorSuccess;
        GRef<AtspiComponent> comp(atspi_accessible_get_component_iface(acc));
        if (!comp) return kAXErrorAttributeUnsupported;
        if (!atspi_component_grab_focus(comp.p, &err))
            return desktop_->errorFor(err.e, clock, kAXErrorFailure);
        return kAXErrorSuccess;
    }
    if (attribute == "AXValue") {
        if (const std::string* s = value.get<std::string>()) {
            GRef<AtspiEditableText> edit(atspi_accessible_get_editable_text_iface(acc));
            if (!edit) return kAXErrorAttributeUnsupported;
            if (!atspi_editable_text_set_text_contents(edit.p, s->c_str(), &err))
                return desktop_->errorFor(err.e, clock, kAXErrorFailure);
            return kAXErrorSuccess;
        }
        double number = 0;
        if (const double* d = value.get<double>())
            number = *d;
        else if (const int64_t* i = value.get<int64_t>())
            number = static_cast<double>(*i);
        else
            return kAXErrorIllegalArgument;
        GRef<AtspiValue> val(atspi_accessible_get_value_iface(acc));
        if (!val) return kAXErrorAttributeUnsupported;
        if (!atspi_value_set_current_value(val.p, number, &err))
            return desktop_->errorFor(err.e, clock, kAXErrorFailure);
        return kAXErrorSuccess;
    }
    if (attribute == "AXSelectedTextRange") {
        const Range* r = value.get<Range>();
        if (!r || r->location < 0 || r->length < 0 || r->location + r->length > INT_MAX)
            return kAXErrorIllegalArgument;
        GRef<AtspiText> text(atspi_accessible_get_text_iface(acc));
        if (!text) return kAXErrorAttributeUnsupported;
        const int start = static_cast<int>(r->location);
        const int end = static_cast<int>(r->location + r->length);
        bool done;
        if (r->length == 0) {
            done = atspi_text_set_caret_offset(text.p, start, &err);
        } else if (atspi_text_get_n_selections(text.p, nullptr) > 0) {
            done = atspi_text_set_selection(text.p, 0, start, end, &err);
        } else {
            done = atspi_text_add_selection(text.p, start, end, &err);
        }
        if (!done) return desktop_->errorFor(err.e, clock, kAXErrorFailure);
        return kAXErrorSuccess;
    }
    return kAXErrorAttributeUnsupported;
}

}  // namespace orv::linuxdesk
