#include "accessibility/element/ORVAXElement.h"

#include <any>

#include "Common/OrvLogger.h"
#include "accessibility/element/UIElementUtilities.h"
#include "platform/Platform.h"

namespace orv {

namespace {

// A parent chain that never ends (an application answering its own child as parent) must not
// hang the agent; no real tree comes near this depth.
constexpr int kMaxAncestors = 512;

constexpr int kEnhancedUserInterfaceMaxAttempt = 50;

const std::string kAXParent = "AXParent";
const std::string kAXRole = "AXRole";
const std::string kAXTitle = "AXTitle";

bool isRole(const std::optional<std::string>& actual, const std::string& wanted) {
    return actual && *actual == wanted;
}

// The log formatter would print an enum as a boolean.
int code(AXError error) {
    return static_cast<int>(error);
}

// A nil string prints as "(null)", as the log and path formats expect.
FormatArg nilable(const std::optional<std::string>& s) {
    return s ? FormatArg(*s) : FormatArg(nullptr);
}

}  // namespace

// --- Creation ---

ORVAXElement::ORVAXElement(Passkey, AXUIElementRef element) : element_(std::move(element)) {}

ORVAXElement::~ORVAXElement() {
    path_.reset();
    if (observer_) {
        observer_->detachFromMainLoop();
        observer_.reset();
    }
    // Moved out first: a subscriber destroyed with its block must find no handlers left to
    // unsubscribe from.
    auto handlers = std::move(observerHandlers_);
    observerHandlers_.clear();
    handlers.clear();
}

ORVAXElementRef ORVAXElement::newForElement(AXUIElementRef element) {
    if (!element) return nullptr;
    return std::make_shared<ORVAXElement>(Passkey{}, std::move(element));
}

ORVAXElementRef ORVAXElement::newForApplication(pid_t pid) {
    return newForElement(axAPI().createApplication(pid));
}

ORVAXElementRef ORVAXElement::newForApplicationWithBundleIdentifier(
    const std::string& bundleIdentifier) {
    const auto apps =
        platform().workspace->runningApplicationsWithBundleIdentifier(bundleIdentifier);
    if (apps.empty()) return nullptr;
    return newForApplication(apps.front().pid);
}

ORVAXElementRef ORVAXElement::newAtPosition(const Point& point) {
    const Point carbon = UIElementUtilities::carbonScreenPointFromCocoaScreenPoint(point);
    auto wide = systemWide();
    if (!wide) return nullptr;
    AXUIElementRef found;
    const AXError err = axAPI().copyElementAtPosition(wide->element(), static_cast<float>(carbon.x),
                                                      static_cast<float>(carbon.y), &found);
    if (err != kAXErrorSuccess) return nullptr;
    return newForElement(std::move(found));
}

ORVAXElementRef ORVAXElement::systemWide() {
    // One per installed platform: tests install fresh desktops, and an element of a desktop that
    // is gone means nothing to the next one.
    static std::weak_ptr<Platform> madeFor;
    static ORVAXElementRef shared;
    auto current = installedPlatform();
    if (!shared || madeFor.expired() || madeFor.lock() != current) {
        shared = newForElement(axAPI().createSystemWide());
        madeFor = current;
        if (shared) shared->setMessagingTimeout(0.25f);
    }
    return shared;
}

void ORVAXElement::setElement(AXUIElementRef element) {
    if (element) element_ = std::move(element);
}

bool ORVAXElement::isEqual(const ORVAXElement* other) const {
    if (other == this) return true;
    if (!other) return false;
    return axEqual(element_, other->element_);
}

// --- Low-level typed reads ---

ORVAXElementRef ORVAXElement::getElementAttribute(const std::string& attribute) {
    AXValue value;
    const AXError err = axAPI().copyAttributeValue(element_, attribute, &value);
    if (err != kAXErrorSuccess) {
        if (err != kAXErrorNoValue && err != kAXErrorAttributeUnsupported)
            OrvLogger::addWarningMessageWithFormat("getElementAttribute:%@ failed - %d", attribute,
                                                   code(err));
        return nullptr;
    }
    const auto* ref = value.get<AXUIElementRef>();
    return ref ? newForElement(*ref) : nullptr;
}

std::optional<AXValue> ORVAXElement::getValueAttribute(const std::string& attribute) {
    AXValue value;
    const AXError err = axAPI().copyAttributeValue(element_, attribute, &value);
    if (err != kAXErrorSuccess) {
        OrvLogger::addWarningMessageWithFormat("getValueAttribute:%@ failed - %d", attribute,
                                               code(err));
        return std::nullopt;
    }
    if (value.isNone()) return std::nullopt;
    return value;
}

std::optional<AXValue> ORVAXElement::getValueAttribute(const std::string& attribute,
                                                       const AXValue& parameter) {
    AXValue value;
    const AXError err =
        axAPI().copyParameterizedAttributeValue(element_, attribute, parameter, &value);
    if (err != kAXErrorSuccess) {
        OrvLogger::addWarningMessageWithFormat("getValueAttribute:%@ forParameter:%@ failed - %d",
                                               attribute, parameter, code(err));
        return std::nullopt;
    }
    if (value.isNone()) return std::nullopt;
    return value;
}

std::optional<AXValue> ORVAXElement::copyStringAttributeValue(const std::string& attribute) {
    AXValue value;
    const AXError err = axAPI().copyAttributeValue(element_, attribute, &value);
    if (err != kAXErrorSuccess) {
        if (err != kAXErrorNoValue && err != kAXErrorAttributeUnsupported)
            OrvLogger::addWarningMessageWithFormat("getStringAttribute:%@ failed - %d", attribute,
                                                   code(err));
        return std::nullopt;
    }
    if (value.isNone()) return std::nullopt;
    return value;
}

std::optional<std::string> ORVAXElement::getStringAttribute(const std::string& attribute) {
    auto value = copyStringAttributeValue(attribute);
    if (!value) return std::nullopt;
    if (const auto* s = value->get<std::string>()) return *s;
    return value->description();
}

std::optional<std::string> ORVAXElement::getStringAttribute(const std::string& attribute,
                                                            const AXValue& parameter) {
    AXValue value;
    const AXError err =
        axAPI().copyParameterizedAttributeValue(element_, attribute, parameter, &value);
    if (err != kAXErrorSuccess) {
        OrvLogger::addWarningMessageWithFormat("getStringAttribute:%@ forParameter:%@ failed - %d",
                                               attribute, parameter, code(err));
        return std::nullopt;
    }
    if (value.isNone()) return std::nullopt;
    if (const auto* s = value.get<std::string>()) return *s;
    return value.description();
}

bool ORVAXElement::getBooleanAttribute(const std::string& attribute, bool* out) {
    AXValue value;
    const AXError err = axAPI().copyAttributeValue(element_, attribute, &value);
    if (err != kAXErrorSuccess) {
        OrvLogger::addWarningMessageWithFormat("getBoolAttribute:%@ failed - %d", attribute,
                                               code(err));
        return false;
    }
    const bool* b = value.get<bool>();
    if (!b) {
        OrvLogger::addWarningMessageWithFormat(
            "getBooleanAttribute:%@ returned unexpected type - %lu", attribute, value.typeID());
        return false;
    }
    if (out) *out = *b;
    return true;
}

Range ORVAXElement::getRangeAttribute(const std::string& attribute) {
    Range range{-1, 0};
    AXValue value;
    const AXError err = axAPI().copyAttributeValue(element_, attribute, &value);
    if (err != kAXErrorSuccess) {
        OrvLogger::addWarningMessageWithFormat("getRangeAttribute:%@ failed - %d", attribute,
                                               code(err));
        return range;
    }
    if (const auto* r = value.get<Range>()) range = *r;
    return range;
}

Range ORVAXElement::getRangeAttribute(const std::string& attribute, const AXValue& parameter) {
    Range range{-1, 0};
    AXValue value;
    const AXError err =
        axAPI().copyParameterizedAttributeValue(element_, attribute, parameter, &value);
    if (err != kAXErrorSuccess) {
        OrvLogger::addWarningMessageWithFormat("getRangeAttribute:%@ forParameter:%@ failed - %d",
                                               attribute, parameter, code(err));
        return range;
    }
    if (const auto* r = value.get<Range>()) range = *r;
    return range;
}

bool ORVAXElement::getPointAttribute(const std::string& attribute, Point* out) {
    AXValue value;
    const AXError err = axAPI().copyAttributeValue(element_, attribute, &value);
    if (err != kAXErrorSuccess) {
        OrvLogger::addWarningMessageWithFormat("getPointAttribute:%@ failed - %d", attribute,
                                               code(err));
        return false;
    }
    const auto* p = value.get<Point>();
    if (!p) return false;
    if (out) *out = *p;
    return true;
}

bool ORVAXElement::getSizeAttribute(const std::string& attribute, Size* out) {
    AXValue value;
    const AXError err = axAPI().copyAttributeValue(element_, attribute, &value);
    if (err != kAXErrorSuccess) {
        OrvLogger::addWarningMessageWithFormat("getSizeAttribute:%@ failed - %d", attribute,
                                               code(err));
        return false;
    }
    const auto* s = value.get<Size>();
    if (!s) return false;
    if (out) *out = *s;
    return true;
}

Rect ORVAXElement::getRectAttribute(const std::string& attribute, const AXValue& parameter) {
    AXValue value;
    const AXError err =
        axAPI().copyParameterizedAttributeValue(element_, attribute, parameter, &value);
    if (err != kAXErrorSuccess) {
        OrvLogger::addWarningMessageWithFormat("getRectAttribute:%@ forParameter:%@ failed - %d",
                                               attribute, parameter, code(err));
        return Rect();
    }
    const auto* r = value.get<Rect>();
    return r ? *r : Rect();
}

Rect ORVAXElement::getRectAttributeForRange(const std::string& attribute, const Range& range) {
    AXValue value;
    const AXError err =
        axAPI().copyParameterizedAttributeValue(element_, attribute, AXValue(range), &value);
    if (err != kAXErrorSuccess) {
        OrvLogger::addWarningMessageWithFormat("getRectAttribute:%@ forRange:(%d,%d) failed - %d",
                                               attribute, range.location, range.length, code(err));
        return Rect();
    }
    const auto* r = value.get<Rect>();
    return r ? *r : Rect();
}

std::optional<ORVAXElementArray> ORVAXElement::getElementArrayAttribute(
    const std::string& attribute) {
    AXValue value;
    const AXError err = axAPI().copyAttributeValue(element_, attribute, &value);
    if (err != kAXErrorSuccess) {
        OrvLogger::addWarningMessageWithFormat("getElementArrayAttribute:%@ failed - %d", attribute,
                                               code(err));
        return std::nullopt;
    }
    const auto* items = value.get<AXArray>();
    if (!items) return std::nullopt;
    ORVAXElementArray result;
    result.reserve(items->size());
    for (const auto& item : *items) {
        // Anything but an element in the array is skipped: a wrapper never holds null.
        if (const auto* ref = item.get<AXUIElementRef>())
            if (auto wrapper = newForElement(*ref)) result.push_back(std::move(wrapper));
    }
    return result;
}

// --- Named getters ---

ORVAXElementRef ORVAXElement::getParent() {
    return getElementAttribute(kAXParent);
}
ORVAXElementRef ORVAXElement::getFocusedWindow() {
    return getElementAttribute("AXFocusedWindow");
}
ORVAXElementRef ORVAXElement::getMenuBar() {
    return getElementAttribute("AXMenuBar");
}
ORVAXElementRef ORVAXElement::getExtrasMenuBar() {
    return getElementAttribute("AXExtrasMenuBar");
}

std::optional<std::string> ORVAXElement::cachedString(std::optional<std::string>& field,
                                                      const std::string& attribute) {
    if (field) return field;
    // Only what came back is kept: a failed read is retried on the next call.
    field = getStringAttribute(attribute);
    return field;
}

std::optional<std::string> ORVAXElement::getRole() {
    return cachedString(role_, kAXRole);
}
std::optional<std::string> ORVAXElement::getSubrole() {
    return cachedString(subrole_, "AXSubrole");
}
std::optional<std::string> ORVAXElement::getRoleDescription() {
    return cachedString(roleDescription_, "AXRoleDescription");
}
std::optional<std::string> ORVAXElement::getTitle() {
    return cachedString(title_, kAXTitle);
}
std::optional<std::string> ORVAXElement::getDescription() {
    return cachedString(description_, "AXDescription");
}
std::optional<std::string> ORVAXElement::getHelp() {
    return cachedString(help_, "AXHelp");
}
std::optional<std::string> ORVAXElement::getValue() {
    return cachedString(value_, "AXValue");
}
std::optional<std::string> ORVAXElement::getValueDescription() {
    return cachedString(valueDescription_, "AXValueDescription");
}

std::optional<std::string> ORVAXElement::getTextValue() {
    return getStringAttribute("AXValue");
}

std::optional<std::string> ORVAXElement::getMenuItemCmdChar() {
    return getStringAttribute("AXMenuItemCmdChar");
}

std::optional<AXValue> ORVAXElement::getMenuItemCmdModifiers() {
    return copyStringAttributeValue("AXMenuItemCmdModifiers");
}

std::optional<AXValue> ORVAXElement::getMenuItemCmdGlyph() {
    AXValue value;
    const AXError err = axAPI().copyAttributeValue(element_, "AXMenuItemCmdGlyph", &value);
    if (err != kAXErrorSuccess) {
        if (err != kAXErrorNoValue)
            OrvLogger::addWarningMessageWithFormat("getMenuItemCmdGlyph failed - %d", code(err));
        return std::nullopt;
    }
    if (value.isNone()) return std::nullopt;
    return value;
}

int64_t ORVAXElement::getNumberOfCharacters() {
    AXValue value;
    const AXError err = axAPI().copyAttributeValue(element_, "AXNumberOfCharacters", &value);
    if (err != kAXErrorSuccess) {
        OrvLogger::addWarningMessageWithFormat("getNumberOfCharacters failed - %d", code(err));
        return -1;
    }
    if (const auto* i = value.get<int64_t>()) return *i;
    if (const auto* d = value.get<double>()) return static_cast<int64_t>(*d);
    return -1;
}

std::optional<long> ORVAXElement::getInsertionPointLineNumber() {
    AXValue value;
    const AXError err = axAPI().copyAttributeValue(element_, "AXInsertionPointLineNumber", &value);
    if (err != kAXErrorSuccess) {
        OrvLogger::addWarningMessageWithFormat("getInsertionPointLineNumber failed - %d",
                                               code(err));
        return std::nullopt;
    }
    if (const auto* i = value.get<int64_t>()) return static_cast<long>(*i);
    if (const auto* d = value.get<double>()) return static_cast<long>(*d);
    return std::nullopt;
}

Range ORVAXElement::getSelectedTextRange() {
    return getRangeAttribute("AXSelectedTextRange");
}

Range ORVAXElement::getRangeForLine(long line) {
    return getRangeAttribute("AXRangeForLine", AXValue(line));
}

std::optional<std::string> ORVAXElement::getStringForRange(const Range& range) {
    return getStringAttribute("AXStringForRange", AXValue(range));
}

bool ORVAXElement::isEnabled() {
    bool v = false;
    return getBooleanAttribute("AXEnabled", &v) && v;
}
bool ORVAXElement::isSelected() {
    bool v = false;
    return getBooleanAttribute("AXSelected", &v) && v;
}
bool ORVAXElement::isFrontmost() {
    bool v = false;
    return getBooleanAttribute("AXFrontmost", &v) && v;
}
bool ORVAXElement::isFocused() {
    bool v = false;
    return getBooleanAttribute("AXFocused", &v) && v;
}

std::optional<ORVAXElementArray> ORVAXElement::exceptionSafeElementArray(
    const std::string& attribute) {
    // Some applications raise while building these arrays; the caller sees nothing there.
    try {
        return getElementArrayAttribute(attribute);
    } catch (const PlatformException&) {
        return ORVAXElementArray{};
    }
}

std::optional<ORVAXElementArray> ORVAXElement::getRows() {
    return exceptionSafeElementArray("AXRows");
}
std::optional<ORVAXElementArray> ORVAXElement::getChildren() {
    return exceptionSafeElementArray("AXChildren");
}
std::optional<ORVAXElementArray> ORVAXElement::getVisibleChildren() {
    return exceptionSafeElementArray("AXVisibleChildren");
}
std::optional<ORVAXElementArray> ORVAXElement::getSelectedChildren() {
    return exceptionSafeElementArray("AXSelectedChildren");
}
std::optional<ORVAXElementArray> ORVAXElement::getSelectedRows() {
    return exceptionSafeElementArray("AXSelectedRows");
}

std::optional<AXValue> ORVAXElement::getSelectedTextMarkerRange() {
    AXValue value;
    if (axAPI().copyAttributeValue(element_, "AXSelectedTextMarkerRange", &value) !=
            kAXErrorSuccess ||
        value.isNone())
        return std::nullopt;
    return value;
}

std::optional<AXValue> ORVAXElement::getIndexForTextMarker(const AXValue& marker) {
    return getValueAttribute("AXIndexForTextMarker", marker);
}

// --- Other queries ---

pid_t ORVAXElement::getPid() {
    pid_t pid = 0;
    if (axAPI().getPid(element_, &pid) != kAXErrorSuccess) return 0;
    return pid;
}

std::optional<RunningApplication> ORVAXElement::getApplication() {
    const pid_t pid = getPid();
    if (pid == 0) return std::nullopt;
    return platform().workspace->runningApplicationWithProcessIdentifier(pid);
}

std::optional<std::string> ORVAXElement::getBundleIdentifier() {
    if (bundleIdentifier_) return bundleIdentifier_;
    auto app = getApplication();
    // An application without a bundle has an empty identifier: nothing to keep.
    if (app && !app->bundleIdentifier.empty()) bundleIdentifier_ = app->bundleIdentifier;
    return bundleIdentifier_;
}

ORVAXElementRef ORVAXElement::getFocusedElement() {
    if (auto focused = getElementAttribute("AXFocusedUIElement")) return focused;
    auto window = getFocusedWindow();
    if (!window) return nullptr;
    if (!isRole(window->getRole(), "AXSheet")) return window;
    // A sheet often reports no focused element of its own: find the focused child.
    if (auto children = window->getChildren())
        for (const auto& child : *children)
            if (child->isFocused()) return child;
    return window;
}

Rect ORVAXElement::getBounds() {
    Point position;
    Size size;
    if (getPointAttribute("AXPosition", &position) && getSizeAttribute("AXSize", &size))
        return UIElementUtilities::cocoaScreenRectFromCarbonScreenRect(Rect(position, size));
    return Rect();
}

Rect ORVAXElement::getVisibleBounds() {
    const Rect bounds = getBounds();
    // One walk finds the nearest ancestor of each clipping role (and the parent of the nearest
    // scroll area); the rules then apply by role priority, not by nearness. Walking once instead
    // of once per role saves most of the round trips.
    ORVAXElementRef sheet, scrollArea, outerScrollArea, group;
    bool pastScrollArea = false;
    ORVAXElementRef current = getParent();
    for (int depth = 0; current && depth < kMaxAncestors; ++depth) {
        const auto role = current->getRole();
        if (isRole(role, "AXMenu")) return bounds;  // menus are never clipped
        if (scrollArea && !pastScrollArea) {
            // Only the scroll area directly around the nearest one counts as an outer level.
            pastScrollArea = true;
            if (isRole(role, "AXScrollArea")) outerScrollArea = current;
        }
        if (!sheet && isRole(role, "AXSheet")) sheet = current;
        if (!scrollArea && isRole(role, "AXScrollArea")) scrollArea = current;
        if (!group && isRole(role, "AXGroup")) group = current;
        current = current->getParent();
    }
    if (sheet) return bounds.intersection(sheet->getBounds());
    if (scrollArea) {
        Rect visible = bounds.intersection(scrollArea->getBounds());
        if (!visible.isNull() && outerScrollArea)
            visible = visible.intersection(outerScrollArea->getBounds());
        return visible;
    }
    if (group) return bounds.intersection(group->getBounds());
    return bounds;
}

Rect ORVAXElement::getBoundsForRange(const Range& range) {
    const Rect r = getRectAttributeForRange("AXBoundsForRange", range);
    if (r.isZero()) return Rect();
    return UIElementUtilities::cocoaScreenRectFromCarbonScreenRect(r);
}

Rect ORVAXElement::getBoundsForTextMarkerRange(const AXValue& markerRange) {
    const Rect r = getRectAttribute("AXBoundsForTextMarkerRange", markerRange);
    if (r.isZero()) return Rect();
    return UIElementUtilities::cocoaScreenRectFromCarbonScreenRect(r);
}

Rect ORVAXElement::getBoundsForTextMarker(const AXValue& marker) {
    const AXValue pair(AXArray{marker, marker});
    auto range = getValueAttribute("AXTextMarkerRangeForUnorderedTextMarkers", pair);
    if (!range) return Rect();
    return getBoundsForTextMarkerRange(*range);
}

ORVAXElementRef ORVAXElement::childWithIdentifier(const std::string& identifier) {
    if (auto children = getChildren())
        for (const auto& child : *children)
            if (auto id = child->getStringAttribute("AXIdentifier"); id && *id == identifier)
                return child;
    return nullptr;
}

ORVAXElementRef ORVAXElement::childWithDescription(const std::string& description) {
    if (auto children = getChildren())
        for (const auto& child : *children)
            if (auto d = child->getStringAttribute("AXDescription"); d && *d == description)
                return child;
    return nullptr;
}

ORVAXElementRef ORVAXElement::getParentWithRole(const std::string& role) {
    ORVAXElementRef current = getParent();
    for (int depth = 0; current && depth < kMaxAncestors; ++depth) {
        if (isRole(current->getRole(), role)) return current;
        current = current->getParent();
    }
    return nullptr;
}

ORVAXElementRef ORVAXElement::getParentOrSelfWithRole(const std::string& role) {
    if (isRole(getRole(), role)) return shared_from_this();
    return getParentWithRole(role);
}

ORVAXElementRef ORVAXElement::getParentWithRole(const std::string& role,
                                                const std::string& subrole) {
    ORVAXElementRef current = getParent();
    for (int depth = 0; current && depth < kMaxAncestors; ++depth) {
        if (isRole(current->getRole(), role) && isRole(current->getSubrole(), subrole))
            return current;
        current = current->getParent();
    }
    return nullptr;
}

bool ORVAXElement::isDescendantOf(const std::string& role) {
    if (isRole(getRole(), role)) return true;
    return getParentWithRole(role) != nullptr;
}

ORVAXElementArray ORVAXElement::ancestors() {
    ORVAXElementArray chain;
    ORVAXElementRef current = getParent();
    for (int depth = 0; current && depth < kMaxAncestors; ++depth) {
        chain.push_back(current);
        current = current->getParent();
    }
    return chain;
}

std::string ORVAXElement::getPath() {
    if (path_) return *path_;
    // Built from the top down; the same text as asking each parent for its own path first, with
    // one read of each parent link.
    const ORVAXElementArray chain = ancestors();
    std::string path;
    auto appendLevel = [&path](ORVAXElement& level) {
        path = format("%@%@", path, nilable(level.getRole()));
        if (auto title = level.getStringAttribute(kAXTitle)) path = format("%@ (%@)", path, *title);
    };
    ORVAXElement& top = chain.empty() ? *this : *chain.back();
    path = format("%@:", nilable(top.getBundleIdentifier()));
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        appendLevel(**it);
        path += "\\";
    }
    appendLevel(*this);
    if (!path.empty()) path_ = path;
    return path;
}

void ORVAXElement::setMessagingTimeout(float seconds) {
    axAPI().setMessagingTimeout(element_, seconds);
}

void ORVAXElement::setEnhancedUserInterface() {
    retrySetEnhancedUserInterface(nullptr);
}

void ORVAXElement::retrySetEnhancedUserInterface(Timer* timer) {
    const pid_t pid = getPid();
    if (pid == 0) return;
    const AXUIElementRef app = axAPI().createApplication(pid);
    if (!app) return;
    const std::string attribute = "AXEnhancedUserInterface";
    const AXError settable = isAttribute(attribute, app);
    if (settable != kAXErrorSuccess) {
        OrvLogger::addWarningMessageWithFormat(
            "ORVAXElement -retrySetEnhancedUserInterface: AXEnhancedUserInterface not settable: %d",
            code(settable));
        return;
    }
    const AXError err = axAPI().setAttributeValue(app, attribute, AXValue(true));
    if (err != kAXErrorCannotComplete) return;
    // The application is busy or still starting up: ask again shortly.
    int attempt = 0;
    if (timer) {
        if (const int* n = std::any_cast<int>(&timer->userInfo())) attempt = *n;
    }
    if (attempt >= kEnhancedUserInterfaceMaxAttempt) return;
    auto self = weak_from_this().lock();
    if (!self) return;
    mainLoop().scheduleTimer(
        static_cast<double>(0.1f), false,
        [self](Timer& t) { self->retrySetEnhancedUserInterface(&t); }, attempt + 1);
}

AXError ORVAXElement::isAttribute(const std::string& attribute, const AXUIElementRef& element) {
    std::vector<std::string> names;
    const AXError namesErr = axAPI().copyAttributeNames(element, &names);
    if (namesErr != kAXErrorSuccess) return namesErr;
    for (const auto& name : names) {
        if (name != attribute) continue;
        bool settable = false;
        const AXError err = axAPI().isAttributeSettable(element, attribute, &settable);
        if (err != kAXErrorSuccess) return err;
        return settable ? kAXErrorSuccess : kAXErrorFailure;
    }
    return kAXErrorFailure;
}

}  // namespace orv
