#pragma once

// One element of a simulated application's tree (SimNode) and the references the accessibility
// interface hands out for it (SimElementRef). Tests build and inspect nodes; the code under test
// sees only references, which are fresh objects on every read and equal when they name the same
// node.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/AXTypes.h"
#include "platform/sim/SimText.h"

namespace orv::sim {

class SimApp;
class SimDesktop;
class SimNode;
using SimNodePtr = std::shared_ptr<SimNode>;

// How a simulated call misbehaves: answer an error, or raise PlatformException.
struct SimFault {
    AXError error = kAXErrorFailure;
    bool raises = false;
    std::string exceptionName = "SimulatedException";
    std::string reason;
    // Calls left to misbehave; negative for ever.
    int remaining = -1;
};

// A parameterised attribute answered by the test: the parameter in, the value out.
using ParameterizedHandler = std::function<AXError(const AXValue& parameter, AXValue* out)>;

class SimNode : public std::enable_shared_from_this<SimNode> {
  public:
    enum class Kind { Element, Application, SystemWide };
    struct Key {
      private:
        Key() = default;
        friend class SimNode;
        friend class SimApp;
        friend class SimDesktop;
    };
    SimNode(Key, Kind kind, uint64_t desktopSerial, std::weak_ptr<SimApp> app);

    uint64_t id() const { return id_; }
    Kind kind() const { return kind_; }
    uint64_t desktopSerial() const { return desktopSerial_; }

    // --- Structure. Building is silent: no notification is posted.
    SimNodePtr addChild(const std::string& role, const std::string& title = {});
    SimNodePtr addChild(const std::string& role, const std::string& title, Rect frame);
    SimNodePtr addChild(const std::string& role, Rect frame);
    SimNodePtr parent() const { return parent_.lock(); }
    const std::vector<SimNodePtr>& children() const { return children_; }
    size_t indexInParent() const;
    // Application the node belongs to; null for the system-wide element or once the desktop is
    // gone.
    SimApp* app() const;
    // Not destroyed and its application still runs.
    bool isAlive() const;
    // First node in this subtree (itself included, depth first) with the label, or with the role
    // and (when given) title.
    SimNodePtr find(const std::string& label);
    SimNodePtr findRole(const std::string& role, const std::optional<std::string>& title = {});
    // Depth below the application element (a window is 1).
    int depth() const;

    // --- Stored attributes. A stored value wins over the derived one; a stored none value answers
    // kAXErrorNoValue.
    SimNode& set(const std::string& attribute, AXValue value);
    SimNode& set(const std::string& attribute, const SimNodePtr& element);
    SimNode& set(const std::string& attribute, const std::vector<SimNodePtr>& elements);
    // Back to the derived value, if any.
    SimNode& unset(const std::string& attribute);
    // The attribute is not supported at all: reads answer kAXErrorAttributeUnsupported and the
    // name is left out of the attribute names.
    SimNode& remove(const std::string& attribute);
    bool isRemoved(const std::string& attribute) const { return removed_.count(attribute) != 0; }
    std::optional<AXValue> stored(const std::string& attribute) const;
    const std::map<std::string, AXValue>& storedAttributes() const { return attrs_; }
    std::string role() const { return storedString("AXRole"); }
    std::string subrole() const { return storedString("AXSubrole"); }
    std::string title() const { return storedString("AXTitle"); }
    std::string storedString(const std::string& attribute) const;

    // Frame in the accessibility interface's top-left-origin space; gives AXPosition and AXSize
    // and makes the node a target of hit-testing.
    SimNode& setFrame(Rect frame);
    SimNode& clearFrame();
    const std::optional<Rect>& frame() const { return frame_; }

    // A name for tests and the tree text form ("#label"); not an attribute.
    SimNode& setLabel(const std::string& label);
    const std::string& label() const { return label_; }

    SimNode& setSettable(const std::string& attribute, bool settable);
    // Explicit flag, else the default by role.
    bool isSettable(const std::string& attribute) const;
    const std::map<std::string, bool>& settableFlags() const { return settable_; }

    SimNode& setParameterized(const std::string& attribute, AXValue value);
    SimNode& setParameterized(const std::string& attribute, ParameterizedHandler handler);
    SimNode& unsetParameterized(const std::string& attribute);
    const ParameterizedHandler* parameterized(const std::string& attribute) const;
    std::vector<std::string> parameterizedNames() const;

    // --- Text. Roles AXTextField, AXTextArea and AXComboBox are text elements from the start.
    // The text is the stored AXValue, the selection the stored AXSelectedTextRange.
    bool isText() const;
    SimNode& setTextEnabled(bool enabled);
    std::string text() const;
    // Layout of the current text, kept until the text changes.
    const TextLayout& layout() const;
    Range selection() const;
    // Silent; the selection is clamped to the new text.
    SimNode& setText(const std::string& text);
    SimNode& setSelection(Range range);
    SimNode& setTextMetrics(TextMetrics metrics);
    const std::optional<TextMetrics>& textMetrics() const { return metrics_; }
    // Every one-character or longer range reports the first character's bounds, as some
    // applications do.
    SimNode& reportFirstCharacterBounds(bool on = true);
    bool reportsFirstCharacterBounds() const { return firstCharBounds_; }
    // Ranges that reach the end of the text (the caret there included) report the all-zero
    // rectangle, as some applications do for their last character.
    SimNode& reportZeroBoundsAtEnd(bool on = true);
    bool reportsZeroBoundsAtEnd() const { return zeroBoundsAtEnd_; }

    // --- Failure injection. "*" stands for every attribute; reads cover plain and parameterised
    // attributes alike.
    SimNode& failRead(const std::string& attribute, AXError error, int times = -1);
    SimNode& raiseOnRead(const std::string& attribute, const std::string& reason, int times = -1);
    SimNode& failSet(const std::string& attribute, AXError error, int times = -1);
    SimNode& clearFaults();
    // Consumes one call of a matching fault; null when the call behaves.
    std::optional<SimFault> takeReadFault(const std::string& attribute);
    std::optional<SimFault> takeSetFault(const std::string& attribute);

    // Last messaging timeout set on this element through the interface.
    std::optional<float> messagingTimeout() const { return timeout_; }
    void recordMessagingTimeout(float seconds) { timeout_ = seconds; }

    std::string description() const;

  private:
    friend class SimDesktop;
    static std::optional<SimFault> take(std::map<std::string, SimFault>& faults,
                                        const std::string& attribute);
    SimNodePtr makeChild();
    void markDestroyed();

    const uint64_t id_;
    const Kind kind_;
    const uint64_t desktopSerial_;
    std::weak_ptr<SimApp> app_;
    std::weak_ptr<SimNode> parent_;
    std::vector<SimNodePtr> children_;
    bool destroyed_ = false;

    std::map<std::string, AXValue> attrs_;
    std::set<std::string> removed_;
    std::optional<Rect> frame_;
    std::string label_;
    std::map<std::string, bool> settable_;
    std::map<std::string, ParameterizedHandler> parameterized_;

    std::optional<bool> textEnabled_;
    mutable std::shared_ptr<const TextLayout> layout_;
    std::optional<TextMetrics> metrics_;
    bool firstCharBounds_ = false;
    bool zeroBoundsAtEnd_ = false;

    std::map<std::string, SimFault> readFaults_;
    std::map<std::string, SimFault> setFaults_;
    std::optional<float> timeout_;
};

// A reference as the accessibility interface hands it out. Application references are keyed by
// process (the platform makes them from a pid), the system-wide reference is one for all, and any
// other names one node. References never keep a node alive.
class SimElementRef final : public AXUIElement {
  public:
    enum class Kind { Node, Application, SystemWide };

    static AXUIElementRef forNode(const SimNodePtr& node);
    static AXUIElementRef forApplication(pid_t pid);
    static AXUIElementRef systemWide();
    // A new reference object naming the same element, as every read of the platform gives.
    static AXUIElementRef fresh(const AXUIElementRef& ref);
    // The reference, or null when it does not come from the simulated desktop.
    static const SimElementRef* from(const AXUIElementRef& ref);

    bool equals(const AXUIElement& other) const override;
    size_t hash() const override;
    std::string debugDescription() const override;

    Kind kind() const { return kind_; }
    pid_t pid() const { return pid_; }
    uint64_t nodeId() const { return nodeId_; }
    SimNodePtr node() const { return node_.lock(); }

    SimElementRef(Kind kind, pid_t pid, uint64_t nodeId, std::weak_ptr<SimNode> node)
        : kind_(kind), pid_(pid), nodeId_(nodeId), node_(std::move(node)) {}

  private:
    Kind kind_;
    pid_t pid_;
    uint64_t nodeId_;
    std::weak_ptr<SimNode> node_;
};

// Every element in a value replaced by a fresh reference, arrays included.
AXValue freshenElements(const AXValue& value);

}  // namespace orv::sim
