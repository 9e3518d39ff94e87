#include "platform/sim/SimScenario.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <set>

#include "Common/TextLines.h"
#include "platform/sim/SimScenarioParts.h"

namespace orv::sim {

using namespace scenario_parts;

namespace {

using Step = Scenario::Step;
using Kind = Scenario::Step::Kind;

void collectTreeLabels(const std::vector<TreeEntry>& entries,
                       std::vector<std::pair<std::string, int>>* out) {
    for (auto& s : entries) {
        if (!s.label.empty()) out->emplace_back(s.label, s.line);
        collectTreeLabels(s.children, out);
    }
}

struct SetupFailure {
    int line = 0;
    std::string error;
};

}  // namespace

// --- Parser

class ScenarioParser {
  public:
    ScenarioParser(std::string_view text, std::string fileName)
        : sc_(std::make_shared<Scenario>()) {
        sc_->fileName_ = std::move(fileName);
        // A byte-order mark anywhere but at the start is refused, shown as \u{feff}.
        forEachLine(text, [this](std::string_view line) { lines_.push_back(line); });
    }

    ScenarioParse run() {
        ScenarioParse out;
        if (readLines() && checkDisplays() && dryRun()) {
            out.scenario = sc_;
            return out;
        }
        out.line = errorLine_;
        out.error = shownPath(sc_->fileName_) +
                    (errorLine_ > 0 ? ":" + std::to_string(errorLine_) : "") + ": " + error_;
        return out;
    }

  private:
    bool fail(int line, std::string message) {
        if (error_.empty()) {
            errorLine_ = line;
            error_ = std::move(message);
        }
        return false;
    }

    // --- Reading: every line into setup or steps, trees parsed for their syntax and labels.

    bool readLines() {
        size_t i = 0;
        while (i < lines_.size()) {
            int lineNo = static_cast<int>(i) + 1;
            std::string_view raw = lines_[i++];
            if (isCommentOrBlank(raw)) continue;
            if (isBlank(raw.front()))
                return fail(lineNo,
                            "indented line outside a tree; only app, launch and add take a tree");
            if (endLine_)
                return fail(lineNo,
                            "nothing may follow end (line " + std::to_string(endLine_) + ")");
            if (!readLine(lineNo, trim(raw), &i)) return false;
        }
        sc_->endTime_ = endLine_ ? sc_->endTime_ : cursor_;
        sc_->endLine_ = endLine_;
        // The front application is added first, which puts it in front without a switch.
        if (!frontLabel_.empty()) {
            auto it = std::find_if(sc_->apps_.begin(), sc_->apps_.end(),
                                   [&](auto& a) { return a.label == frontLabel_; });
            if (it == sc_->apps_.end()) {
                std::string shown = quoted("#" + frontLabel_);
                auto known = sc_->labels_.find(frontLabel_);
                if (known == sc_->labels_.end())
                    return fail(frontLine_, "unknown application " + shown);
                return fail(frontLine_, known->second.isApp ? shown + " is not running at the start"
                                                            : "front needs an application; " +
                                                                  shown + " is an element");
            }
            std::rotate(sc_->apps_.begin(), it, it + 1);
        }
        return true;
    }

    // A time or a step, in seconds; *due is when it comes to: base + the time read.
    bool readTime(Cursor& c, const std::string& keyword, int line, double base, double* out,
                  double* due) {
        std::string token = c.peekWord();
        if (token.empty()) return fail(line, keyword + " needs a time in seconds, like 1.5");
        TreeValue v;
        std::string ignored;
        if (!c.value(&v, &ignored) || !isNumber(v) || !std::isfinite(numberOf(v)))
            return fail(line,
                        "bad time " + quoted(token) + ": write seconds as a number, like 1.5");
        *out = numberOf(v);
        if (*out < 0) return fail(line, "bad time " + quoted(token) + ": times are not negative");
        // A virtual loop runs every timer of the agent up to the end, so a time far off would
        // keep a core busy for as long.
        *due = base + *out;
        if (*due > kScenarioMaxSeconds + kTimeSlack)
            return fail(line,
                        keyword + " " + quoted(token) +
                            (base > 0 ? " comes to " + seconds(*due) + ", past " : " is past ") +
                            seconds(kScenarioMaxSeconds) +
                            " (24 hours), the longest a scenario may run");
        return true;
    }

    bool readLine(int line, std::string_view body, size_t* next) {
        Cursor c(body);
        std::string keyword = c.word();
        std::optional<double> due;
        if (keyword == "at" || keyword == "after") {
            double t, when;
            if (!readTime(c, keyword, line, keyword == "at" ? 0 : cursor_, &t, &when)) return false;
            if (keyword == "at" && t < cursor_ - kTimeSlack)
                return fail(line, "time goes backwards: at " + timeText(t) + " comes after " +
                                      seconds(cursor_));
            due = when;
            cursor_ = when;
            timeline_ = true;
            if (c.atEnd())
                return fail(line, keyword + " " + timeText(t) +
                                      " needs an action after the time, like focus #name");
            body = c.rest();
            c = Cursor(body);
            keyword = c.word();
        } else if (keyword == "wait") {
            double t, when;
            if (!readTime(c, keyword, line, cursor_, &t, &when) || !expectEnd(c, line))
                return false;
            cursor_ = when;
            timeline_ = true;
            return true;
        } else if (keyword == "end") {
            return readEnd(c, line);
        }

        static const std::set<std::string> kSetupOnly = {"display", "app", "default"};
        static const std::set<std::string> kEither = {"front", "focus", "pointer"};
        if (kSetupOnly.count(keyword)) {
            if (timeline_)
                return fail(line,
                            keyword + " belongs to the setup, before the timeline" +
                                (keyword == "app" ? "; launch starts an application later" : ""));
            if (keyword == "default") return readDefaults(c, line);
            return keyword == "app" ? readApp(c, line, next) : readDisplay(c, line);
        }
        const ActionInfo* info = actionInfo(keyword);
        if (!info) {
            std::string hint = keyword.rfind("AX", 0) == 0
                                   ? "; tree lines are indented two spaces under app, launch or add"
                                   : "";
            return fail(line, "unknown keyword " + quoted(keyword) + hint);
        }
        if (!due && (timeline_ || (!kEither.count(keyword) && !info->inSetup)))
            return fail(line, keyword + " needs a time: at T or after D" +
                                  (timeline_ ? std::string()
                                             : "; the setup takes display, app, default, front, "
                                               "focus, pointer and the faults fail, raise, "
                                               "first-char-bounds and zero-bounds-at-end"));
        if (!due && kEither.count(keyword)) return readSetupAction(c, keyword, line);
        Step step;
        step.kind = info->kind;
        step.line = line;
        step.time = due.value_or(0);
        step.text = outsideText(body, kShownActionBytes);
        step.action = keyword;
        if (!readStep(c, &step, next)) return false;
        (due ? sc_->steps_ : sc_->setupSteps_).push_back(std::move(step));
        return true;
    }

    bool readDefaults(Cursor& c, int line) {
        if (c.atEnd())
            return fail(line, "default needs a KEY=VALUE, like AllowFocusInAXWebArea=NO");
        while (!c.atEnd()) {
            std::string key, value, why;
            if (!c.setting(&key, &value, &why)) return fail(line, why);
            auto [it, fresh] = defaultLines_.emplace(key, line);
            if (!fresh)
                return fail(line, "default " + quoted(key) + " is given twice (first at line " +
                                      std::to_string(it->second) + ")");
            sc_->defaults_.emplace_back(key, value);
        }
        return true;
    }

    bool expectEnd(Cursor& c, int line) {
        if (c.atEnd()) return true;
        return fail(line, "unexpected " + quoted(c.peekWord()) + " at the end of the line");
    }

    bool readEnd(Cursor& c, int line) {
        double t = 0;
        std::string how = c.word();
        if (how.empty()) {
            t = cursor_;
        } else if (how == "at" || how == "after") {
            double step;
            if (!readTime(c, "end " + how, line, how == "after" ? cursor_ : 0, &step, &t))
                return false;
            if (t < cursor_ - kTimeSlack)
                return fail(line, "end at " + timeText(t) + " comes before the last action at " +
                                      seconds(cursor_));
        } else {
            return fail(line, "expected end, end at T or end after D");
        }
        if (!expectEnd(c, line)) return false;
        sc_->endTime_ = t;
        endLine_ = line;
        return true;
    }

    bool readLabel(Cursor& c, int line, std::string* out) {
        std::string why;
        if (!c.label(out, &why)) return fail(line, why);
        return true;
    }

    bool readNumber(Cursor& c, int line, const std::string& what, double* out) {
        std::string why;
        if (!c.number(out, what, &why)) return fail(line, why);
        return true;
    }

    bool declare(const std::string& label, int line) {
        auto [it, fresh] = declared_.emplace(label, line);
        if (!fresh)
            return fail(line, "label " + quoted("#" + label) + " is used twice (first at line " +
                                  std::to_string(it->second) + ")");
        return true;
    }

    // Lines indented under lines[*next - 1]: the tree text with two spaces less, blank and
    // comment lines kept empty so that its line numbers map back to the file.
    bool takeBlock(int headerLine, size_t* next, Scenario::Block* block,
                   std::vector<TreeEntry>* entries) {
        size_t end = *next;
        for (size_t j = *next; j < lines_.size(); ++j) {
            if (isCommentOrBlank(lines_[j])) continue;
            if (!isBlank(lines_[j].front())) break;
            end = j + 1;
        }
        std::string text;
        for (size_t j = *next; j < end; ++j) {
            std::string_view l = lines_[j];
            if (isCommentOrBlank(l))
                l = {};
            else if (l.substr(0, 2) == "  ")
                l.remove_prefix(2);
            text.append(l);
            text += '\n';
        }
        *next = end;
        block->text = std::move(text);
        block->firstLine = headerLine + 1;
        SimTreeResult parsed = parseTreeText(block->text);
        if (!parsed.ok()) return fail(treeFailure(*block, parsed, headerLine).line, parsed.error);
        *entries = std::move(parsed.roots);
        return true;
    }

    // Labels of a tree belong to the application of pid.
    bool declareTree(const Scenario::Block& block, const std::vector<TreeEntry>& entries,
                     pid_t pid) {
        std::vector<std::pair<std::string, int>> labels;
        collectTreeLabels(entries, &labels);
        for (auto& [label, treeLine] : labels) {
            if (!declare(label, block.firstLine + treeLine - 1)) return false;
            if (pid) sc_->labels_[label] = Scenario::LabelInfo{pid, false};
        }
        return true;
    }

    bool readAppDecl(Cursor& c, int line, size_t* next, Scenario::AppDecl* app) {
        app->line = line;
        double pid;
        std::string why;
        if (!readLabel(c, line, &app->label) || !readNumber(c, line, "a process identifier", &pid))
            return false;
        if (!(pid > 0 && pid <= std::numeric_limits<pid_t>::max()) ||
            pid != static_cast<pid_t>(pid))
            return fail(line, "the process identifier must be a positive whole number");
        app->pid = static_cast<pid_t>(pid);
        app->bundleIdentifier = c.word();
        if (app->bundleIdentifier.empty() || app->bundleIdentifier.front() == '"')
            return fail(line, "expected a bundle identifier after the process identifier");
        if (!c.string(&app->name, "the application's name in quotes", &why)) return fail(line, why);
        if (!expectEnd(c, line) || !declare(app->label, line)) return false;
        sc_->labels_[app->label] = Scenario::LabelInfo{app->pid, true};
        std::vector<TreeEntry> entries;
        return takeBlock(line, next, &app->tree, &entries) &&
               declareTree(app->tree, entries, app->pid);
    }

    bool readApp(Cursor& c, int line, size_t* next) {
        Scenario::AppDecl app;
        if (!readAppDecl(c, line, next, &app)) return false;
        for (auto& other : sc_->apps_)
            if (other.pid == app.pid)
                return fail(line, "pid " + std::to_string(app.pid) + " is taken by #" +
                                      outsideText(other.label) + " (line " +
                                      std::to_string(other.line) + ")");
        sc_->apps_.push_back(std::move(app));
        return true;
    }

    bool readDisplay(Cursor& c, int line) {
        TreeValue v;
        std::string why;
        std::string token = c.peekWord();
        if (!c.value(&v, &why) || !v.value.is<Rect>() || v.isArray)
            return fail(line, "expected display bounds [x y w h]" +
                                  (token.empty() ? std::string() : ", found " + quoted(token)));
        Rect bounds = *v.value.get<Rect>();
        bool main = false;
        if (!c.atEnd()) {
            std::string w = c.word();
            if (w != "main")
                return fail(line, "unexpected " + quoted(w) +
                                      " after the display bounds; only main may follow");
            main = true;
        }
        if (!expectEnd(c, line)) return false;
        if (bounds.size.width <= 0 || bounds.size.height <= 0)
            return fail(line, "a display needs a positive width and height");
        displayLines_.push_back(line);
        auto id = static_cast<Displays::DisplayID>(sc_->displays_.size() + 1);
        sc_->displays_.push_back(SimDisplays::Display{id, bounds});
        if (main) {
            if (mainLine_)
                return fail(line, "a second main display (the first is at line " +
                                      std::to_string(mainLine_) + ")");
            mainLine_ = line;
            sc_->mainDisplay_ = id;
        }
        return true;
    }

    bool readSetupAction(Cursor& c, const std::string& keyword, int line) {
        if (keyword == "pointer") {
            double x, y;
            if (!readNumber(c, line, "x", &x) || !readNumber(c, line, "y", &y) ||
                !expectEnd(c, line))
                return false;
            sc_->setupPointer_ = Point{x, y};
            pointerLine_ = line;
            return true;
        }
        std::string label;
        if (!readLabel(c, line, &label) || !expectEnd(c, line)) return false;
        if (keyword == "focus") {
            sc_->setupFocus_.emplace_back(label, line);
            return true;
        }
        if (frontLine_)
            return fail(line,
                        "front is given twice (first at line " + std::to_string(frontLine_) + ")");
        frontLabel_ = label;
        frontLine_ = line;
        return true;
    }

    bool readStep(Cursor& c, Step* s, size_t* next) {
        const int line = s->line;
        if (s->kind != Kind::Pointer && s->kind != Kind::Launch && !readLabel(c, line, &s->target))
            return false;
        if (s->kind == Kind::Launch) return readAppDecl(c, line, next, &s->app);
        if (s->kind == Kind::Add) {
            if (!expectEnd(c, line)) return false;
            std::vector<TreeEntry> entries;
            if (!takeBlock(line, next, &s->tree, &entries)) return false;
            if (entries.empty()) return fail(line, "add needs a tree indented under it");
            // Owned by the parent's application; an unknown parent fails in the dry run.
            auto parent = sc_->labels_.find(s->target);
            return declareTree(s->tree, entries,
                               parent == sc_->labels_.end() ? 0 : parent->second.pid);
        }
        if (std::string why = readActionArguments(c, s); !why.empty()) return fail(line, why);
        if (s->name.empty()) return true;
        // open-list names its list, which belongs to the combo box's application.
        if (!declare(s->name, line)) return false;
        if (auto box = sc_->labels_.find(s->target); box != sc_->labels_.end())
            sc_->labels_[s->name] = Scenario::LabelInfo{box->second.pid, false};
        return true;
    }

    bool checkDisplays() {
        auto& displays = sc_->displays_;
        if (displays.empty()) {
            displays.push_back(SimDisplays::Display{1, Rect(0, 0, 1440, 900)});
            sc_->mainDisplay_ = 1;
            return true;
        }
        if (!mainLine_) {
            if (displays.size() > 1)
                return fail(displayLines_[0], "several displays and none is main; mark one main");
            mainLine_ = displayLines_[0];
            sc_->mainDisplay_ = displays[0].id;
        }
        const Rect& main = displays[sc_->mainDisplay_ - 1].bounds;
        if (main.origin.x != 0 || main.origin.y != 0)
            return fail(mainLine_, "the main display has its top-left corner at 0 0");
        for (size_t a = 0; a < displays.size(); ++a)
            for (size_t b = 0; b < a; ++b)
                if (!displays[a].bounds.intersection(displays[b].bounds).isEmpty())
                    return fail(displayLines_[a], "the display overlaps the one at line " +
                                                      std::to_string(displayLines_[b]));
        return true;
    }

    // --- Dry run: the whole scenario on a private desktop, checking each action against the
    // state it meets there.

    bool onDisplay(Point p, int line) {
        for (auto& d : sc_->displays_)
            if (d.bounds.contains(p)) return true;
        return fail(line, "the pointer at " + formatNumber(p.x) + " " + formatNumber(p.y) +
                              " is on no display");
    }

    SimNodePtr need(SimDesktop& desk, const std::string& label, Need what, const Step* step,
                    int line, const std::string& action, char sigil = '#') {
        std::string shown = quoted(sigil + label);
        std::string when = step ? " at " + seconds(step->time) : " at the start";
        SimNodePtr node;
        if (!sc_->labels_.count(label)) {
            fail(line, "unknown element " + shown);
        } else if (auto g = gone_.find(label); g != gone_.end()) {
            fail(line, shown + " is gone" + when + " (" + g->second + ")");
        } else if (!(node = sc_->find(desk, label))) {
            fail(line, shown + " does not exist yet" + when + " (it comes at line " +
                           std::to_string(declared_[label]) + ")");
        } else if (what == Need::Application && node->kind() != SimNode::Kind::Application) {
            fail(line, action + " needs an application; " + shown + " is an element");
            node = nullptr;
        } else if (what != Need::Any && what != Need::Application &&
                   node->kind() != SimNode::Kind::Element) {
            fail(line, action + " needs an element; " + shown + " is an application");
            node = nullptr;
        } else if (what == Need::Text && !node->isText()) {
            fail(line, action + " needs a text element; " + shown + " is " + roleText(*node));
            node = nullptr;
        }
        return node;
    }

    // The target of an action, there and of the kind it needs; null (and the failure noted)
    // otherwise, or when the action takes none.
    SimNodePtr checkTarget(SimDesktop& desk, const Step& s, const Step* timed) {
        const Need what = actionInfo(s.action)->target;
        if (what == Need::None) return nullptr;
        SimNodePtr node = need(desk, s.target, what, timed, s.line, s.action);
        if (!node) return nullptr;
        if (std::string why = checkTextStep(s, node); !why.empty()) {
            fail(s.line, why);
            return nullptr;
        }
        return node;
    }

    void markGone(const SimNodePtr& top, const std::string& why) {
        std::vector<SimNodePtr> todo = {top};
        while (!todo.empty()) {
            SimNodePtr node = std::move(todo.back());
            todo.pop_back();
            if (!node->label().empty()) gone_.emplace(node->label(), why);
            todo.insert(todo.end(), node->children().begin(), node->children().end());
        }
    }

    bool dryRun() {
        auto desk = SimDesktop::create();
        SetupFailure setup = applySetup(*desk, *sc_);
        if (!setup.error.empty()) return fail(setup.line, setup.error);
        for (auto& [label, line] : sc_->setupFocus_)
            if (!need(*desk, label, Need::Element, nullptr, line, "focus")) return false;
        if (sc_->setupPointer_ && !onDisplay(*sc_->setupPointer_, pointerLine_)) return false;

        // Setup faults are in place already; a mistake in them refuses the file all the same.
        for (const Step& s : sc_->setupSteps_)
            if (!checkTarget(*desk, s, nullptr)) return false;

        for (const Step& s : sc_->steps_) {
            const std::string& action = s.action;
            SimNodePtr node = checkTarget(*desk, s, &s);
            if (!node && actionInfo(action)->target != Need::None) return false;
            for (auto& [key, value] : s.attributes) {
                std::vector<std::string> refs;
                collectReferences(value, &refs);
                for (auto& r : refs)
                    if (!need(*desk, r, Need::Any, &s, s.line, action, '@')) return false;
            }
            if (s.kind == Kind::Pointer && !onDisplay(Point{s.a, s.b}, s.line)) return false;
            if (s.kind == Kind::Launch && desk->application(s.app.pid))
                return fail(s.line, "pid " + std::to_string(s.app.pid) + " already runs at " +
                                        seconds(s.time));
            if (s.kind == Kind::Quit) {
                std::string why = "its application quits at line " + std::to_string(s.line);
                gone_.emplace(s.target, why);
                markGone(node, why);
            }
            if (s.kind == Kind::Destroy)
                markGone(node, "destroyed at line " + std::to_string(s.line));
            if (s.kind == Kind::CloseList)
                markGone(openListOf(node), "its list closes at line " + std::to_string(s.line));

            Outcome done = playStep(*desk, *sc_, s);
            if (!done.note.empty()) return fail(done.line ? done.line : s.line, done.note);
        }
        return true;
    }

  public:
    // Shared with applyScenarioSetup: the dry run must start exactly where a real play does.
    static SetupFailure applySetup(SimDesktop& desk, const Scenario& sc) {
        for (auto& app : sc.apps_)
            if (desk.application(app.pid))
                return {app.line,
                        "pid " + std::to_string(app.pid) + " already runs on the desktop"};
        desk.displays().setDisplays(sc.displays_, sc.mainDisplay_);
        for (auto& decl : sc.apps_) {
            SimApp& app = desk.addApplication(decl.pid, decl.bundleIdentifier, decl.name);
            auto loaded = app.load(decl.tree.text);
            if (!loaded.ok()) {
                Outcome o = treeFailure(decl.tree, loaded, decl.line);
                return {o.line, o.note};
            }
        }
        // A desktop that already had a front application gets a switch.
        if (!sc.apps_.empty() && desk.frontmost() != desk.application(sc.apps_[0].pid))
            desk.activate(sc.apps_[0].pid);
        for (auto& [label, line] : sc.setupFocus_)
            if (auto node = sc.find(desk, label); node && node->kind() == SimNode::Kind::Element)
                desk.focus(node);
        if (sc.setupPointer_) desk.displays().setMouseLocationTopLeft(*sc.setupPointer_);
        for (auto& [key, value] : sc.defaults_) desk.defaults().setString(key, value);
        // Checked by the dry run after they are played there: faults change no tree.
        for (auto& step : sc.setupSteps_) playStep(desk, sc, step);
        return {};
    }

  private:
    std::shared_ptr<Scenario> sc_;
    std::vector<std::string_view> lines_;
    std::string error_;
    int errorLine_ = 0;

    double cursor_ = 0;
    bool timeline_ = false;
    int endLine_ = 0;
    std::string frontLabel_;
    int frontLine_ = 0;
    int mainLine_ = 0;
    int pointerLine_ = 0;
    std::vector<int> displayLines_;
    std::map<std::string, int> declared_;
    std::map<std::string, int> defaultLines_;
    std::map<std::string, std::string> gone_;
};

ScenarioParse parseScenario(std::string_view text, const std::string& fileName) {
    return ScenarioParser(text, fileName).run();
}

std::string applyScenarioSetup(SimDesktop& desk, const Scenario& scenario) {
    SetupFailure f = ScenarioParser::applySetup(desk, scenario);
    if (f.error.empty()) return {};
    return shownPath(scenario.fileName()) + ":" + std::to_string(f.line) + ": " + f.error;
}

}  // namespace orv::sim
