#pragma once

#include <memory>
#include <thread>
#include <vector>

#include "Common/Geometry.h"
#include "platform/AXTypes.h"

namespace orv {

class ORVAXMouseEchoController;

// Receives the element under the pointer each time the pointer has moved (the echo controller).
class ORVAXMouseEchoControllerDelegate {
  public:
    virtual ~ORVAXMouseEchoControllerDelegate() = default;
    virtual void mouseEchoControllerIdentifiedAnItemOfInterest(ORVAXMouseEchoController& controller,
                                                               const AXUIElementRef& element) = 0;
};

// Watches the pointer on a thread of its own, every 0.25 s of main-loop time, and reports the
// element under it whenever it has moved; the first poll after enable always reports.
//
// Neither the accessibility interface nor the simulated desktop may be used off the main thread,
// so the poll thread only reads the pointer; when it moved, the thread hands the hit test and the
// delegate call to the main loop and waits for them. The delegate is therefore called on the main
// thread. enable, disable and the destructor are main-thread calls.
class ORVAXMouseEchoController : public std::enable_shared_from_this<ORVAXMouseEchoController> {
    struct Passkey {
        explicit Passkey() = default;
    };

  public:
    static constexpr double kPollInterval = 0.25;

    static std::shared_ptr<ORVAXMouseEchoController> create();
    explicit ORVAXMouseEchoController(Passkey);
    // Stops the thread and waits for every poll thread ever started to end.
    ~ORVAXMouseEchoController();
    ORVAXMouseEchoController(const ORVAXMouseEchoController&) = delete;
    ORVAXMouseEchoController& operator=(const ORVAXMouseEchoController&) = delete;

    // Held strongly.
    void setDelegate(std::shared_ptr<ORVAXMouseEchoControllerDelegate> delegate);
    const std::shared_ptr<ORVAXMouseEchoControllerDelegate>& delegate() const { return delegate_; }

    // A second enable while enabled does nothing.
    void enable();
    // The thread notices at once and ends on its own; a poll it has handed to the main loop and
    // that has not run yet is dropped.
    void disable();
    bool isEnabled() const { return poll_ != nullptr; }

    // Hit test at a point in top-left-origin screen coordinates; null when nothing is there, when
    // disabled, or when the query raised (logged).
    AXUIElementRef elementFromPosition(const Point& topLeft);

  private:
    struct Poll;
    static void continuallyMonitorMouse(std::shared_ptr<Poll> poll);
    // Poll thread: reads the pointer and, when it moved, hands the rest to the main loop.
    static void updateCurrentUIElement(Poll& poll);
    // Main thread: the hit test and the delegate call for a pointer position.
    void reportElementAt(const Point& bottomLeft);
    void reapEndedThreads(bool all);

    std::shared_ptr<ORVAXMouseEchoControllerDelegate> delegate_;
    // Present exactly while enabled.
    std::shared_ptr<Poll> poll_;
    AXUIElementRef systemWideElement_;
    // Threads of this and earlier enables, joined once they have ended (all of them at the end).
    struct Worker {
        std::shared_ptr<Poll> poll;
        std::thread thread;
    };
    std::vector<Worker> workers_;
};

}  // namespace orv
