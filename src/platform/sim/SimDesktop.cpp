#include "platform/sim/SimDesktop.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <set>

#include "platform/sim/SimWebContent.h"

namespace orv::sim {

namespace {

std::atomic<uint64_t> gDesktopSerial{1};

SimNodePtr windowOf(SimNodePtr n) {
    for (; n && n->kind() == SimNode::Kind::Element; n = n->parent())
        if (n->role() == "AXWindow") return n;
    return nullptr;
}

SimNodePtr alive(const std::weak_ptr<SimNode>& w) {
    auto n = w.lock();
    return n && n->isAlive() ? n : nullptr;
}

Range clampTo(Range r, long length) {
    long loc = std::clamp(r.location, 0L, length);
    long len = std::clamp(r.length, 0L, length - loc);
    return Range{loc, len};
}

// Attributes the desktop may derive; probed to list attribute names.
const char* const kDerivedNames[] = {
    "AXParent",
    "AXChildren",
    "AXPosition",
    "AXSize",
    "AXTopLevelUIElement",
    "AXWindow",
    "AXFocused",
    "AXMain",
    "AXEnabled",
    "AXValue",
    "AXNumberOfCharacters",
    "AXSelectedTextRange",
    "AXSelectedText",
    "AXInsertionPointLineNumber",
    "AXVisibleCharacterRange",
    "AXWindows",
    "AXFocusedUIElement",
    "AXFocusedWindow",
    "AXMainWindow",
    "AXFrontmost",
    "AXEnhancedUserInterface",
    "AXMenuBar",
    "AXFocusedApplication",
};

}  // namespace

// --- SimApp

SimApp::SimApp(pid_t pid, std::string bundleIdentifier, std::string localizedName)
    : pid_(pid),
      bundleIdentifier_(std::move(bundleIdentifier)),
      localizedName_(std::move(localizedName)) {}

SimTreeResult SimApp::load(const std::string& treeText) {
    return loadTreeText(root_, treeText);
}

std::string SimApp::dump() const {
    return dumpTree(root_);
}

SimNodePtr SimApp::focusedElement() const {
    return alive(focused_);
}

SimNodePtr SimApp::focusedWindow() const {
    return alive(focusedWindow_);
}

SimNodePtr SimApp::mainWindow() const {
    if (auto pinned = alive(mainWindow_)) return pinned;
    for (auto& c : root_->children()) {
        auto m = c->stored("AXMain");
        if (c->role() == "AXWindow" && m && m->get<bool>() && *m->get<bool>()) return c;
    }
    return focusedWindow();
}

void SimApp::answerCannotComplete(int calls, unsigned which) {
    busyCalls_ = calls;
    busyWhich_ = which;
}

std::optional<bool> SimApp::enhancedUserInterface() const {
    auto v = root_->stored("AXEnhancedUserInterface");
    if (!v || !v->get<bool>()) return std::nullopt;
    return *v->get<bool>();
}

bool SimApp::takeBusy(unsigned call) {
    if (busyCalls_ <= 0 || !(busyWhich_ & call)) return false;
    --busyCalls_;
    return true;
}

// --- SimDesktop: life and platform

std::shared_ptr<SimDesktop> SimDesktop::create(std::shared_ptr<MainLoop> loop) {
    if (!loop) loop = std::make_shared<VirtualMainLoop>();
    return std::make_shared<SimDesktop>(Private{}, std::move(loop));
}

SimDesktop::SimDesktop(Private, std::shared_ptr<MainLoop> loop)
    : serial_(gDesktopSerial++),
      loop_(std::move(loop)),
      vloop_(dynamic_cast<VirtualMainLoop*>(loop_.get())),
      ax_(*this),
      workspace_(*this),
      speech_(*this),
      messagePorts_(*this),
      host_(*this) {
    systemWide_ = std::make_shared<SimNode>(SimNode::Key{}, SimNode::Kind::SystemWide, serial_,
                                            std::weak_ptr<SimApp>());
    systemWide_->attrs_["AXRole"] = "AXSystemWide";
}

SimDesktop::~SimDesktop() = default;

std::shared_ptr<Platform> SimDesktop::platform() {
    if (auto p = platform_.lock()) return p;
    auto self = shared_from_this();
    auto p = std::make_shared<Platform>();
    p->name = "sim";
    p->loop = loop_;
    p->ax = std::shared_ptr<AccessibilityAPI>(self, &ax_);
    p->workspace = std::shared_ptr<Workspace>(self, &workspace_);
    p->displays = std::shared_ptr<Displays>(self, &displays_);
    p->speech = std::shared_ptr<SpeechEngine>(self, &speech_);
    p->messagePorts = std::shared_ptr<MessagePorts>(self, &messagePorts_);
    p->defaults = std::shared_ptr<UserDefaults>(self, &defaults_);
    p->app = std::shared_ptr<ApplicationHost>(self, &host_);
    platform_ = p;
    return p;
}

std::shared_ptr<Platform> SimDesktop::install() {
    auto p = platform();
    installPlatform(p);
    return p;
}

void SimDesktop::uninstall() {
    auto p = installedPlatform();
    if (p && p->ax.get() == &ax_) installPlatform(nullptr);
}

size_t SimDesktop::runUntilIdle() {
    return vloop_ ? vloop_->runUntilIdle() : 0;
}

size_t SimDesktop::advance(double seconds) {
    return vloop_ ? vloop_->advance(seconds) : 0;
}

// --- Applications

SimApp& SimDesktop::addApplication(pid_t pid, const std::string& bundleIdentifier,
                                   const std::string& localizedName) {
    if (auto it = apps_.find(pid); it != apps_.end()) {
        std::fprintf(stderr, "SimDesktop: pid %d already runs; keeping %s\n", int(pid),
                     it->second->bundleIdentifier().c_str());
        return *it->second;
    }
    auto app = std::make_shared<SimApp>(pid, bundleIdentifier, localizedName);
    app->root_ =
        std::make_shared<SimNode>(SimNode::Key{}, SimNode::Kind::Application, serial_, app);
    app->root_->attrs_["AXRole"] = "AXApplication";
    app->root_->attrs_["AXTitle"] = localizedName;
    apps_[pid] = app;
    launchOrder_.push_back(pid);
    zOrder_.push_back(pid);
    if (!frontmost_) frontmost_ = pid;
    return *app;
}

SimApp& SimDesktop::launchApplication(pid_t pid, const std::string& bundleIdentifier,
                                      const std::string& localizedName) {
    bool existed = apps_.count(pid) != 0;
    SimApp& app = addApplication(pid, bundleIdentifier, localizedName);
    if (!existed) {
        loop_->post([w = weak_from_this(), info = app.info()] {
            if (auto d = w.lock()) d->workspace_.didLaunchApplication.emit(info);
        });
    }
    return app;
}

void SimDesktop::terminateApplication(pid_t pid) {
    auto it = apps_.find(pid);
    if (it == apps_.end()) return;
    auto app = it->second;
    app->running_ = false;
    apps_.erase(it);
    std::erase(launchOrder_, pid);
    std::erase(zOrder_, pid);
    terminated_.push_back(app);
    loop_->post([w = weak_from_this(), info = app->info()] {
        if (auto d = w.lock()) d->workspace_.didTerminateApplication.emit(info);
    });
    if (frontmost_ == pid) {
        frontmost_ = 0;
        if (!zOrder_.empty()) switchFront(zOrder_.front(), true);
    }
}

SimApp* SimDesktop::application(pid_t pid) {
    auto it = apps_.find(pid);
    return it == apps_.end() ? nullptr : it->second.get();
}

SimApp* SimDesktop::applicationWithBundleIdentifier(const std::string& bundleIdentifier) {
    for (pid_t pid : launchOrder_)
        if (apps_[pid]->bundleIdentifier() == bundleIdentifier) return apps_[pid].get();
    return nullptr;
}

std::vector<SimApp*> SimDesktop::applications() {
    std::vector<SimApp*> out;
    for (pid_t pid : launchOrder_) out.push_back(apps_[pid].get());
    return out;
}

SimApp* SimDesktop::frontmost() {
    return frontmost_ ? application(frontmost_) : nullptr;
}

void SimDesktop::activate(pid_t pid) {
    if (apps_.count(pid)) switchFront(pid, true);
}

void SimDesktop::switchFront(pid_t pid, bool signal) {
    if (frontmost_ == pid) return;
    SimApp* old = frontmost();
    frontmost_ = pid;
    std::erase(zOrder_, pid);
    zOrder_.insert(zOrder_.begin(), pid);
    if (old) post(old->root(), "AXApplicationDeactivated");
    post(apps_[pid]->root(), "AXApplicationActivated");
    if (signal) {
        loop_->post([w = weak_from_this(), pid] {
            if (auto d = w.lock()) d->workspace_.frontApplicationSwitched.emit(pid);
        });
    }
}

// --- References

SimNodePtr SimDesktop::resolve(const AXUIElementRef& ref, Resolve* why) const {
    Resolve dummy;
    if (!why) why = &dummy;
    auto r = SimElementRef::from(ref);
    if (!r) {
        *why = Resolve::Foreign;
        return nullptr;
    }
    *why = Resolve::Dead;
    switch (r->kind()) {
        case SimElementRef::Kind::SystemWide:
            *why = Resolve::Ok;
            return systemWide_;
        case SimElementRef::Kind::Application: {
            auto it = apps_.find(r->pid());
            if (it == apps_.end()) return nullptr;
            *why = Resolve::Ok;
            return it->second->root();
        }
        case SimElementRef::Kind::Node:
            break;
    }
    auto n = r->node();
    if (!n || n->desktopSerial() != serial_ || !n->isAlive()) return nullptr;
    *why = Resolve::Ok;
    return n;
}

SimNodePtr SimDesktop::node(const AXUIElementRef& ref) const {
    return resolve(ref);
}

// --- Attribute rules

AXError SimDesktop::answerFault(const SimFault& fault, const std::string& operation,
                                const std::string& attribute) {
    if (fault.raises) {
        std::string reason =
            fault.reason.empty() ? "simulated exception reading " + attribute : fault.reason;
        throw PlatformException(fault.exceptionName, reason,
                                {"SimDesktop " + operation + " " + attribute});
    }
    return fault.error;
}

Point SimDesktop::textOrigin(const SimNode& node) const {
    const TextMetrics& m = node.textMetrics() ? *node.textMetrics() : metrics_;
    Point o = node.frame() ? node.frame()->origin : Point{};
    return Point{o.x + m.insetX, o.y + m.insetY};
}

std::optional<AXError> SimDesktop::derived(const SimNodePtr& n, const std::string& a,
                                           AXValue* out) {
    auto answer = [out](AXValue v) -> std::optional<AXError> {
        *out = std::move(v);
        return kAXErrorSuccess;
    };
    auto element = [&](const SimNodePtr& e) -> std::optional<AXError> {
        if (!e) return kAXErrorNoValue;
        return answer(ref(e));
    };
    auto children = [&](bool windowsOnly) {
        AXArray items;
        for (auto& c : n->children())
            if (!windowsOnly || c->role() == "AXWindow") items.emplace_back(ref(c));
        return answer(std::move(items));
    };

    switch (n->kind()) {
        case SimNode::Kind::SystemWide: {
            SimApp* front = frontmost();
            if (a == "AXFocusedUIElement")
                return element(front ? front->focusedElement() : nullptr);
            if (a == "AXFocusedApplication") return element(front ? front->root() : nullptr);
            return std::nullopt;
        }
        case SimNode::Kind::Application: {
            SimApp* app = n->app();
            if (a == "AXChildren") return children(false);
            if (a == "AXWindows") return children(true);
            if (a == "AXFocusedUIElement") return element(app->focusedElement());
            if (a == "AXFocusedWindow") return element(app->focusedWindow());
            if (a == "AXMainWindow") return element(app->mainWindow());
            if (a == "AXFrontmost") return answer(frontmost_ == app->pid());
            if (a == "AXEnhancedUserInterface") return answer(false);
            if (a == "AXMenuBar") {
                for (auto& c : n->children())
                    if (c->role() == "AXMenuBar") return element(c);
            }
            return std::nullopt;
        }
        case SimNode::Kind::Element:
            break;
    }

    if (auto web = webContentAttribute(n, a, out)) return web;
    SimApp* app = n->app();
    if (a == "AXParent") return element(n->parent());
    if (a == "AXChildren") return children(false);
    if (a == "AXEnabled") return answer(true);
    if (a == "AXFocused") return answer(app && app->focusedElement() == n);
    if (n->frame()) {
        if (a == "AXPosition") return answer(n->frame()->origin);
        if (a == "AXSize") return answer(n->frame()->size);
    }
    if (a == "AXTopLevelUIElement" || a == "AXWindow") {
        if (auto w = windowOf(n)) return element(w);
        return std::nullopt;
    }
    if (a == "AXMain" && n->role() == "AXWindow") return answer(app && app->mainWindow() == n);
    // Windows answer whether they are full screen, as real ones do; a test sets it to true.
    if (a == "AXFullScreen" && n->role() == "AXWindow") return answer(false);
    if (n->isText()) {
        const TextLayout& layout = n->layout();
        Range sel = clampTo(n->selection(), layout.length());
        if (a == "AXValue") return answer(n->text());
        if (a == "AXNumberOfCharacters") return answer(layout.length());
        if (a == "AXSelectedTextRange") return answer(sel);
        if (a == "AXSelectedText") return answer(layout.substring(sel).value_or(""));
        if (a == "AXInsertionPointLineNumber")
            return answer(layout.lineForIndex(sel.location + sel.length));
        if (a == "AXVisibleCharacterRange") return answer(Range{0, layout.length()});
    }
    return std::nullopt;
}

std::optional<AXError> SimDesktop::derivedParameterized(const SimNodePtr& n, const std::string& a,
                                                        const AXValue& parameter, AXValue* out) {
    if (auto web = webContentParameterized(*this, n, a, parameter, out)) return web;
    if (!n->isText()) return std::nullopt;
    const TextLayout& layout = n->layout();
    const Range* range = parameter.get<Range>();
    const int64_t* index = parameter.get<int64_t>();
    auto answer = [out](AXValue v) -> std::optional<AXError> {
        *out = std::move(v);
        return kAXErrorSuccess;
    };
    if (a == "AXBoundsForRange") {
        if (!range || !layout.isValid(*range)) return kAXErrorIllegalArgument;
        Range r = *range;
        if (n->reportsZeroBoundsAtEnd() && r.location + r.length == layout.length())
            return answer(Rect());
        if (n->reportsFirstCharacterBounds() && r.length > 0) r = Range{0, 1};
        const TextMetrics& m = n->textMetrics() ? *n->textMetrics() : metrics_;
        return answer(*layout.boundsForRange(r, textOrigin(*n), m));
    }
    if (a == "AXStringForRange") {
        if (!range || !layout.isValid(*range)) return kAXErrorIllegalArgument;
        return answer(*layout.substring(*range));
    }
    if (a == "AXRangeForLine") {
        auto r = index ? layout.rangeForLine(static_cast<long>(*index)) : std::nullopt;
        if (!r) return kAXErrorIllegalArgument;
        return answer(*r);
    }
    if (a == "AXLineForIndex") {
        long line = index ? layout.lineForIndex(static_cast<long>(*index)) : -1;
        if (line < 0) return kAXErrorIllegalArgument;
        return answer(line);
    }
    return std::nullopt;
}

AXError SimDesktop::readAttribute(const AXUIElementRef& element, const std::string& attribute,
                                  AXValue* out) {
    Resolve why;
    auto n = resolve(element, &why);
    if (!n) return why == Resolve::Foreign ? kAXErrorIllegalArgument : kAXErrorInvalidUIElement;
    if (SimApp* app = n->app(); app && app->takeBusy(kSimReads)) return kAXErrorCannotComplete;
    if (auto fault = n->takeReadFault(attribute))
        return answerFault(*fault, "copyAttributeValue", attribute);
    if (n->isRemoved(attribute)) return kAXErrorAttributeUnsupported;
    if (auto v = n->stored(attribute)) {
        if (v->isNone()) return kAXErrorNoValue;
        if (out) *out = freshenElements(*v);
        return kAXErrorSuccess;
    }
    AXValue value;
    auto result = derived(n, attribute, &value);
    if (!result) return kAXErrorAttributeUnsupported;
    if (*result == kAXErrorSuccess && out) *out = std::move(value);
    return *result;
}

AXError SimDesktop::readParameterized(const AXUIElementRef& element, const std::string& attribute,
                                      const AXValue& parameter, AXValue* out) {
    Resolve why;
    auto n = resolve(element, &why);
    if (!n) return why == Resolve::Foreign ? kAXErrorIllegalArgument : kAXErrorInvalidUIElement;
    if (SimApp* app = n->app(); app && app->takeBusy(kSimReads)) return kAXErrorCannotComplete;
    if (auto fault = n->takeReadFault(attribute))
        return answerFault(*fault, "copyParameterizedAttributeValue", attribute);
    if (n->isRemoved(attribute)) return kAXErrorParameterizedAttributeUnsupported;
    AXValue value;
    AXError result;
    if (auto handler = n->parameterized(attribute)) {
        result = (*handler)(parameter, &value);
        value = freshenElements(value);
    } else if (auto d = derivedParameterized(n, attribute, parameter, &value)) {
        result = *d;
    } else {
        return kAXErrorParameterizedAttributeUnsupported;
    }
    if (result == kAXErrorSuccess && out) *out = std::move(value);
    return result;
}

AXError SimDesktop::attributeNames(const AXUIElementRef& element, std::vector<std::string>* out) {
    Resolve why;
    auto n = resolve(element, &why);
    if (!n) return why == Resolve::Foreign ? kAXErrorIllegalArgument : kAXErrorInvalidUIElement;
    if (SimApp* app = n->app(); app && app->takeBusy(kSimReads)) return kAXErrorCannotComplete;
    if (auto fault = n->takeReadFault("AXAttributeNames"))
        return answerFault(*fault, "copyAttributeNames", "AXAttributeNames");
    std::set<std::string> names;
    for (auto& [name, v] : n->storedAttributes()) names.insert(name);
    for (const char* name : kDerivedNames) {
        AXValue ignored;
        if (derived(n, name, &ignored)) names.insert(name);
    }
    for (auto& [name, settable] : n->settableFlags())
        if (settable) names.insert(name);
    if (n->kind() == SimNode::Kind::Application) names.insert("AXEnhancedUserInterface");
    if (out) {
        out->clear();
        for (auto& name : names)
            if (!n->isRemoved(name)) out->push_back(name);
    }
    return kAXErrorSuccess;
}

AXError SimDesktop::attributeSettable(const AXUIElementRef& element, const std::string& attribute,
                                      bool* settable) {
    Resolve why;
    auto n = resolve(element, &why);
    if (!n) return why == Resolve::Foreign ? kAXErrorIllegalArgument : kAXErrorInvalidUIElement;
    if (SimApp* app = n->app(); app && app->takeBusy(kSimReads)) return kAXErrorCannotComplete;
    if (n->isRemoved(attribute)) return kAXErrorAttributeUnsupported;
    bool s = n->isSettable(attribute);
    if (!s) {
        AXValue ignored;
        if (!n->stored(attribute) && !derived(n, attribute, &ignored))
            return kAXErrorAttributeUnsupported;
    }
    if (settable) *settable = s;
    return kAXErrorSuccess;
}

AXError SimDesktop::writeAttribute(const AXUIElementRef& element, const std::string& attribute,
                                   const AXValue& value) {
    Resolve why;
    auto n = resolve(element, &why);
    auto ref = SimElementRef::from(element);
    auto finish = [&](AXError e) {
        sets_.push_back(SetRecord{n ? n->id() : (ref ? ref->nodeId() : 0), ref ? ref->pid() : 0,
                                  attribute, value, e, now()});
        return e;
    };
    if (!n)
        return finish(why == Resolve::Foreign ? kAXErrorIllegalArgument : kAXErrorInvalidUIElement);
    if (SimApp* app = n->app(); app && app->takeBusy(kSimSets))
        return finish(kAXErrorCannotComplete);
    if (auto fault = n->takeSetFault(attribute))
        return finish(answerFault(*fault, "setAttributeValue", attribute));
    if (n->isRemoved(attribute) || !n->isSettable(attribute))
        return finish(kAXErrorAttributeUnsupported);

    const bool* flag = value.get<bool>();
    if (n->kind() == SimNode::Kind::Application) {
        if (attribute == "AXFrontmost") {
            if (!flag) return finish(kAXErrorIllegalArgument);
            if (*flag) activate(n->app()->pid());
            return finish(kAXErrorSuccess);
        }
        n->set(attribute, value);
        return finish(kAXErrorSuccess);
    }
    if (n->isText()) {
        if (attribute == "AXValue") {
            auto s = value.get<std::string>();
            if (!s) return finish(kAXErrorIllegalArgument);
            setTextValue(n, *s);
            return finish(kAXErrorSuccess);
        }
        if (attribute == "AXSelectedTextRange") {
            auto r = value.get<Range>();
            if (!r || !n->layout().isValid(*r)) return finish(kAXErrorIllegalArgument);
            select(n, *r);
            return finish(kAXErrorSuccess);
        }
        if (attribute == "AXSelectedText") {
            auto s = value.get<std::string>();
            if (!s) return finish(kAXErrorIllegalArgument);
            replaceSelection(n, *s);
            return finish(kAXErrorSuccess);
        }
    }
    if (attribute == "AXFocused") {
        if (!flag) return finish(kAXErrorIllegalArgument);
        if (*flag) focus(n);
        return finish(kAXErrorSuccess);
    }
    if (attribute == "AXPosition") {
        auto p = value.get<Point>();
        if (!p) return finish(kAXErrorIllegalArgument);
        move(n, *p);
        return finish(kAXErrorSuccess);
    }
    if (attribute == "AXSize") {
        auto s = value.get<Size>();
        if (!s) return finish(kAXErrorIllegalArgument);
        resize(n, *s);
        return finish(kAXErrorSuccess);
    }
    if (attribute == "AXMain" && n->role() == "AXWindow") {
        if (!flag) return finish(kAXErrorIllegalArgument);
        SimApp* app = n->app();
        if (*flag && app->mainWindow() != n) {
            app->setMainWindow(n);
            post(n, "AXMainWindowChanged");
        }
        return finish(kAXErrorSuccess);
    }
    n->set(attribute, value);
    return finish(kAXErrorSuccess);
}

AXError SimDesktop::recordTimeout(const AXUIElementRef& element, float seconds) {
    Resolve why;
    auto n = resolve(element, &why);
    if (!n) return why == Resolve::Foreign ? kAXErrorIllegalArgument : kAXErrorInvalidUIElement;
    if (seconds < 0) return kAXErrorIllegalArgument;
    n->recordMessagingTimeout(seconds);
    return kAXErrorSuccess;
}

// --- Hit-testing

void SimDesktop::hitTest(const SimNodePtr& node, Point p, int depth, SimNodePtr* best,
                         int* bestDepth) const {
    // Ancestors do not clip: the deepest framed element holding the point wins, and among equally
    // deep ones the later, drawn over the earlier.
    if (node->frame() && node->frame()->contains(p) && depth >= *bestDepth) {
        *best = node;
        *bestDepth = depth;
    }
    for (auto& c : node->children()) hitTest(c, p, depth + 1, best, bestDepth);
}

AXError SimDesktop::elementAtPosition(const AXUIElementRef& element, Point point,
                                      AXUIElementRef* out) {
    if (out) *out = nullptr;
    auto r = SimElementRef::from(element);
    if (!r || r->kind() == SimElementRef::Kind::Node) return kAXErrorIllegalArgument;
    std::vector<SimApp*> order;
    if (r->kind() == SimElementRef::Kind::SystemWide) {
        for (pid_t pid : zOrder_) order.push_back(apps_[pid].get());
    } else {
        SimApp* app = application(r->pid());
        if (!app) return kAXErrorInvalidUIElement;
        if (app->takeBusy(kSimReads)) return kAXErrorCannotComplete;
        order.push_back(app);
    }
    for (SimApp* app : order) {
        // Windows are listed front to back; the first holding the point takes it.
        for (auto& window : app->root()->children()) {
            if (window->frame() && !window->frame()->contains(point)) continue;
            SimNodePtr hit;
            int depth = -1;
            hitTest(window, point, 0, &hit, &depth);
            if (hit) {
                if (out) *out = ref(hit);
                return kAXErrorSuccess;
            }
        }
    }
    return kAXErrorNoValue;
}

// --- Observation

AXError SimDesktop::makeObserver(pid_t pid, AXObserverCallback callback, AXObserverRef* out) {
    if (out) *out = nullptr;
    if (pid <= 0 || !callback) return kAXErrorIllegalArgument;
    if (SimApp* app = application(pid); app && app->observerCreationError())
        return *app->observerCreationError();
    auto observer = std::make_shared<SimObserver>(weak_from_this(), pid, std::move(callback));
    std::erase_if(observers_, [](auto& w) { return w.expired(); });
    observers_.push_back(observer);
    if (out) *out = observer;
    return kAXErrorSuccess;
}

void SimDesktop::post(const SimNodePtr& element, const std::string& notification) {
    // Gone elements and ended applications post nothing.
    if (!element || !element->isAlive()) return;
    SimApp* app = element->app();
    pid_t pid = app ? app->pid() : 0;
    posted_.push_back(PostedNotification{notification, element->id(), pid, now()});
    if (!pid) return;
    AXUIElementRef named = ref(element);
    AXUIElementRef appRef = SimElementRef::forApplication(pid);
    std::erase_if(observers_, [](auto& w) { return w.expired(); });
    for (auto& weak : observers_) {
        auto observer = weak.lock();
        if (!observer || observer->pid() != pid) continue;
        // Routed now, like a message to the observer's port; delivered on a later turn.
        std::vector<uint64_t> ids;
        for (auto& reg : observer->registrations())
            if (reg.notification == notification &&
                (axEqual(reg.element, named) || axEqual(reg.element, appRef)))
                ids.push_back(reg.id);
        if (ids.empty()) continue;
        loop_->post([desk = weak_from_this(), weak, ids, named, notification] {
            if (auto d = desk.lock()) d->deliver(weak, ids, named, notification);
        });
    }
}

void SimDesktop::deliver(const std::weak_ptr<SimObserver>& weak,
                         const std::vector<uint64_t>& registrations, const AXUIElementRef& named,
                         const std::string& notification) {
    auto observer = weak.lock();
    if (!observer) return;
    if (!observer->isAttached()) {
        dropped_ += registrations.size();
        return;
    }
    for (uint64_t id : registrations) {
        // A callback may remove later registrations; those are not called.
        const SimObserver::Registration* reg = observer->registration(id);
        if (!reg) continue;
        void* refcon = reg->refcon;
        ++delivered_;
        AXObserverCallback callback = observer->callback();
        callback(*observer, SimElementRef::fresh(named), notification, refcon);
    }
}

size_t SimDesktop::observerCount() {
    std::erase_if(observers_, [](auto& w) { return w.expired(); });
    return observers_.size();
}

size_t SimDesktop::registrationCount() {
    size_t n = 0;
    for (auto& w : observers_)
        if (auto o = w.lock()) n += o->registrations().size();
    return n;
}

size_t SimDesktop::registrationCount(const std::string& notification) {
    size_t n = 0;
    for (auto& w : observers_)
        if (auto o = w.lock())
            for (auto& reg : o->registrations()) n += reg.notification == notification;
    return n;
}

size_t SimDesktop::registrationCount(const SimNodePtr& element, const std::string& notification) {
    auto target = ref(element);
    size_t n = 0;
    for (auto& w : observers_)
        if (auto o = w.lock())
            for (auto& reg : o->registrations())
                n += reg.notification == notification && axEqual(reg.element, target);
    return n;
}

size_t SimDesktop::postedCount(const std::string& notification) const {
    return std::count_if(posted_.begin(), posted_.end(),
                         [&](auto& p) { return p.notification == notification; });
}

size_t SimDesktop::setAttempts(const std::string& attribute) const {
    return std::count_if(sets_.begin(), sets_.end(),
                         [&](auto& s) { return s.attribute == attribute; });
}

// --- Actions

void SimDesktop::focus(const SimNodePtr& element) {
    if (!element || element->kind() != SimNode::Kind::Element || !element->isAlive()) return;
    SimApp* app = element->app();
    if (app->focusedElement() == element) return;
    app->focused_ = element;
    auto window = windowOf(element);
    if (window && window != app->focusedWindow()) focusWindow(window);
    post(element, "AXFocusedUIElementChanged");
}

void SimDesktop::focusSilently(const SimNodePtr& element) {
    if (!element || element->kind() != SimNode::Kind::Element || !element->isAlive()) return;
    SimApp* app = element->app();
    app->focused_ = element;
    if (auto window = windowOf(element)) app->focusedWindow_ = window;
}

void SimDesktop::clearFocus(SimApp& app) {
    if (!app.focusedElement()) return;
    app.focused_.reset();
    post(app.root(), "AXFocusedUIElementChanged");
}

void SimDesktop::focusWindow(const SimNodePtr& window) {
    if (!window || window->kind() != SimNode::Kind::Element || !window->isAlive()) return;
    SimApp* app = window->app();
    if (app->focusedWindow() == window) return;
    auto oldMain = app->mainWindow();
    app->focusedWindow_ = window;
    post(window, "AXFocusedWindowChanged");
    auto newMain = app->mainWindow();
    if (newMain && newMain != oldMain) post(newMain, "AXMainWindowChanged");
}

void SimDesktop::shift(const SimNodePtr& node, double dx, double dy) {
    if (node->frame_) {
        node->frame_->origin.x += dx;
        node->frame_->origin.y += dy;
    }
    for (auto& c : node->children()) shift(c, dx, dy);
}

void SimDesktop::move(const SimNodePtr& element, Point origin) {
    if (!element || element->kind() != SimNode::Kind::Element || !element->isAlive()) return;
    if (!element->frame_) element->frame_ = Rect(origin, Size{});
    // Contents travel with their container.
    shift(element, origin.x - element->frame_->origin.x, origin.y - element->frame_->origin.y);
    post(element, element->role() == "AXWindow" ? "AXWindowMoved" : "AXMoved");
}

void SimDesktop::resize(const SimNodePtr& element, Size size) {
    if (!element || element->kind() != SimNode::Kind::Element || !element->isAlive()) return;
    if (!element->frame_) element->frame_ = Rect();
    element->frame_->size = size;
    post(element, element->role() == "AXWindow" ? "AXWindowResized" : "AXResized");
}

void SimDesktop::setFrame(const SimNodePtr& element, Rect frame) {
    if (!element) return;
    std::optional<Rect> old = element->frame();
    if (!old || old->origin != frame.origin) move(element, frame.origin);
    if (!old || old->size != frame.size) resize(element, frame.size);
}

void SimDesktop::destroy(const SimNodePtr& element) {
    if (!element || element->kind() != SimNode::Kind::Element || element->destroyed_) return;
    post(element, "AXUIElementDestroyed");
    if (auto parent = element->parent()) std::erase(parent->children_, element);
    element->markDestroyed();
}

void SimDesktop::replaceSelection(const SimNodePtr& element, const std::string& with) {
    if (!element || !element->isText() || !element->isAlive()) return;
    Range sel = clampTo(element->selection(), element->layout().length());
    std::string next = *element->layout().replacing(sel, with);
    element->setText(next);
    element->setSelection(Range{sel.location + TextLayout::utf16Length(with), 0});
    post(element, "AXValueChanged");
    post(element, "AXSelectedTextChanged");
}

void SimDesktop::typeText(const SimNodePtr& element, const std::string& text) {
    replaceSelection(element, text);
}

void SimDesktop::deleteBackward(const SimNodePtr& element) {
    if (!element || !element->isText()) return;
    Range sel = clampTo(element->selection(), element->layout().length());
    if (sel.length == 0) {
        if (sel.location == 0) return;
        element->setSelection(Range{sel.location - 1, 1});
    }
    replaceSelection(element, "");
}

void SimDesktop::select(const SimNodePtr& element, Range range) {
    if (!element || !element->isText() || !element->isAlive()) return;
    element->setSelection(clampTo(range, element->layout().length()));
    post(element, "AXSelectedTextChanged");
}

void SimDesktop::setTextValue(const SimNodePtr& element, const std::string& text) {
    if (!element || !element->isText() || !element->isAlive()) return;
    element->setText(text);
    post(element, "AXValueChanged");
}

}  // namespace orv::sim
