#pragma once

// What AT-SPI does not keep for a client and the seam needs: applications by pid, each
// application's focused object and active window, the front application, and notifications per
// observer. One instance per platform, on the main thread.

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "Common/Geometry.h"
#include "Common/Signal.h"
#include "platform/Accessibility.h"
#include "platform/Desktop.h"
#include "platform/MainLoop.h"
#include "platform/linux/AtspiElement.h"
#include "platform/linux/SettleWatch.h"

typedef struct _AtspiEventListener AtspiEventListener;
typedef struct _AtspiEvent AtspiEvent;
typedef struct _GError GError;

namespace orv::linuxdesk {

class AtspiObserver;

// What one libatspi call came back with, for mapping onto the AX error numbers.
class CallClock {
  public:
    CallClock();
    double elapsed() const;

  private:
    double start_;
};

struct AppInfo {
    std::string bus;
    AtspiElementRef root;
    pid_t pid = 0;
    std::string bundleIdentifier;
    std::string name;
    // Focus as the events told it; `live` is false after the object lost focus.
    AtspiElementRef focus;
    AtspiElementRef focusContainer;  // set when focus came from active-descendant-changed
    // The last active descendant told of a container that had no focus then (GTK 3 moves a
    // tree view's cursor before the tree view takes focus): its focus-in means that cell.
    AtspiElementRef idleContainer;
    AtspiElementRef idleDescendant;
    bool focusLive = false;
    // The focus observers were last told of, by its event or by the search that found it first.
    AtspiElementRef toldFocus;
    // The last focus-in taken, and when it arrived.
    AtspiElementRef lastFocusIn;
    double lastFocusInAt = 0;
    // Events received (all applications) when `focus` last showed the FOCUSED state.
    uint64_t checkedAt = ~uint64_t{0};
    // Whether the active window has been searched for the focused object since the last change.
    bool searched = false;
    // `focus` lost focus and a window has been activated since: if it is that window's, it is
    // the focus again until the toolkit says otherwise.
    bool resumeFocus = false;
    AtspiElementRef activeWindow;
    // The application has said bounds-changed: its moves are heard.
    bool reportsBounds = false;
    // `activeWindow` came from window:activate and no window:deactivate has followed: it stands
    // even before the window shows the ACTIVE state.
    bool activeFromEvent = false;
    // When `focus` lost focus (monotonic seconds; 0: it has not since it came). Toolkits say
    // focus-out first and the next focus-in a moment later; until then the focus is in transit.
    double leftAt = 0;
    bool transitTimerSet = false;
    // The focuses before `focus`, and when each was replaced (newest last, a few): readers
    // told of an old one may still ask about it in the batch that replaced it.
    std::vector<std::pair<AtspiElementRef, double>> replaced;
    void replace(double at) {
        if (replaced.size() >= 4) replaced.erase(replaced.begin());
        replaced.emplace_back(focus, at);
    }
    // Something read the focus during the transit and was given the one that left.
    bool answeredInTransit = false;
    // Its toolkit answers extents relative to each window: -1 not yet asked, else 0 or 1.
    int windowRelative = -1;
};

class AtspiDesktop : public std::enable_shared_from_this<AtspiDesktop> {
  public:
    explicit AtspiDesktop(std::shared_ptr<MainLoop> loop);
    ~AtspiDesktop();
    AtspiDesktop(const AtspiDesktop&) = delete;
    AtspiDesktop& operator=(const AtspiDesktop&) = delete;

    // Registers the listeners that keep focus, windows and applications. False when the
    // registry refused them.
    bool start(std::string* whyNot);

    MainLoop& loop() { return *loop_; }

    // --- Timeouts ---
    // Seconds that one call may block at most; 0 restores the backend default.
    void setMessagingTimeout(double seconds);
    double messagingTimeout() const { return timeout_; }
    // A call that failed without saying why and took about the whole timeout timed out.
    bool looksTimedOut(const CallClock& clock) const;
    // Seconds libatspi is given per call.
    double callBudget() const { return callBudget_; }
    // AX error number for a failed call; `fallback` when the failure says nothing.
    AXError errorFor(GError* error, const CallClock& clock, AXError fallback) const;

    // --- Applications ---
    AppInfo* appForBus(const std::string& bus);
    AppInfo* appForPid(pid_t pid);
    AppInfo* appOf(const AtspiElement& el) { return appForBus(el.busName()); }
    std::vector<AppInfo*> applications();
    RunningApplication runningApplication(const AppInfo& app) const;
    pid_t frontmostPid();
    AppInfo* frontmostApp();

    // --- Focus and windows ---
    // The application's focused object, checked against its FOCUSED state; searches the active
    // window once when the events have not told it.
    AtspiElementRef focusedObject(AppInfo& app, AXError* err);
    AtspiElementRef activeWindow(AppInfo& app, AXError* err);
    // The system-wide focused object: that of the front application.
    AtspiElementRef systemFocusedObject(AXError* err);
    // The object is its application's kept focus (whether or not it still has focus), or the
    // one it replaced less than a transit ago, or one of their ancestors.
    bool isKeptFocus(AtspiAccessible* acc);

    // --- Geometry ---
    // X screen coordinates of the main display's top-left corner; set by the displays.
    void setScreenOrigin(Point origin) { origin_ = origin; }
    Point screenOrigin() const { return origin_; }
    // Monitor rectangles in X screen coordinates, for telling full-screen windows.
    std::function<std::vector<Rect>()> monitorRects;

    // --- Observers ---
    void addObserver(const std::shared_ptr<AtspiObserver>& observer);
    void removeObserver(AtspiObserver* observer);
    // Makes sure the AT-SPI events behind a notification reach us.
    void needNotification(const std::string& notification);
    // Whether a move of any object of the application (bus name) reaches us as bounds-changed.
    bool hearsMoves(const std::string& bus) const;

    // --- Workspace signals (main loop) ---
    Signal<const RunningApplication&> didLaunchApplication;
    Signal<const RunningApplication&> didTerminateApplication;
    Signal<pid_t> frontApplicationSwitched;

    // Counters for tests and diagnostics: events received, notifications delivered, searches
    // of a window for its focused object, bounds-changed events dropped as no change, second
    // focus-ins dropped after a focus-out, reads answered with the focus that left while the
    // next focus-in was awaited, moves of a new focus seen by watching it settle.
    struct Stats {
        uint64_t events = 0;
        uint64_t deliveries = 0;
        uint64_t focusSearches = 0;
        uint64_t unchangedBounds = 0;
        uint64_t staleFocusIns = 0;
        uint64_t transitAnswers = 0;
        uint64_t settleMoves = 0;
    };
    const Stats& stats() const { return stats_; }

    // Called by libatspi (through a static trampoline).
    void onEvent(const AtspiEvent* event);
    // Set by the accessibility calls. `focusAnnounced` is called as a focus-in arrives (inside
    // libatspi's dispatch: it must not call libatspi); `prefetchFocus` before each batch's
    // notifications are delivered, with the new focuses of the batch (none: forget them), so that
    // what their readers are about to ask can be fetched at once.
    std::function<void(AtspiAccessible*)> focusAnnounced;
    // Something in the application (bus name) may have moved; called inside libatspi's dispatch.
    std::function<void(const std::string&)> geometryChanged;
    std::function<void(const std::vector<AtspiElementRef>&)> prefetchFocus;
    // The extents (X screen coordinates, as the toolkit answers) the readers of a batch were
    // given for an object, if it was read.
    std::function<bool(AtspiAccessible*, Rect*)> toldExtents;
    // Whether the object, asked for by `prefetchFocus` this turn, answered that it has no place
    // (none, no size, or no window to place it on).
    std::function<bool(AtspiAccessible*)> unplaced;

    // The X server saw the focused top-level window move or change size: the front
    // application's active window is told, as its bounds-changed would (GTK sends none).
    void focusedWindowMoved();

    // The caret an application last reported moving: the object and the offset in its text.
    struct TextCaret {
        AtspiElementRef object;
        int offset = -1;
        uint64_t batch = 0;  // the flush that took it in
    };
    const TextCaret* lastCaret(const std::string& bus) const;
    // The caret offset of `acc` as the event being delivered now told it (it comes with the
    // event), or -1: outside a delivery, or when the event was about another object.
    int caretBeingTold(AtspiAccessible* acc) const;
    // Whether `within` is `acc` or one of its ancestors.
    bool isWithin(AtspiAccessible* acc, const AtspiElement& within);

  private:
    struct Pending;
    struct Delivery;

    void registerEventType(const char* type);
    void refreshApplications();
    AppInfo* addApplication(AtspiAccessible* root);
    void queue(Pending event);
    void scheduleFlush();
    void flush();
    void process(Pending& ev, std::vector<Delivery>& out);
    // With nothing else waiting or being handled, an event that delivers nothing (a focus-out,
    // a repeated focus-in) is taken in as it arrives: a turn of the loop fewer for each.
    bool takenInAtOnce(const Pending& ev);
    bool repeatedFocusIn(AppInfo& app, const Pending& ev);
    void focusLeft(AppInfo& app, const AtspiElement& source, double at);
    // Whether the application says the object has focus now (asked, not from libatspi's cache).
    bool focusedNow(AtspiAccessible* acc);
    // The kept focus, left and taken again at once, has focus after all.
    void focusStays(AppInfo& app, const Pending& ev, std::vector<Delivery>& out);
    // The focus that left, while the next focus-in may still come; null outside a transit.
    AtspiElementRef focusInTransit(AppInfo& app);
    // A transit ended with no focus-in: whoever was told the old focus reads again.
    void endTransit(const std::string& bus);
    void notify(const std::string& bus, const std::string& notification,
                const AtspiElementRef& element, std::vector<Delivery>& out);
    void setFrontmost(AppInfo* app);
    // The application becomes the front one, its workspace signal in order with `out`.
    void bringToFront(AppInfo& app, std::vector<Delivery>& out);
    // `focus` (an active descendant of `container`, or with none) is the application's focus,
    // and its observers are told.
    void takeFocus(AppInfo& app, const AtspiElementRef& focus, const AtspiElementRef& container,
                   std::vector<Delivery>& out);
    AtspiElementRef searchFocus(AppInfo& app);
    // The first object below `root` (itself excluded) that shows the FOCUSED state, looking at
    // `limit` objects at most.
    AtspiElementRef focusedWithin(AtspiAccessible* root, int limit);
    // A list, table or tree told focused: the focus is the item inside that has it, if any.
    AtspiElementRef focusedItemOf(AppInfo& app, const Pending& ev);
    // A caret moved in `source`: those who watch a page or an editable region holding it hear
    // of it as well, as they would of a caret in a text of their own.
    void notifyHolders(const std::string& bus, const AtspiElementRef& source,
                       std::vector<Delivery>& out);
    // A child of its application's root object (parent from libatspi's cache when it has it).
    bool isTopLevel(AtspiAccessible* acc);
    bool hasState(AtspiAccessible* acc, int state);

    std::shared_ptr<MainLoop> loop_;
    AtspiEventListener* listener_ = nullptr;
    AtspiAccessible* desktop_ = nullptr;
    std::set<std::string> registeredTypes_;
    double timeout_ = 0;
    double callBudget_ = 0;  // what libatspi is given per call
    Point origin_;

    std::map<std::string, AppInfo> apps_;
    std::unordered_map<pid_t, std::string> busByPid_;
    bool appsListed_ = false;
    std::string frontBus_;
    bool frontKnown_ = false;

    std::unordered_multimap<pid_t, std::weak_ptr<AtspiObserver>> observers_;

    // The rectangle of each object's last bounds-changed, by bus name and path.
    std::unordered_map<std::string, Rect> lastBounds_;
    // By bus name.
    std::unordered_map<std::string, TextCaret> lastCaret_;
    uint64_t flushSerial_ = 0;
    std::vector<Pending> pending_;
    bool flushScheduled_ = false;
    bool flushing_ = false;  // a batch is being handled or delivered
    // Deliveries held back after a window activation until its application's focus is known
    // (GTK tells of the focus widget a moment after the window), at most until `holdUntil_`.
    std::vector<Delivery> held_;
    // Focus changes a read found before their events were handled, for the next turn.
    std::vector<Delivery> found_;
    std::vector<AtspiElementRef> newFocus_;  // since the last delivery
    const void* lastAnnounced_ = nullptr;    // compared only: GTK announces each focus twice
    std::string awaitingFocusOf_;
    double holdUntil_ = 0;
    bool holdTimerSet_ = false;
    // A new focus not laid out yet at its focus-in (GTK 3 popovers): its batch waits for it to
    // have a place until `placeUntil_`, so that readers do not find it nowhere.
    AtspiElementRef awaitingPlaceOf_;
    double placeUntil_ = 0;
    // Holds `out` until `until` or the next try, whichever comes first; false past `until`.
    bool holdBatch(std::vector<Delivery>& out, double until, double retry);
    bool focusSettled(AppInfo& app);
    std::shared_ptr<bool> alive_;
    Stats stats_;
    SettleWatch settle_;
};

// One observer per process: registrations of (element, notification), delivered on the main loop
// while attached.
class AtspiObserver : public AXObserver, public std::enable_shared_from_this<AtspiObserver> {
  public:
    AtspiObserver(std::weak_ptr<AtspiDesktop> desktop, pid_t pid, AXObserverCallback callback);
    ~AtspiObserver() override;

    AXError addNotification(const AXUIElementRef& element, const std::string& notification,
                            void* refcon) override;
    AXError removeNotification(const AXUIElementRef& element,
                               const std::string& notification) override;
    void attachToMainLoop() override { attached_ = true; }
    void detachFromMainLoop() override { attached_ = false; }

    pid_t pid() const { return pid_; }
    bool attached() const { return attached_; }

    struct Registration {
        AtspiElementRef element;
        void* refcon;
    };
    // Registrations for a notification (empty when none).
    const std::vector<Registration>& registrations(const std::string& notification) const;
    bool wants(const std::string& notification) const { return regs_.count(notification) != 0; }
    void deliver(const AXUIElementRef& element, const std::string& notification, void* refcon);

  private:
    std::weak_ptr<AtspiDesktop> desktop_;
    pid_t pid_;
    AXObserverCallback callback_;
    bool attached_ = false;
    std::unordered_map<std::string, std::vector<Registration>> regs_;
};

}  // namespace orv::linuxdesk
