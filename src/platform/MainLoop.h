#pragma once

#include <any>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace orv {

class MainLoop;

// A one-shot or repeating timer on the main loop. The action (and whatever it captures, usually
// its target) is kept alive until the timer fires for the last time or is invalidated.
class Timer : public std::enable_shared_from_this<Timer> {
  public:
    using Action = std::function<void(Timer&)>;

    Timer(double interval, bool repeats, Action action, std::any userInfo);
    ~Timer();

    void invalidate();
    bool isValid() const { return valid_; }
    double interval() const { return interval_; }
    bool repeats() const { return repeats_; }
    const std::any& userInfo() const { return userInfo_; }

    // Loop-side interface.
    void fire();
    void setCanceller(std::function<void()> cancel) { cancel_ = std::move(cancel); }

  private:
    double interval_;
    bool repeats_;
    Action action_;
    std::any userInfo_;
    bool valid_ = true;
    std::function<void()> cancel_;
};
using TimerRef = std::shared_ptr<Timer>;

// Lets one thread other than the main one sleep on the loop's clock, and lets another thread cut
// the sleep short. Made by the loop (MainLoop::makeSleeper) on the thread that starts the worker,
// before starting it; the worker calls finish() as its last act. The loop must outlive it.
//
// A virtual loop keeps such a worker in step with its clock: from creation until the worker sleeps
// or finishes, it counts as running, and the loop runs what the worker posts but neither moves
// its clock nor returns from runUntilIdle() until no worker runs (bounded in real time, so a
// stuck worker slows tests down instead of hanging them). A sleeper's wake time is due work like
// a timer's. On a real loop a sleep is a plain wait of that many seconds.
class LoopSleeper {
  public:
    virtual ~LoopSleeper() = default;
    // Worker thread. False when cancelled, before or during the sleep.
    virtual bool sleep(double seconds);
    // Any thread: wakes the worker at once; every later sleep returns false at once.
    virtual void cancel();
    bool isCancelled() const { return cancelled_.load(); }
    // Worker thread, last call: a virtual loop stops waiting for it.
    virtual void finish() {}

  protected:
    std::atomic<bool> cancelled_{false};

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
};

enum FdEvents : short { kFdReadable = 1, kFdWritable = 2, kFdError = 4 };
using FdWatchId = uint64_t;

// The main thread's loop. Everything but socket work and the pointer poll runs on it.
class MainLoop {
  public:
    using Task = std::function<void()>;

    MainLoop();
    virtual ~MainLoop() = default;

    // Monotonic seconds.
    virtual double now() const = 0;
    // Queue a task for the next turn. Safe from any thread.
    virtual void post(Task task) = 0;
    // Queue a task after a delay. Safe from any thread.
    virtual void postAfter(double seconds, Task task) = 0;
    // Main thread only.
    virtual TimerRef scheduleTimer(double interval, bool repeats, Timer::Action action,
                                   std::any userInfo = {}) = 0;
    // Main thread only. The callback runs on the main loop with the events that happened.
    virtual FdWatchId watchFd(int fd, short events,
                              std::function<void(int fd, short events)> cb) = 0;
    virtual void unwatchFd(FdWatchId id) = 0;
    virtual void run() = 0;
    // Safe from any thread.
    virtual void quit() = 0;

    // Runs the task on the main thread and waits for it to finish: at once when called there,
    // else through post(). A negative timeout waits for as long as it takes; false on time-out.
    bool postAndWait(Task task, double timeoutSeconds = -1);

    // A sleeper for one worker thread that keeps time with this loop (see LoopSleeper).
    virtual std::shared_ptr<LoopSleeper> makeSleeper();

    bool isMainThread() const { return std::this_thread::get_id() == mainThread_; }

    // Runs a task so that nothing it throws unwinds into the loop: an accessibility read that
    // raises inside a timer must cost that tick, not the process. What was thrown is logged.
    static void runGuarded(const std::function<void()>& task);
    // The loop belongs to the thread that made it unless told otherwise.
    void adoptCurrentThread() { mainThread_ = std::this_thread::get_id(); }

  private:
    std::thread::id mainThread_;
};

}  // namespace orv
