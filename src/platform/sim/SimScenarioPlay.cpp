// Doing the actions of a scenario's timeline, and playing it on a main loop.

#include <algorithm>
#include <map>

#include "platform/sim/SimScenarioParts.h"

namespace orv::sim {

namespace scenario_parts {

using Step = Scenario::Step;
using Kind = Scenario::Step::Kind;

void collectReferences(const TreeValue& v, std::vector<std::string>* out) {
    if (!v.reference.empty()) out->push_back(v.reference);
    for (auto& item : v.items) collectReferences(item, out);
}

const ActionInfo* actionInfo(std::string_view keyword) {
    static const std::map<std::string, ActionInfo, std::less<>> kActions = {
        {"focus", {Kind::Focus, Need::Element}},
        {"unfocus", {Kind::Unfocus, Need::Application}},
        {"set", {Kind::Set, Need::Any}},
        {"post", {Kind::Post, Need::Any}},
        {"front", {Kind::Front, Need::Application}},
        {"launch", {Kind::Launch, Need::None}},
        {"quit", {Kind::Quit, Need::Application}},
        {"move", {Kind::Move, Need::Element}},
        {"resize", {Kind::Resize, Need::Element}},
        {"type", {Kind::Type, Need::Text}},
        {"select", {Kind::Select, Need::Text}},
        {"pointer", {Kind::Pointer, Need::None}},
        {"add", {Kind::Add, Need::Any}},
        {"destroy", {Kind::Destroy, Need::Element}},
        {"delete", {Kind::Delete, Need::Text}},
        {"select-web", {Kind::SelectWeb, Need::Element}},
        {"caret-web", {Kind::CaretWeb, Need::Element}},
        {"caret-in", {Kind::CaretIn, Need::Element}},
        {"open-list", {Kind::OpenList, Need::Element}},
        {"pick", {Kind::Pick, Need::Element}},
        {"close-list", {Kind::CloseList, Need::Element}},
        {"fail", {Kind::Fail, Need::Any, true}},
        {"raise", {Kind::Raise, Need::Any, true}},
        {"first-char-bounds", {Kind::FirstCharBounds, Need::Text, true}},
        {"zero-bounds-at-end", {Kind::ZeroBoundsAtEnd, Need::Text, true}},
        {"quiet-focus", {Kind::QuietFocus, Need::Element}},
        {"quiet-move", {Kind::QuietMove, Need::Element}},
        {"quiet-select", {Kind::QuietSelect, Need::Text}},
        {"quiet-text", {Kind::QuietText, Need::Text}},
    };
    auto it = kActions.find(keyword);
    return it == kActions.end() ? nullptr : &it->second;
}

std::string roleText(const SimNode& node) {
    return node.role().empty() ? "without a role" : "a " + outsideText(node.role());
}

Outcome treeFailure(const Scenario::Block& block, const SimTreeResult& r, int headerLine) {
    return {r.error, r.line > 0 ? block.firstLine + r.line - 1 : headerLine};
}

namespace {

AXValue resolveValue(SimDesktop& desk, const Scenario& sc, const TreeValue& v) {
    if (!v.reference.empty()) return AXValue(desk.ref(sc.find(desk, v.reference)));
    if (v.isArray) {
        AXArray items;
        for (auto& item : v.items) items.push_back(resolveValue(desk, sc, item));
        return AXValue(std::move(items));
    }
    return v.value;
}

}  // namespace

Outcome playStep(SimDesktop& desk, const Scenario& sc, const Step& s) {
    SimNodePtr node;
    if (!s.target.empty()) {
        node = sc.find(desk, s.target);
        if (!node) return {"skipped: #" + outsideText(s.target) + " is not there"};
    }
    switch (s.kind) {
        case Kind::Focus:
            desk.focus(node);
            break;
        case Kind::Unfocus:
            desk.clearFocus(*node->app());
            break;
        case Kind::Set: {
            for (auto& [key, value] : s.attributes) {
                std::vector<std::string> refs;
                collectReferences(value, &refs);
                for (auto& r : refs)
                    if (!sc.find(desk, r)) return {"skipped: @" + outsideText(r) + " is not there"};
            }
            for (auto& [key, value] : s.attributes) node->set(key, resolveValue(desk, sc, value));
            break;
        }
        case Kind::Post:
            desk.post(node, s.word);
            break;
        case Kind::Front:
            desk.activate(node->app()->pid());
            break;
        case Kind::Launch: {
            if (desk.application(s.app.pid))
                return {"skipped: pid " + std::to_string(s.app.pid) + " already runs"};
            SimApp& app = desk.launchApplication(s.app.pid, s.app.bundleIdentifier, s.app.name);
            auto loaded = app.load(s.app.tree.text);
            if (!loaded.ok()) return treeFailure(s.app.tree, loaded, s.line);
            sc.remember(app.root());
            break;
        }
        case Kind::Quit:
            desk.terminateApplication(node->app()->pid());
            break;
        case Kind::Move:
            desk.move(node, Point{s.a, s.b});
            break;
        case Kind::Resize:
            desk.resize(node, Size{s.a, s.b});
            break;
        case Kind::Type:
            desk.typeText(node, s.word);
            break;
        case Kind::Select:
            desk.select(node, Range{static_cast<long>(s.a), static_cast<long>(s.b)});
            break;
        case Kind::Pointer:
            desk.displays().setMouseLocationTopLeft(Point{s.a, s.b});
            break;
        case Kind::Add: {
            auto loaded = loadTreeText(node, s.tree.text);
            if (!loaded.ok()) return treeFailure(s.tree, loaded, s.line);
            for (auto& made : loaded.nodes) sc.remember(made);
            break;
        }
        case Kind::Destroy:
            desk.destroy(node);
            break;
        default:
            return playTextStep(desk, sc, s, node);
    }
    return {};
}

}  // namespace scenario_parts

using namespace scenario_parts;

// --- Scenario

SimNodePtr Scenario::find(SimDesktop& desk, std::string_view label) const {
    const std::string_view name = withoutHash(label);
    auto it = labels_.find(name);
    if (it == labels_.end()) return nullptr;
    SimApp* app = desk.application(it->second.pid);
    if (!app) return nullptr;
    if (it->second.isApp) return app->root();
    std::lock_guard lock(foundMutex_);
    if (auto node = known(name, app)) return node;
    // Not seen on this desktop yet: one walk notes every label of the application.
    rememberLocked(app->root());
    return known(name, app);
}

SimNodePtr Scenario::known(std::string_view label, const SimApp* app) const {
    auto f = found_.find(label);
    SimNodePtr node = f == found_.end() ? nullptr : f->second.lock();
    // In this desktop's application, not in that of another desktop playing the same scenario;
    // not destroyed, which is the only way out of a tree.
    if (node && node->app() == app && node->isAlive() && node->label() == label) return node;
    return nullptr;
}

void Scenario::remember(const SimNodePtr& top) const {
    std::lock_guard lock(foundMutex_);
    rememberLocked(top);
}

void Scenario::rememberLocked(const SimNodePtr& top) const {
    std::vector<SimNodePtr> todo = {top};
    while (!todo.empty()) {
        SimNodePtr node = std::move(todo.back());
        todo.pop_back();
        if (!node->label().empty()) found_.insert_or_assign(node->label(), node);
        todo.insert(todo.end(), node->children().begin(), node->children().end());
    }
}

pid_t Scenario::pidOf(std::string_view label) const {
    auto it = labels_.find(withoutHash(label));
    return it == labels_.end() ? 0 : it->second.pid;
}

// --- Player

struct ScenarioPlayer::State : std::enable_shared_from_this<State> {
    std::weak_ptr<SimDesktop> desk;
    std::shared_ptr<const Scenario> scenario;
    std::function<void(const Event&)> onEvent;
    std::function<void()> onEnd;
    double start = 0;
    size_t next = 0;
    bool started = false;
    bool playing = false;
    bool ended = false;
    TimerRef timer;

    // One action per timer, each due time measured from the start so a real loop does not
    // drift, and actions due together still run on separate turns in file order: what the
    // first one posted is delivered before the second happens.
    void scheduleNext(SimDesktop& d) {
        const auto& steps = scenario->steps_;
        double due = next < steps.size() ? steps[next].time : scenario->endTime();
        double delay = std::max(0.0, start + due - d.loop().now());
        timer = d.loop().scheduleTimer(delay, false, [weak = weak_from_this()](Timer&) {
            if (auto self = weak.lock()) self->fire();
        });
    }

    void fire() {
        timer.reset();
        auto d = desk.lock();
        if (!playing || !d) return;
        const auto& steps = scenario->steps_;
        if (next < steps.size()) {
            const Step& s = steps[next++];
            Outcome done = playStep(*d, *scenario, s);
            std::string text = s.text;
            if (!done.note.empty())
                text += " (" + done.note +
                        (done.line && done.line != s.line ? " at line " + std::to_string(done.line)
                                                          : "") +
                        ")";
            if (onEvent) onEvent(Event{s.time, s.line, text});
            if (playing) scheduleNext(*d);
            return;
        }
        playing = false;
        ended = true;
        if (onEvent) onEvent(Event{scenario->endTime(), scenario->endLine_, "end"});
        if (onEnd) onEnd();
    }
};

ScenarioPlayer::ScenarioPlayer(std::shared_ptr<SimDesktop> desk,
                               std::shared_ptr<const Scenario> scenario)
    : state_(std::make_shared<State>()) {
    state_->desk = desk;
    state_->scenario = std::move(scenario);
}

ScenarioPlayer::~ScenarioPlayer() {
    stop();
}

void ScenarioPlayer::setOnEvent(std::function<void(const Event&)> callback) {
    state_->onEvent = std::move(callback);
}

void ScenarioPlayer::setOnEnd(std::function<void()> callback) {
    state_->onEnd = std::move(callback);
}

void ScenarioPlayer::start() {
    auto desk = state_->desk.lock();
    if (state_->started || !desk || !state_->scenario) return;
    state_->started = true;
    state_->playing = true;
    state_->start = desk->loop().now();
    state_->scheduleNext(*desk);
}

void ScenarioPlayer::stop() {
    state_->playing = false;
    if (state_->timer) state_->timer->invalidate();
    state_->timer.reset();
}

bool ScenarioPlayer::isPlaying() const {
    return state_->playing;
}

bool ScenarioPlayer::hasEnded() const {
    return state_->ended;
}

size_t ScenarioPlayer::actionsPlayed() const {
    return state_->next;
}

}  // namespace orv::sim
