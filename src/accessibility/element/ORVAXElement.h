#pragma once

// The one wrapper through which the agent reads the accessibility tree and hears about it.
//
// Getters never fail outward: a failed read gives nullopt/nullptr, false, the all-zero rectangle,
// a range at location -1 or -1, with a warning in the log unless the error is routine for that
// read. The one exception to "nothing throws across a subsystem boundary": a PlatformException
// that a backend raises while answering (applications do so while building arrays) is caught
// only by the five element array getters (getRows, getChildren, getVisibleChildren,
// getSelectedChildren, getSelectedRows), which answer an empty array. From every other getter it
// propagates to the caller's guard: the observation callback's guard for code run by a
// notification, the main loop's own guard for timers and posted tasks.
//
// A wrapper is a snapshot for its cached strings (role, title, path, ...): a cached value is
// never refreshed. Code that needs the current text of an editable element uses getTextValue or
// getStringAttribute.
//
// Main thread only.

#include <sys/types.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Common/Geometry.h"
#include "Common/ORVMulticastBlock.h"
#include "accessibility/element/ORVAXEvent.h"
#include "platform/AXTypes.h"
#include "platform/Accessibility.h"
#include "platform/Desktop.h"
#include "platform/MainLoop.h"

namespace orv {

using ORVAXElementArray = std::vector<ORVAXElementRef>;
using ORVAXEventHandlers = ORVMulticastBlock<const ORVAXEventRef&>;
using ORVAXEventBlock = ORVAXEventHandlers::Block;
// What observe() returns and unobserve() takes back: the stored block itself.
using ORVAXSubscription = ORVAXEventHandlers::Token;

class ORVAXElement : public std::enable_shared_from_this<ORVAXElement> {
    // Only the creation operations make wrappers, always owned by a shared_ptr.
    struct Passkey {
        explicit Passkey() = default;
    };

  public:
    // --- Creation: a new wrapper, or nullptr. ---

    // Null for a null reference: a wrapper always holds an element.
    static ORVAXElementRef newForElement(AXUIElementRef element);
    static ORVAXElementRef newForApplication(pid_t pid);
    // The first running application with that bundle identifier; nullptr when none runs.
    static ORVAXElementRef newForApplicationWithBundleIdentifier(
        const std::string& bundleIdentifier);
    // Hit test at a point in agent coordinates.
    static ORVAXElementRef newAtPosition(const Point& point);
    // Shared, with a 0.25 s messaging timeout. Made again when another platform is installed.
    static ORVAXElementRef systemWide();

    ORVAXElement(Passkey, AXUIElementRef element);
    ~ORVAXElement();
    ORVAXElement(const ORVAXElement&) = delete;
    ORVAXElement& operator=(const ORVAXElement&) = delete;

    const AXUIElementRef& element() const { return element_; }
    // Replaces the wrapped reference; a null one is refused. Caches stay as they are.
    void setElement(AXUIElementRef element);

    // Same object, or the platform's value equality of the wrapped references. Identity (pointer
    // comparison) stays distinct: two wrappers of one element are equal but not the same.
    bool isEqual(const ORVAXElement* other) const;
    bool isEqual(const ORVAXElementRef& other) const { return isEqual(other.get()); }
    bool isEqual(std::nullptr_t) const { return false; }

    // --- Low-level typed reads. ---

    // NoValue and AttributeUnsupported are silent.
    ORVAXElementRef getElementAttribute(const std::string& attribute);
    std::optional<AXValue> getValueAttribute(const std::string& attribute);
    std::optional<AXValue> getValueAttribute(const std::string& attribute,
                                             const AXValue& parameter);
    // Any value reads as its text (the type is not checked). NoValue and AttributeUnsupported
    // are silent.
    std::optional<std::string> getStringAttribute(const std::string& attribute);
    std::optional<std::string> getStringAttribute(const std::string& attribute,
                                                  const AXValue& parameter);
    bool getBooleanAttribute(const std::string& attribute, bool* value);
    // Location -1, length 0 on failure.
    Range getRangeAttribute(const std::string& attribute);
    Range getRangeAttribute(const std::string& attribute, const AXValue& parameter);
    bool getPointAttribute(const std::string& attribute, Point* point);
    bool getSizeAttribute(const std::string& attribute, Size* size);
    // Platform (top-left origin) coordinates; all zero on failure.
    Rect getRectAttribute(const std::string& attribute, const AXValue& parameter);
    Rect getRectAttributeForRange(const std::string& attribute, const Range& range);
    // New wrappers in the platform's order; nullopt on failure.
    std::optional<ORVAXElementArray> getElementArrayAttribute(const std::string& attribute);

    // --- Named getters. ---

    ORVAXElementRef getParent();
    ORVAXElementRef getFocusedWindow();
    ORVAXElementRef getMenuBar();
    ORVAXElementRef getExtrasMenuBar();

    // Cached: the first successful read is kept for the wrapper's life; a failed one is retried.
    std::optional<std::string> getRole();
    std::optional<std::string> getSubrole();
    std::optional<std::string> getRoleDescription();
    std::optional<std::string> getTitle();
    std::optional<std::string> getDescription();
    std::optional<std::string> getHelp();
    std::optional<std::string> getValue();
    std::optional<std::string> getValueDescription();

    // Uncached "AXValue": the current text of an editable element.
    std::optional<std::string> getTextValue();
    std::optional<std::string> getMenuItemCmdChar();
    // Read as a string read (same silent errors and warning) but returned as the platform gave
    // it, a number in practice.
    std::optional<AXValue> getMenuItemCmdModifiers();
    std::optional<AXValue> getMenuItemCmdGlyph();
    // -1 on failure.
    int64_t getNumberOfCharacters();
    std::optional<long> getInsertionPointLineNumber();
    Range getSelectedTextRange();
    Range getRangeForLine(long line);
    std::optional<std::string> getStringForRange(const Range& range);

    // False on failure.
    bool isEnabled();
    bool isSelected();
    bool isFrontmost();
    bool isFocused();

    // nullopt when the read fails; an empty array when the application raises while answering.
    std::optional<ORVAXElementArray> getRows();
    std::optional<ORVAXElementArray> getChildren();
    std::optional<ORVAXElementArray> getVisibleChildren();
    std::optional<ORVAXElementArray> getSelectedChildren();
    std::optional<ORVAXElementArray> getSelectedRows();

    // Opaque marker range of web content; nullopt on any error, silently.
    std::optional<AXValue> getSelectedTextMarkerRange();
    std::optional<AXValue> getIndexForTextMarker(const AXValue& marker);

    // --- Other queries. ---

    // 0 when the platform cannot tell.
    pid_t getPid();
    std::optional<RunningApplication> getApplication();
    // Cached.
    std::optional<std::string> getBundleIdentifier();

    // For an application element: its focused element; for a sheet as the focused window, the
    // sheet's focused child or the sheet itself.
    ORVAXElementRef getFocusedElement();

    // Agent coordinates (bottom-left origin). All zero when the element has no position or size.
    Rect getBounds();
    // Bounds clipped to what encloses the element: its sheet, or its scroll area (and at most
    // one scroll area directly around that), or its group; menus are never clipped. An empty
    // intersection is Rect::null(), which callers must test for.
    Rect getVisibleBounds();
    Rect getBoundsForRange(const Range& range);
    Rect getBoundsForTextMarkerRange(const AXValue& markerRange);
    // A caret position in web content.
    Rect getBoundsForTextMarker(const AXValue& marker);

    // The first child whose "AXIdentifier" / "AXDescription" equals the argument.
    ORVAXElementRef childWithIdentifier(const std::string& identifier);
    ORVAXElementRef childWithDescription(const std::string& description);

    // Parent searches look at ancestors only, never at the receiver.
    ORVAXElementRef getParentWithRole(const std::string& role);
    ORVAXElementRef getParentOrSelfWithRole(const std::string& role);
    // An ancestor with the role but another subrole is passed over.
    ORVAXElementRef getParentWithRole(const std::string& role, const std::string& subrole);
    // Counts the receiver itself.
    bool isDescendantOf(const std::string& role);

    // "bundle:AXApplication (Title)\AXWindow (Title)\AXButton": a readable key of the element's
    // position in its application, for logs and as a key on the speech side. Cached once not
    // empty.
    std::string getPath();

    void setMessagingTimeout(float seconds);

    // Turns on the enhanced user interface of the receiver's application, retrying every 0.1 s
    // while the application cannot complete the request, at most 51 attempts in all. A pending
    // retry keeps the wrapper alive.
    void setEnhancedUserInterface();
    // The attempt number is the timer's user info (an int); no timer means attempt 0.
    void retrySetEnhancedUserInterface(Timer* timer);

    // 0 when the attribute is settable on the element, else an error number (Failure when it
    // exists but is not settable or does not exist).
    static AXError isAttribute(const std::string& attribute, const AXUIElementRef& element);

    // --- Observation. ---

    // The wrapper's observer for its process, made on first use and attached to the main loop;
    // null while it cannot be made (tried again on the next call).
    AXObserverRef observer();
    const std::map<std::string, std::shared_ptr<ORVAXEventHandlers>>& observerHandlers() const {
        return observerHandlers_;
    }

    // Registers the notification with the platform on the first subscription for the name only.
    // Subscribers must keep this very wrapper (not an equal one) alive to go on hearing, and
    // unsubscribe on it with the same name.
    ORVAXSubscription observe(const std::string& notification, ORVAXEventBlock block);

    // Target forms. The subscription holds the target strongly until it is unsubscribed.
    template <typename T>
    ORVAXSubscription observe(const std::string& notification, std::shared_ptr<T> target,
                              void (T::*selector)(const ORVAXEventRef&)) {
        return observe(notification,
                       [target = std::move(target), selector](const ORVAXEventRef& e) {
                           if (target && selector) ((*target).*selector)(e);
                       });
    }
    template <typename T>
    ORVAXSubscription observe(const std::string& notification, std::shared_ptr<T> target,
                              void (T::*selector)()) {
        return observe(notification, [target = std::move(target), selector](const ORVAXEventRef&) {
            if (target && selector) ((*target).*selector)();
        });
    }

    // Removes the subscriber only; the platform registration stays until the wrapper goes.
    void unobserve(const std::string& notification, const ORVAXSubscription& token);

  private:
    // Shared body of the string reads: the raw value, with their silent errors and warning.
    std::optional<AXValue> copyStringAttributeValue(const std::string& attribute);
    std::optional<std::string> cachedString(std::optional<std::string>& field,
                                            const std::string& attribute);
    std::optional<ORVAXElementArray> exceptionSafeElementArray(const std::string& attribute);
    // Ancestors, nearest first, at most kMaxAncestors of them.
    ORVAXElementArray ancestors();
    void deliver(const AXUIElementRef& element, const std::string& notification);

    AXUIElementRef element_;
    std::map<std::string, std::shared_ptr<ORVAXEventHandlers>> observerHandlers_;
    AXObserverRef observer_;

    std::optional<std::string> path_;
    std::optional<std::string> bundleIdentifier_;
    std::optional<std::string> role_;
    std::optional<std::string> subrole_;
    std::optional<std::string> roleDescription_;
    std::optional<std::string> title_;
    std::optional<std::string> description_;
    std::optional<std::string> help_;
    std::optional<std::string> value_;
    std::optional<std::string> valueDescription_;
};

}  // namespace orv
