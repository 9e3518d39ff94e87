#pragma once

// Scenario files: a whole simulated desktop session in one text, the displays and applications
// it starts with and a timeline of what happens on it (docs/scenario-files.md has the format).
//
//   auto parsed = orv::sim::loadScenarioFile("scenarios/demo.scn");
//   if (!parsed.ok()) { report(parsed.error); return; }       // "demo.scn:14: unknown ..."
//   auto desk = orv::sim::SimDesktop::create();
//   orv::sim::applyScenarioSetup(*desk, *parsed.scenario);     // before the agent starts
//   orv::sim::ScenarioPlayer player(desk, parsed.scenario);
//   player.setOnEnd([&] { desk->loop().quit(); });
//   player.start();                                            // timeline time 0 is now
//   desk->loop().run();
//
// A scenario is checked completely when it is parsed, by playing it on a private desktop, so a
// refused file never half runs and an accepted one plays without surprises on a desktop that
// started from its setup.

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/sim/SimDesktop.h"

namespace orv::sim {

// Scenario time ends a day after the start. On virtual time the agent's periodic timers all run
// up to the end, so a time far off would keep a core busy for as long.
inline constexpr double kScenarioMaxSeconds = 86400;
// The largest scenario file loadScenarioFile reads.
inline constexpr size_t kScenarioFileMaxBytes = size_t{16} << 20;

class Scenario {
  public:
    const std::string& fileName() const { return fileName_; }
    // Seconds after the start at which the player ends.
    double endTime() const { return endTime_; }
    // Timed actions in the timeline (waits and the end are not actions).
    size_t actionCount() const { return steps_.size(); }
    const std::vector<SimDisplays::Display>& displays() const { return displays_; }
    // The user defaults of the setup, in the order written.
    const std::vector<std::pair<std::string, std::string>>& userDefaults() const {
        return defaults_;
    }
    Displays::DisplayID mainDisplay() const { return mainDisplay_; }

    // The element, or the application element, a label ("name" or "#name") names on the
    // desktop now; null when it is not there (not launched yet, destroyed, quit).
    SimNodePtr find(SimDesktop& desk, std::string_view label) const;
    // Process of the application a label belongs to; 0 for an unknown label.
    pid_t pidOf(std::string_view label) const;

    // Implementation types, public for the parser and the player in SimScenario.cpp.
    struct Block {
        std::string text;   // tree text with the block's indentation removed
        int firstLine = 0;  // scenario line of the tree text's line 1
    };
    struct AppDecl {
        std::string label;
        pid_t pid = 0;
        std::string bundleIdentifier;
        std::string name;
        int line = 0;
        Block tree;
    };
    struct Step {
        enum class Kind {
            Focus,
            Unfocus,
            Set,
            Post,
            Front,
            Launch,
            Quit,
            Move,
            Resize,
            Type,
            Select,
            Pointer,
            Add,
            Destroy,
            // Text cursors, web content, pop-up lists, faults and quiet changes
            // (SimScenarioText.cpp).
            Delete,
            SelectWeb,
            CaretWeb,
            CaretIn,
            OpenList,
            Pick,
            CloseList,
            Fail,
            Raise,
            FirstCharBounds,
            ZeroBoundsAtEnd,
            QuietFocus,
            QuietMove,
            QuietSelect,
            QuietText
        };
        Kind kind = Kind::Focus;
        int line = 0;
        double time = 0;
        std::string text;    // the action as written, escaped and cut, for the log
        std::string action;  // its keyword
        std::string target;  // label without '#'
        std::vector<std::pair<std::string, TreeValue>> attributes;
        std::string word;  // notification, text to type, or the attribute of a fault
        std::string name;  // the label open-list gives its list
        std::vector<std::string> strings;  // open-list: the entries; raise: the reason
        double a = 0, b = 0;
        AppDecl app;  // launch
        Block tree;   // add
    };
    struct LabelInfo {
        pid_t pid = 0;
        bool isApp = false;
    };
    // Notes the labelled elements of a subtree just built, for find.
    void remember(const SimNodePtr& top) const;

  private:
    friend class ScenarioParser;
    friend class ScenarioPlayer;

    std::string fileName_;
    std::vector<SimDisplays::Display> displays_;
    Displays::DisplayID mainDisplay_ = 1;
    std::vector<AppDecl> apps_;  // in the order they are added: the front one first
    std::vector<std::pair<std::string, int>> setupFocus_;
    std::optional<Point> setupPointer_;
    std::vector<std::pair<std::string, std::string>> defaults_;
    std::vector<Step> setupSteps_;  // faults in place before the agent starts
    std::vector<Step> steps_;       // in time order
    double endTime_ = 0;
    int endLine_ = 0;
    std::map<std::string, LabelInfo, std::less<>> labels_;
    // The labelled elements find has seen. Labels are never reused, so a node is the answer for
    // as long as it lives in the application asked about; a walk of the tree per action would make
    // a long scenario cost its length squared.
    SimNodePtr known(std::string_view label, const SimApp* app) const;
    void rememberLocked(const SimNodePtr& top) const;
    mutable std::mutex foundMutex_;
    mutable std::map<std::string, std::weak_ptr<SimNode>, std::less<>> found_;
};

struct ScenarioParse {
    std::shared_ptr<const Scenario> scenario;  // null when refused
    // "file:line: reason", or "file: reason" when no line is to blame.
    std::string error;
    int line = 0;

    bool ok() const { return scenario != nullptr; }
};

// fileName only names the text in error messages.
ScenarioParse parseScenario(std::string_view text, const std::string& fileName);
// Error messages name the path as given (escaped). Anything but a regular file, or a file of more
// than maxBytes, is refused; no more than that is read even if the file grows meanwhile.
ScenarioParse loadScenarioFile(const std::string& path, size_t maxBytes = kScenarioFileMaxBytes);

// Lays out the displays, adds the applications with their trees, brings the front one forward
// and focuses the elements the setup names; the pointer moves where it says. Meant for a fresh
// desktop before the agent starts. Returns "" or why the desktop cannot take the scenario.
std::string applyScenarioSetup(SimDesktop& desk, const Scenario& scenario);

// Plays a scenario's timeline on the desktop's main loop, on virtual time or real time alike.
// Lives on the main thread; destroying it stops the play.
class ScenarioPlayer {
  public:
    struct Event {
        double time = 0;  // scenario seconds the action was due at
        int line = 0;
        // The action as written ("focus #name"), "end" at the end; a note follows when the
        // action could not be done ("... (skipped: #name is gone)").
        std::string text;
    };

    ScenarioPlayer(std::shared_ptr<SimDesktop> desk, std::shared_ptr<const Scenario> scenario);
    ~ScenarioPlayer();
    ScenarioPlayer(const ScenarioPlayer&) = delete;
    ScenarioPlayer& operator=(const ScenarioPlayer&) = delete;

    // Called after each action is done, and once at the end.
    void setOnEvent(std::function<void(const Event&)> callback);
    // Called at the end time, after the last action; usually quits the loop.
    void setOnEnd(std::function<void()> callback);

    // Timeline time 0 is the loop's time now. Once only.
    void start();
    // No further action runs and the end is not reported.
    void stop();

    bool isPlaying() const;
    bool hasEnded() const;
    size_t actionsPlayed() const;

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace orv::sim
