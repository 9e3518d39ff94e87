#include "speech/ORVAXMouseEchoController.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>

#include "Common/OrvLogger.h"
#include "accessibility/element/UIElementUtilities.h"
#include "platform/Platform.h"

namespace orv {

// Shared by one poll thread and the monitor, so that neither outlives what the other uses.
struct ORVAXMouseEchoController::Poll {
    std::shared_ptr<MainLoop> loop;
    std::shared_ptr<Displays> displays;
    // Its cancellation is the thread's stop signal, and a poll handed over after it is dropped.
    std::shared_ptr<LoopSleeper> sleeper;
    std::weak_ptr<ORVAXMouseEchoController> owner;
    Point lastMousePoint{-1, -1};  // poll thread only
    std::atomic<bool> ended{false};
};

std::shared_ptr<ORVAXMouseEchoController> ORVAXMouseEchoController::create() {
    return std::make_shared<ORVAXMouseEchoController>(Passkey());
}

ORVAXMouseEchoController::ORVAXMouseEchoController(Passkey) {}

ORVAXMouseEchoController::~ORVAXMouseEchoController() {
    disable();
    reapEndedThreads(true);
}

void ORVAXMouseEchoController::setDelegate(
    std::shared_ptr<ORVAXMouseEchoControllerDelegate> delegate) {
    delegate_ = std::move(delegate);
}

void ORVAXMouseEchoController::enable() {
    if (poll_) return;
    reapEndedThreads(false);
    auto poll = std::make_shared<Poll>();
    poll->loop = platform().loop;
    poll->displays = platform().displays;
    poll->owner = weak_from_this();
    if (!poll->loop || !poll->displays) return;
    // Made here, before the thread starts, so that a virtual loop counts the thread from now on.
    poll->sleeper = poll->loop->makeSleeper();
    systemWideElement_ = axAPI().createSystemWide();
    poll_ = poll;
    try {
        workers_.push_back(Worker{poll, std::thread(continuallyMonitorMouse, poll)});
    } catch (const std::system_error& e) {
        OrvLogger::addErrorMessageWithFormat("ORVAXMouseEchoController - cannot start thread: %@",
                                             e.what());
        poll->sleeper->finish();
        poll_.reset();
        systemWideElement_.reset();
    }
}

void ORVAXMouseEchoController::disable() {
    if (!poll_) return;
    poll_->sleeper->cancel();
    poll_.reset();
    // Safe at once: the hit test runs on this thread and never after the cancellation above.
    systemWideElement_.reset();
}

void ORVAXMouseEchoController::reapEndedThreads(bool all) {
    for (auto it = workers_.begin(); it != workers_.end();) {
        if (!all && !it->poll->ended.load()) {
            ++it;
            continue;
        }
        it->poll->sleeper->cancel();
        if (it->thread.joinable()) it->thread.join();
        it = workers_.erase(it);
    }
}

void ORVAXMouseEchoController::continuallyMonitorMouse(std::shared_ptr<Poll> poll) {
    try {
        while (!poll->sleeper->isCancelled()) {
            updateCurrentUIElement(*poll);
            if (!poll->sleeper->sleep(kPollInterval)) break;
        }
    } catch (const std::exception& e) {
        OrvLogger::addErrorMessageWithFormat("ORVAXMouseEchoController - poll thread ended: %@",
                                             e.what());
    }
    poll->sleeper->finish();
    poll->ended = true;
}

void ORVAXMouseEchoController::updateCurrentUIElement(Poll& poll) {
    const Point location = poll.displays->mouseLocation();
    // A still pointer is never announced twice.
    if (location == poll.lastMousePoint) return;
    poll.lastMousePoint = location;

    struct Hop {
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false;
    };
    auto hop = std::make_shared<Hop>();
    poll.loop->post([hop, sleeper = poll.sleeper, owner = poll.owner, location] {
        if (!sleeper->isCancelled())
            if (auto monitor = owner.lock()) monitor->reportElementAt(location);
        std::lock_guard lock(hop->mutex);
        hop->finished = true;
        hop->done.notify_all();
    });
    // Waits for the main thread, but not past a cancellation: the monitor's destructor joins this
    // thread from the main thread, which then never gets to run the task.
    std::unique_lock lock(hop->mutex);
    while (
        !hop->done.wait_for(lock, std::chrono::milliseconds(50), [&] { return hop->finished; })) {
        if (poll.sleeper->isCancelled()) return;
    }
}

void ORVAXMouseEchoController::reportElementAt(const Point& bottomLeft) {
    if (!poll_) return;
    const Point topLeft = UIElementUtilities::carbonScreenPointFromCocoaScreenPoint(bottomLeft);
    AXUIElementRef element = elementFromPosition(topLeft);
    // Held for the call: the delegate may switch mouse echo off while it handles the element.
    if (auto delegate = delegate_; element && delegate)
        delegate->mouseEchoControllerIdentifiedAnItemOfInterest(*this, element);
}

AXUIElementRef ORVAXMouseEchoController::elementFromPosition(const Point& topLeft) {
    if (!systemWideElement_) return nullptr;
    try {
        AXUIElementRef found;
        const AXError err =
            axAPI().copyElementAtPosition(systemWideElement_, static_cast<float>(topLeft.x),
                                          static_cast<float>(topLeft.y), &found);
        return err == kAXErrorSuccess ? found : nullptr;
    } catch (const std::exception& e) {
        OrvLogger::addErrorMessageWithFormat(
            "ORVAXMouseEchoController - exception while querying for element: %@", e.what());
    }
    return nullptr;
}

}  // namespace orv
