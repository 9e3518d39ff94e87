#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <queue>
#include <set>
#include <vector>

#include "platform/MainLoop.h"

namespace orv {

// A main loop whose clock moves only when told to. Due tasks and timers run in time order (ties in
// the order they were queued), so a 0.5 s poll or an 8 s time-out is tested in microseconds.
// Tasks posted from other threads (socket events) and watched descriptors are picked up on every
// turn at the current virtual time. Worker threads that sleep through makeSleeper() keep step with
// the clock (see LoopSleeper).
class VirtualMainLoop : public MainLoop {
  public:
    explicit VirtualMainLoop(double start = 0.0);
    ~VirtualMainLoop() override;

    double now() const override;
    void post(Task task) override;
    void postAfter(double seconds, Task task) override;
    TimerRef scheduleTimer(double interval, bool repeats, Timer::Action action,
                           std::any userInfo = {}) override;
    FdWatchId watchFd(int fd, short events, std::function<void(int, short)> cb) override;
    void unwatchFd(FdWatchId id) override;
    std::shared_ptr<LoopSleeper> makeSleeper() override;

    // Plays everything in time order, jumping the clock from one due item to the next, until
    // quit() or nothing is left to do; with nothing due it waits for other threads and watched
    // descriptors.
    void run() override;
    void quit() override;

    // Runs every task and timer due now, including those they queue for now, wakes the sleepers
    // due now, and waits (bounded) until no worker runs, running what workers post meanwhile.
    // Returns how many ran.
    size_t runUntilIdle();
    // Moves the clock forward by `seconds`, running everything that falls due on the way at its
    // own time. Returns how many ran.
    size_t advance(double seconds);
    void advanceTo(double time);
    // Runs due work and waits (in real time, bounded) for other threads or descriptors until the
    // predicate holds. The clock does not move. For tests over real sockets.
    bool runUntil(const std::function<bool()>& done, double realTimeoutSeconds);

    // Time of the next scheduled item or sleeper's wake, or a negative number when there is none.
    double nextDueTime() const;
    size_t pendingCount() const;
    bool quitRequested() const { return quit_; }
    void resetQuit() { quit_ = false; }

  private:
    struct Entry {
        double time;
        uint64_t seq;
        Task task;
        std::weak_ptr<Timer> timer;
        bool isTimer;
        // Repeating timers: tick n falls at base + n * interval, so long runs do not drift.
        double base = 0;
        uint64_t tick = 0;
    };
    struct Later {
        bool operator()(const Entry& a, const Entry& b) const {
            return a.time != b.time ? a.time > b.time : a.seq > b.seq;
        }
    };
    struct Watch {
        int fd;
        short events;
        std::function<void(int, short)> cb;
    };

    void schedule(double time, Task task);
    void scheduleTimerEntry(const TimerRef& timer, double time, double base, uint64_t tick);
    void drainInbox();
    // Polls watched descriptors and the wake-up pipe; runs ready callbacks. Returns how many ran.
    size_t pollFds(int timeoutMs);
    bool runOneDue();
    size_t playUntil(double target);
    // Wakes the sleepers whose time has come; true if any.
    bool wakeDueSleepers();
    // Waits until no worker runs or one posts a task; true when there are posted tasks to run.
    bool waitForWorkers();

    class Sleeper;

    // Read by workers when they go to sleep.
    std::atomic<double> now_;
    uint64_t seq_ = 0;
    std::priority_queue<Entry, std::vector<Entry>, Later> queue_;
    // Timers are owned by the loop while scheduled.
    std::map<Timer*, TimerRef> liveTimers_;

    mutable std::mutex inboxMutex_;
    std::vector<std::pair<double, Task>> inbox_;  // (delay, task) from any thread
    int wakePipe_[2] = {-1, -1};
    // Workers, under inboxMutex_: how many run, and who sleeps till when.
    int runningWorkers_ = 0;
    std::set<Sleeper*> sleeping_;
    std::condition_variable workersCv_;

    std::map<FdWatchId, Watch> watches_;
    FdWatchId nextWatch_ = 1;
    std::atomic<bool> quit_{false};
};

}  // namespace orv
