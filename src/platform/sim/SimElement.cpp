#include "platform/sim/SimElement.h"

#include <atomic>

#include "Common/Format.h"
#include "platform/sim/SimDesktop.h"

namespace orv::sim {

namespace {

std::atomic<uint64_t> gNextNodeId{1};

bool isTextRole(const std::string& role) {
    return role == "AXTextField" || role == "AXTextArea" || role == "AXComboBox";
}

}  // namespace

SimNode::SimNode(Key, Kind kind, uint64_t desktopSerial, std::weak_ptr<SimApp> app)
    : id_(gNextNodeId++), kind_(kind), desktopSerial_(desktopSerial), app_(std::move(app)) {}

SimNodePtr SimNode::makeChild() {
    auto child = std::make_shared<SimNode>(Key{}, Kind::Element, desktopSerial_, app_);
    child->parent_ = weak_from_this();
    children_.push_back(child);
    return child;
}

SimNodePtr SimNode::addChild(const std::string& role, const std::string& title) {
    auto child = makeChild();
    child->attrs_["AXRole"] = role;
    if (!title.empty()) child->attrs_["AXTitle"] = title;
    return child;
}

SimNodePtr SimNode::addChild(const std::string& role, const std::string& title, Rect frame) {
    auto child = addChild(role, title);
    child->frame_ = frame;
    return child;
}

SimNodePtr SimNode::addChild(const std::string& role, Rect frame) {
    return addChild(role, std::string(), frame);
}

size_t SimNode::indexInParent() const {
    auto p = parent();
    if (!p) return 0;
    for (size_t i = 0; i < p->children_.size(); ++i)
        if (p->children_[i].get() == this) return i;
    return 0;
}

SimApp* SimNode::app() const {
    auto a = app_.lock();
    return a.get();  // the desktop owns its applications for its whole life
}

bool SimNode::isAlive() const {
    if (destroyed_) return false;
    if (kind_ == Kind::SystemWide) return true;
    auto a = app_.lock();
    return a && a->isRunning();
}

SimNodePtr SimNode::find(const std::string& label) {
    if (label_ == label) return shared_from_this();
    for (auto& c : children_)
        if (auto n = c->find(label)) return n;
    return nullptr;
}

SimNodePtr SimNode::findRole(const std::string& role, const std::optional<std::string>& title) {
    if (this->role() == role && (!title || this->title() == *title)) return shared_from_this();
    for (auto& c : children_)
        if (auto n = c->findRole(role, title)) return n;
    return nullptr;
}

int SimNode::depth() const {
    int d = 0;
    for (auto p = parent(); p; p = p->parent()) ++d;
    return d;
}

SimNode& SimNode::set(const std::string& attribute, AXValue value) {
    if (attribute == "AXValue") layout_.reset();
    removed_.erase(attribute);
    attrs_[attribute] = std::move(value);
    return *this;
}

SimNode& SimNode::set(const std::string& attribute, const SimNodePtr& element) {
    return set(attribute, element ? AXValue(SimElementRef::forNode(element)) : AXValue());
}

SimNode& SimNode::set(const std::string& attribute, const std::vector<SimNodePtr>& elements) {
    AXArray items;
    for (auto& e : elements) items.emplace_back(SimElementRef::forNode(e));
    return set(attribute, AXValue(std::move(items)));
}

SimNode& SimNode::unset(const std::string& attribute) {
    if (attribute == "AXValue") layout_.reset();
    attrs_.erase(attribute);
    removed_.erase(attribute);
    return *this;
}

SimNode& SimNode::remove(const std::string& attribute) {
    if (attribute == "AXValue") layout_.reset();
    attrs_.erase(attribute);
    removed_.insert(attribute);
    return *this;
}

std::optional<AXValue> SimNode::stored(const std::string& attribute) const {
    auto it = attrs_.find(attribute);
    if (it == attrs_.end()) return std::nullopt;
    return it->second;
}

std::string SimNode::storedString(const std::string& attribute) const {
    auto it = attrs_.find(attribute);
    if (it == attrs_.end()) return {};
    auto s = it->second.get<std::string>();
    return s ? *s : std::string();
}

SimNode& SimNode::setFrame(Rect frame) {
    frame_ = frame;
    return *this;
}

SimNode& SimNode::clearFrame() {
    frame_.reset();
    return *this;
}

SimNode& SimNode::setLabel(const std::string& label) {
    label_ = label;
    return *this;
}

SimNode& SimNode::setSettable(const std::string& attribute, bool settable) {
    settable_[attribute] = settable;
    return *this;
}

bool SimNode::isSettable(const std::string& attribute) const {
    auto it = settable_.find(attribute);
    if (it != settable_.end()) return it->second;
    switch (kind_) {
        case Kind::SystemWide:
            return false;
        case Kind::Application:
            return attribute == "AXEnhancedUserInterface" || attribute == "AXFrontmost";
        case Kind::Element:
            break;
    }
    if (isText() && (attribute == "AXValue" || attribute == "AXSelectedTextRange" ||
                     attribute == "AXSelectedText"))
        return true;
    if (role() == "AXWindow")
        return attribute == "AXPosition" || attribute == "AXSize" || attribute == "AXMain" ||
               attribute == "AXFocused";
    return false;
}

SimNode& SimNode::setParameterized(const std::string& attribute, AXValue value) {
    return setParameterized(attribute, [value](const AXValue&, AXValue* out) {
        *out = value;
        return kAXErrorSuccess;
    });
}

SimNode& SimNode::setParameterized(const std::string& attribute, ParameterizedHandler handler) {
    parameterized_[attribute] = std::move(handler);
    return *this;
}

SimNode& SimNode::unsetParameterized(const std::string& attribute) {
    parameterized_.erase(attribute);
    return *this;
}

const ParameterizedHandler* SimNode::parameterized(const std::string& attribute) const {
    auto it = parameterized_.find(attribute);
    return it == parameterized_.end() ? nullptr : &it->second;
}

std::vector<std::string> SimNode::parameterizedNames() const {
    std::vector<std::string> names;
    for (auto& [name, h] : parameterized_) names.push_back(name);
    return names;
}

bool SimNode::isText() const {
    if (textEnabled_) return *textEnabled_;
    return kind_ == Kind::Element && isTextRole(role());
}

SimNode& SimNode::setTextEnabled(bool enabled) {
    textEnabled_ = enabled;
    return *this;
}

std::string SimNode::text() const {
    return storedString("AXValue");
}

const TextLayout& SimNode::layout() const {
    if (!layout_) layout_ = std::make_shared<const TextLayout>(text());
    return *layout_;
}

Range SimNode::selection() const {
    auto it = attrs_.find("AXSelectedTextRange");
    if (it != attrs_.end())
        if (auto r = it->second.get<Range>()) return *r;
    return Range{0, 0};
}

SimNode& SimNode::setText(const std::string& text) {
    layout_.reset();
    attrs_["AXValue"] = text;
    removed_.erase("AXValue");
    // Keep the selection inside the text, as an editor does when its contents are replaced.
    long n = TextLayout::utf16Length(text);
    Range sel = selection();
    long loc = std::min(std::max(sel.location, 0L), n);
    long len = std::min(std::max(sel.length, 0L), n - loc);
    if (attrs_.count("AXSelectedTextRange") || loc != 0 || len != 0)
        attrs_["AXSelectedTextRange"] = Range{loc, len};
    return *this;
}

SimNode& SimNode::setSelection(Range range) {
    attrs_["AXSelectedTextRange"] = range;
    removed_.erase("AXSelectedTextRange");
    return *this;
}

SimNode& SimNode::setTextMetrics(TextMetrics metrics) {
    metrics_ = metrics;
    return *this;
}

SimNode& SimNode::reportFirstCharacterBounds(bool on) {
    firstCharBounds_ = on;
    return *this;
}

SimNode& SimNode::reportZeroBoundsAtEnd(bool on) {
    zeroBoundsAtEnd_ = on;
    return *this;
}

SimNode& SimNode::failRead(const std::string& attribute, AXError error, int times) {
    SimFault f;
    f.error = error;
    f.remaining = times;
    readFaults_[attribute] = f;
    return *this;
}

SimNode& SimNode::raiseOnRead(const std::string& attribute, const std::string& reason, int times) {
    SimFault f;
    f.raises = true;
    f.reason = reason;
    f.remaining = times;
    readFaults_[attribute] = f;
    return *this;
}

SimNode& SimNode::failSet(const std::string& attribute, AXError error, int times) {
    SimFault f;
    f.error = error;
    f.remaining = times;
    setFaults_[attribute] = f;
    return *this;
}

SimNode& SimNode::clearFaults() {
    readFaults_.clear();
    setFaults_.clear();
    return *this;
}

std::optional<SimFault> SimNode::take(std::map<std::string, SimFault>& faults,
                                      const std::string& attribute) {
    auto it = faults.find(attribute);
    if (it == faults.end()) it = faults.find("*");
    if (it == faults.end()) return std::nullopt;
    SimFault f = it->second;
    if (it->second.remaining > 0 && --it->second.remaining == 0) faults.erase(it);
    return f;
}

std::optional<SimFault> SimNode::takeReadFault(const std::string& attribute) {
    return take(readFaults_, attribute);
}

std::optional<SimFault> SimNode::takeSetFault(const std::string& attribute) {
    return take(setFaults_, attribute);
}

void SimNode::markDestroyed() {
    destroyed_ = true;
    for (auto& c : children_) c->markDestroyed();
}

std::string SimNode::description() const {
    std::string out = "<SimNode " + std::to_string(id_) + " " + (role().empty() ? "-" : role());
    if (!subrole().empty()) out += "/" + subrole();
    if (!title().empty()) out += " \"" + title() + "\"";
    if (!label_.empty()) out += " #" + label_;
    if (destroyed_) out += " destroyed";
    return out + ">";
}

// --- References

AXUIElementRef SimElementRef::forNode(const SimNodePtr& node) {
    if (!node) return nullptr;
    switch (node->kind()) {
        case SimNode::Kind::SystemWide:
            return systemWide();
        case SimNode::Kind::Application: {
            SimApp* a = node->app();
            return std::make_shared<SimElementRef>(Kind::Application, a ? a->pid() : 0, node->id(),
                                                   node);
        }
        case SimNode::Kind::Element:
            break;
    }
    SimApp* a = node->app();
    return std::make_shared<SimElementRef>(Kind::Node, a ? a->pid() : 0, node->id(), node);
}

AXUIElementRef SimElementRef::forApplication(pid_t pid) {
    return std::make_shared<SimElementRef>(Kind::Application, pid, 0, std::weak_ptr<SimNode>());
}

AXUIElementRef SimElementRef::systemWide() {
    return std::make_shared<SimElementRef>(Kind::SystemWide, 0, 0, std::weak_ptr<SimNode>());
}

AXUIElementRef SimElementRef::fresh(const AXUIElementRef& ref) {
    auto r = from(ref);
    if (!r) return ref;
    return std::make_shared<SimElementRef>(*r);
}

const SimElementRef* SimElementRef::from(const AXUIElementRef& ref) {
    return dynamic_cast<const SimElementRef*>(ref.get());
}

bool SimElementRef::equals(const AXUIElement& other) const {
    auto o = dynamic_cast<const SimElementRef*>(&other);
    if (!o || o->kind_ != kind_) return false;
    switch (kind_) {
        case Kind::SystemWide:
            return true;
        case Kind::Application:
            return o->pid_ == pid_;
        case Kind::Node:
            return o->nodeId_ == nodeId_;
    }
    return false;
}

size_t SimElementRef::hash() const {
    switch (kind_) {
        case Kind::SystemWide:
            return 0x5157;
        case Kind::Application:
            return std::hash<long long>()(static_cast<long long>(pid_)) ^ 0xA991;
        case Kind::Node:
            break;
    }
    return std::hash<uint64_t>()(nodeId_);
}

std::string SimElementRef::debugDescription() const {
    switch (kind_) {
        case Kind::SystemWide:
            return "<AXUIElement System Wide>";
        case Kind::Application:
            return "<AXUIElement Application pid=" + std::to_string(pid_) + ">";
        case Kind::Node:
            break;
    }
    std::string out = "<AXUIElement " + std::to_string(nodeId_) + " pid=" + std::to_string(pid_);
    if (auto n = node_.lock()) {
        out += " " + (n->role().empty() ? std::string("-") : n->role());
        if (!n->title().empty()) out += " \"" + n->title() + "\"";
    }
    return out + ">";
}

AXValue freshenElements(const AXValue& value) {
    if (auto e = value.get<AXUIElementRef>()) return AXValue(SimElementRef::fresh(*e));
    if (auto a = value.get<AXArray>()) {
        AXArray items;
        items.reserve(a->size());
        for (auto& v : *a) items.push_back(freshenElements(v));
        return AXValue(std::move(items));
    }
    return value;
}

}  // namespace orv::sim
