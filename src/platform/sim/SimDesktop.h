#pragma once

// The simulated desktop: applications with element trees, the accessibility interface that
// reads them, and every other platform facility, all in memory and driven by tests. It is the
// embedded default backend.
//
//   auto desk = orv::sim::SimDesktop::create();      // on a new VirtualMainLoop
//   auto& app = desk->addApplication(100, "com.example.editor", "Editor");
//   app.load(R"(
//   AXWindow/AXStandardWindow "Doc" [0 22 800 600] #win
//     AXTextArea [10 40 400 300] #text AXValue="hello")");
//   desk->install();                                   // orv::platform() is now this desktop
//   desk->focus(app.find("text"));                     // notifications arrive on the next turn
//   desk->runUntilIdle();

#include <sys/types.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Platform.h"
#include "platform/VirtualMainLoop.h"
#include "platform/sim/SimAccessibility.h"
#include "platform/sim/SimElement.h"
#include "platform/sim/SimServices.h"
#include "platform/sim/SimText.h"
#include "platform/sim/SimTreeText.h"

namespace orv::sim {

// Which calls a busy application refuses.
enum SimCalls : unsigned { kSimReads = 1, kSimSets = 2, kSimAllCalls = kSimReads | kSimSets };

class SimApp {
  public:
    pid_t pid() const { return pid_; }
    const std::string& bundleIdentifier() const { return bundleIdentifier_; }
    const std::string& localizedName() const { return localizedName_; }
    RunningApplication info() const { return {pid_, bundleIdentifier_, localizedName_}; }
    const SimNodePtr& root() const { return root_; }
    bool isRunning() const { return running_; }

    // Builds the tree text under the application element (see SimTreeText.h).
    SimTreeResult load(const std::string& treeText);
    SimNodePtr find(const std::string& label) const { return root_->find(label); }
    std::string dump() const;

    // Focus state as the application reports it (live nodes only).
    SimNodePtr focusedElement() const;
    SimNodePtr focusedWindow() const;
    // Pinned main window, else the window child marked AXMain=true, else the focused window.
    SimNodePtr mainWindow() const;
    // Silent pin of the main window (null to unpin).
    void setMainWindow(const SimNodePtr& window) { mainWindow_ = window; }

    // The next `calls` matching calls to any element of the application answer
    // kAXErrorCannotComplete, as a busy or starting application does.
    void answerCannotComplete(int calls, unsigned which = kSimAllCalls);
    int cannotCompleteRemaining() const { return busyCalls_; }
    // createObserver for this pid answers the error.
    void failObserverCreation(std::optional<AXError> error) { observerError_ = error; }
    std::optional<AXError> observerCreationError() const { return observerError_; }

    // What has been set through the interface, if anything.
    std::optional<bool> enhancedUserInterface() const;

    bool takeBusy(unsigned call);

    SimApp(pid_t pid, std::string bundleIdentifier, std::string localizedName);

  private:
    friend class SimDesktop;
    pid_t pid_;
    std::string bundleIdentifier_;
    std::string localizedName_;
    SimNodePtr root_;
    bool running_ = true;
    std::weak_ptr<SimNode> focused_;
    std::weak_ptr<SimNode> focusedWindow_;
    std::weak_ptr<SimNode> mainWindow_;
    int busyCalls_ = 0;
    unsigned busyWhich_ = 0;
    std::optional<AXError> observerError_;
};

class SimDesktop : public std::enable_shared_from_this<SimDesktop> {
    struct Private {};

  public:
    struct PostedNotification {
        std::string notification;
        uint64_t nodeId;
        pid_t pid;
        double time;
    };
    struct SetRecord {
        uint64_t nodeId;
        pid_t pid;
        std::string attribute;
        AXValue value;
        AXError result;
        double time;
    };

    // A null loop makes a new VirtualMainLoop; any other loop (a real one) works too.
    static std::shared_ptr<SimDesktop> create(std::shared_ptr<MainLoop> loop = nullptr);
    SimDesktop(Private, std::shared_ptr<MainLoop> loop);
    ~SimDesktop();
    SimDesktop(const SimDesktop&) = delete;
    SimDesktop& operator=(const SimDesktop&) = delete;

    // Every member filled; the members keep the desktop alive.
    std::shared_ptr<Platform> platform();
    // Installs platform() as the process's platform and returns it.
    std::shared_ptr<Platform> install();
    // Removes the installed platform if it is this desktop's.
    void uninstall();

    MainLoop& loop() { return *loop_; }
    const std::shared_ptr<MainLoop>& loopRef() const { return loop_; }
    // Null when the desktop runs on a real loop.
    VirtualMainLoop* virtualLoop() { return vloop_; }
    // Shorthands for the virtual loop (they do nothing on a real one).
    size_t runUntilIdle();
    size_t advance(double seconds);
    double now() const { return loop_->now(); }

    // --- Applications. The first one added becomes the frontmost without a signal.
    SimApp& addApplication(pid_t pid, const std::string& bundleIdentifier,
                           const std::string& localizedName);
    // Adds it and fires Workspace::didLaunchApplication on the main loop.
    SimApp& launchApplication(pid_t pid, const std::string& bundleIdentifier,
                              const std::string& localizedName);
    // Its elements answer kAXErrorInvalidUIElement from now on; fires didTerminateApplication,
    // and when it was in front the next application in window order comes to the front.
    void terminateApplication(pid_t pid);
    SimApp* application(pid_t pid);
    SimApp* applicationWithBundleIdentifier(const std::string& bundleIdentifier);
    // Running applications in launch order.
    std::vector<SimApp*> applications();
    // Front switch: posts AXApplicationDeactivated / AXApplicationActivated and fires
    // Workspace::frontApplicationSwitched on the main loop.
    void activate(pid_t pid);
    SimApp* frontmost();
    // Running applications front to back.
    std::vector<pid_t> windowOrder() const { return zOrder_; }

    // --- References.
    AXUIElementRef ref(const SimNodePtr& node) const { return SimElementRef::forNode(node); }
    // The live node a reference names in this desktop, or null.
    SimNodePtr node(const AXUIElementRef& ref) const;
    const SimNodePtr& systemWide() const { return systemWide_; }

    // --- What a real desktop does, with its notifications.
    // Focus moves to the element: AXFocusedWindowChanged (and AXMainWindowChanged) when the
    // window changes, then AXFocusedUIElementChanged naming the element.
    void focus(const SimNodePtr& element);
    // Focus (and its window) moves without any notification, as when an application forgets to
    // post; only polls can notice.
    void focusSilently(const SimNodePtr& element);
    // The application reports no focused element; AXFocusedUIElementChanged names the application.
    void clearFocus(SimApp& app);
    // Makes a window (or sheet) the focused one without moving the focused element.
    void focusWindow(const SimNodePtr& window);
    // Moves the element and its subtree; AXMoved, or AXWindowMoved for a window.
    void move(const SimNodePtr& element, Point origin);
    // AXResized, or AXWindowResized for a window.
    void resize(const SimNodePtr& element, Size size);
    void setFrame(const SimNodePtr& element, Rect frame);
    // AXUIElementDestroyed, then the subtree is gone and answers kAXErrorInvalidUIElement.
    void destroy(const SimNodePtr& element);
    // Posts a notification naming the element. Registrations on the element and on its
    // application receive it on a later turn of the main loop.
    void post(const SimNodePtr& element, const std::string& notification);

    // Text editing: each updates value and selection like a user would and posts
    // AXValueChanged and/or AXSelectedTextChanged.
    void typeText(const SimNodePtr& element, const std::string& text);
    void deleteBackward(const SimNodePtr& element);
    void select(const SimNodePtr& element, Range range);
    void moveCaret(const SimNodePtr& element, long index) { select(element, Range{index, 0}); }
    void setTextValue(const SimNodePtr& element, const std::string& text);

    // Web content (SimWebContent.h). The selection of a web area is its stored
    // AXSelectedTextMarkerRange, collapsed for a caret; each move posts AXSelectedTextChanged on
    // the web area, and on the focused element too when that lies inside the web area.
    // Document indexes, clamped to the text; either order.
    void selectWebText(const SimNodePtr& webArea, long from, long to);
    void moveWebCaret(const SimNodePtr& webArea, long index) { selectWebText(webArea, index, index); }
    // The caret at an offset inside one leaf of the page: a text run, an image, a control.
    void moveWebCaretInto(const SimNodePtr& leaf, long offset);

    // A combo box's pop-up list: an AXScrollArea holding an AXList of AXStaticText entries,
    // 20 high each, appears under the box as its last child and AXCreated names the scroll area.
    // The list is returned; selected is an entry index or -1.
    SimNodePtr openComboBoxList(const SimNodePtr& comboBox, const std::vector<std::string>& entries,
                                long selected = -1);
    // AXSelectedChildrenChanged names the list.
    void selectListEntry(const SimNodePtr& list, long index);
    // The list's scroll area is destroyed (AXUIElementDestroyed).
    void closeComboBoxList(const SimNodePtr& comboBox);

    // --- Observation.
    size_t observerCount();
    size_t registrationCount();
    size_t registrationCount(const std::string& notification);
    size_t registrationCount(const SimNodePtr& element, const std::string& notification);
    const std::vector<PostedNotification>& postedNotifications() const { return posted_; }
    size_t postedCount(const std::string& notification) const;
    // Callbacks run, and deliveries dropped because the observer was detached.
    size_t deliveredCount() const { return delivered_; }
    size_t droppedCount() const { return dropped_; }
    void clearPostedNotifications() { posted_.clear(); }

    // --- Instrumentation.
    SimCallCounter& calls() { return calls_; }
    const std::vector<SetRecord>& setRecords() const { return sets_; }
    size_t setAttempts(const std::string& attribute) const;

    // Default layout of text elements (a node may carry its own).
    TextMetrics& textMetrics() { return metrics_; }

    // --- Facilities.
    SimAccessibility& ax() { return ax_; }
    SimWorkspace& workspace() { return workspace_; }
    SimDisplays& displays() { return displays_; }
    SimSpeechEngine& speech() { return speech_; }
    SimMessagePorts& messagePorts() { return messagePorts_; }
    SimUserDefaults& defaults() { return defaults_; }
    SimApplicationHost& host() { return host_; }

    // --- The rules behind the accessibility interface (SimAccessibility calls these).
    AXError readAttribute(const AXUIElementRef& element, const std::string& attribute,
                          AXValue* out);
    AXError readParameterized(const AXUIElementRef& element, const std::string& attribute,
                              const AXValue& parameter, AXValue* out);
    AXError attributeNames(const AXUIElementRef& element, std::vector<std::string>* out);
    AXError attributeSettable(const AXUIElementRef& element, const std::string& attribute,
                              bool* settable);
    AXError writeAttribute(const AXUIElementRef& element, const std::string& attribute,
                           const AXValue& value);
    AXError recordTimeout(const AXUIElementRef& element, float seconds);
    AXError elementAtPosition(const AXUIElementRef& element, Point point, AXUIElementRef* out);
    AXError makeObserver(pid_t pid, AXObserverCallback callback, AXObserverRef* out);
    uint64_t nextRegistrationId() { return ++registrationSerial_; }

  private:
    enum class Resolve { Ok, Foreign, Dead };
    SimNodePtr resolve(const AXUIElementRef& ref, Resolve* why = nullptr) const;
    std::optional<AXError> derived(const SimNodePtr& node, const std::string& attribute,
                                   AXValue* out);
    std::optional<AXError> derivedParameterized(const SimNodePtr& node,
                                                const std::string& attribute,
                                                const AXValue& parameter, AXValue* out);
    AXError answerFault(const SimFault& fault, const std::string& operation,
                        const std::string& attribute);
    void hitTest(const SimNodePtr& node, Point p, int depth, SimNodePtr* best,
                 int* bestDepth) const;
    void shift(const SimNodePtr& node, double dx, double dy);
    void switchFront(pid_t pid, bool signal);
    void deliver(const std::weak_ptr<SimObserver>& observer,
                 const std::vector<uint64_t>& registrations, const AXUIElementRef& named,
                 const std::string& notification);
    Point textOrigin(const SimNode& node) const;
    void replaceSelection(const SimNodePtr& element, const std::string& with);

    const uint64_t serial_;
    std::shared_ptr<MainLoop> loop_;
    VirtualMainLoop* vloop_ = nullptr;
    std::weak_ptr<Platform> platform_;

    std::map<pid_t, std::shared_ptr<SimApp>> apps_;
    std::vector<pid_t> launchOrder_;
    std::vector<pid_t> zOrder_;
    std::vector<std::shared_ptr<SimApp>> terminated_;
    pid_t frontmost_ = 0;
    SimNodePtr systemWide_;

    std::vector<std::weak_ptr<SimObserver>> observers_;
    uint64_t registrationSerial_ = 0;
    std::vector<PostedNotification> posted_;
    size_t delivered_ = 0;
    size_t dropped_ = 0;

    SimCallCounter calls_;
    std::vector<SetRecord> sets_;
    TextMetrics metrics_;

    SimAccessibility ax_;
    SimWorkspace workspace_;
    SimDisplays displays_;
    SimSpeechEngine speech_;
    SimMessagePorts messagePorts_;
    SimUserDefaults defaults_;
    SimApplicationHost host_;
};

}  // namespace orv::sim
