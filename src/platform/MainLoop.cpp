#include "platform/MainLoop.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "Common/OrvLogger.h"

namespace orv {

Timer::Timer(double interval, bool repeats, Action action, std::any userInfo)
    : interval_(interval),
      repeats_(repeats),
      action_(std::move(action)),
      userInfo_(std::move(userInfo)) {}

Timer::~Timer() = default;

void Timer::invalidate() {
    if (!valid_) return;
    valid_ = false;
    // Release the target now, not when the loop gets round to dropping its entry.
    Action dropped = std::move(action_);
    action_ = nullptr;
    if (auto cancel = std::move(cancel_)) cancel();
}

void Timer::fire() {
    if (!valid_) return;
    // Keep ourselves and the action alive through the call: the action may invalidate us.
    auto self = shared_from_this();
    Action action = action_;
    if (!repeats_) {
        valid_ = false;
        action_ = nullptr;
        cancel_ = nullptr;
    }
    if (action) MainLoop::runGuarded([&] { action(*this); });
}

void MainLoop::runGuarded(const std::function<void()>& task) {
    try {
        task();
    } catch (const std::exception& e) {
        systemLog(std::string("Unhandled error on the main loop: ") + e.what());
    } catch (...) {
        systemLog("Unhandled error on the main loop: unknown exception");
    }
}

bool LoopSleeper::sleep(double seconds) {
    std::unique_lock lock(mutex_);
    cv_.wait_for(lock, std::chrono::duration<double>(seconds > 0 ? seconds : 0),
                 [this] { return cancelled_.load(); });
    return !cancelled_.load();
}

void LoopSleeper::cancel() {
    {
        // Set under the lock so that a worker between its test and its wait cannot miss it.
        std::lock_guard lock(mutex_);
        cancelled_ = true;
    }
    cv_.notify_all();
}

std::shared_ptr<LoopSleeper> MainLoop::makeSleeper() {
    return std::make_shared<LoopSleeper>();
}

MainLoop::MainLoop() : mainThread_(std::this_thread::get_id()) {}

bool MainLoop::postAndWait(Task task, double timeoutSeconds) {
    if (isMainThread()) {
        task();
        return true;
    }
    struct State {
        std::mutex m;
        std::condition_variable cv;
        bool done = false;
    };
    auto state = std::make_shared<State>();
    post([state, task = std::move(task)] {
        task();
        std::lock_guard lock(state->m);
        state->done = true;
        state->cv.notify_all();
    });
    std::unique_lock lock(state->m);
    if (timeoutSeconds < 0) {
        state->cv.wait(lock, [&] { return state->done; });
        return true;
    }
    return state->cv.wait_for(lock, std::chrono::duration<double>(timeoutSeconds),
                              [&] { return state->done; });
}

}  // namespace orv
