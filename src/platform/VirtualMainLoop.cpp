#include "platform/VirtualMainLoop.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

namespace orv {

namespace {
// How long the loop waits in real time for its workers before going on without them.
constexpr auto kWorkerWait = std::chrono::seconds(5);
}  // namespace

// Counts as running from creation (on the thread that starts the worker) until it sleeps or
// finishes; whoever ends a sleep (the loop at the wake time, or cancel) counts it as running again
// before the worker wakes, so the loop can never slip past it.
class VirtualMainLoop::Sleeper : public LoopSleeper {
  public:
    explicit Sleeper(VirtualMainLoop& loop) : loop_(loop) {
        std::lock_guard lock(loop_.inboxMutex_);
        ++loop_.runningWorkers_;
    }
    ~Sleeper() override { finish(); }

    bool sleep(double seconds) override {
        std::unique_lock lock(loop_.inboxMutex_);
        if (cancelled_ || state_ != State::Running) return false;
        wakeAt_ = loop_.now_ + (seconds > 0 ? seconds : 0);
        state_ = State::Sleeping;
        --loop_.runningWorkers_;
        loop_.sleeping_.insert(this);
        loop_.workersCv_.notify_all();
        loop_.workersCv_.wait(lock, [this] { return state_ != State::Sleeping; });
        return !cancelled_;
    }

    void cancel() override {
        std::lock_guard lock(loop_.inboxMutex_);
        cancelled_ = true;
        if (state_ == State::Sleeping) wakeLocked();
        loop_.workersCv_.notify_all();
    }

    void finish() override {
        std::lock_guard lock(loop_.inboxMutex_);
        if (state_ == State::Sleeping) loop_.sleeping_.erase(this);
        if (state_ == State::Running) --loop_.runningWorkers_;
        state_ = State::Done;
        loop_.workersCv_.notify_all();
    }

    // Under the loop's inbox lock.
    void wakeLocked() {
        loop_.sleeping_.erase(this);
        state_ = State::Running;
        ++loop_.runningWorkers_;
    }
    double wakeAt() const { return wakeAt_; }

  private:
    enum class State { Running, Sleeping, Done };
    VirtualMainLoop& loop_;
    State state_ = State::Running;
    double wakeAt_ = 0;
};

VirtualMainLoop::VirtualMainLoop(double start) : now_(start) {
    if (::pipe(wakePipe_) == 0) {
        for (int fd : wakePipe_) ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
        for (int fd : wakePipe_) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
}

VirtualMainLoop::~VirtualMainLoop() {
    // Drop timers first: their actions may own objects whose destructors touch the loop.
    auto timers = std::move(liveTimers_);
    for (auto& [raw, t] : timers) t->invalidate();
    timers.clear();
    while (!queue_.empty()) queue_.pop();
    for (int fd : wakePipe_)
        if (fd >= 0) ::close(fd);
}

double VirtualMainLoop::now() const {
    return now_;
}

void VirtualMainLoop::post(Task task) {
    postAfter(0, std::move(task));
}

void VirtualMainLoop::postAfter(double seconds, Task task) {
    if (isMainThread()) {
        schedule(now_ + (seconds > 0 ? seconds : 0), std::move(task));
        return;
    }
    {
        std::lock_guard lock(inboxMutex_);
        inbox_.emplace_back(seconds, std::move(task));
    }
    workersCv_.notify_all();
    if (wakePipe_[1] >= 0) {
        char c = 1;
        [[maybe_unused]] auto n = ::write(wakePipe_[1], &c, 1);
    }
}

void VirtualMainLoop::schedule(double time, Task task) {
    queue_.push(Entry{time, seq_++, std::move(task), {}, false});
}

void VirtualMainLoop::scheduleTimerEntry(const TimerRef& timer, double time, double base,
                                         uint64_t tick) {
    queue_.push(Entry{time, seq_++, nullptr, timer, true, base, tick});
}

TimerRef VirtualMainLoop::scheduleTimer(double interval, bool repeats, Timer::Action action,
                                        std::any userInfo) {
    auto timer = std::make_shared<Timer>(interval, repeats, std::move(action), std::move(userInfo));
    Timer* raw = timer.get();
    liveTimers_[raw] = timer;
    timer->setCanceller([this, raw] { liveTimers_.erase(raw); });
    // A zero or negative interval fires on the next turn, like the platform's timers.
    scheduleTimerEntry(timer, now_ + (interval > 0 ? interval : 0), now_, 1);
    return timer;
}

FdWatchId VirtualMainLoop::watchFd(int fd, short events, std::function<void(int, short)> cb) {
    FdWatchId id = nextWatch_++;
    watches_[id] = Watch{fd, events, std::move(cb)};
    return id;
}

void VirtualMainLoop::unwatchFd(FdWatchId id) {
    watches_.erase(id);
}

std::shared_ptr<LoopSleeper> VirtualMainLoop::makeSleeper() {
    return std::make_shared<Sleeper>(*this);
}

bool VirtualMainLoop::wakeDueSleepers() {
    std::lock_guard lock(inboxMutex_);
    std::vector<Sleeper*> due;
    for (Sleeper* s : sleeping_)
        if (s->wakeAt() <= now_) due.push_back(s);
    for (Sleeper* s : due) s->wakeLocked();
    if (!due.empty()) workersCv_.notify_all();
    return !due.empty();
}

bool VirtualMainLoop::waitForWorkers() {
    std::unique_lock lock(inboxMutex_);
    workersCv_.wait_for(lock, kWorkerWait,
                        [this] { return runningWorkers_ == 0 || !inbox_.empty(); });
    return !inbox_.empty();
}

void VirtualMainLoop::drainInbox() {
    std::vector<std::pair<double, Task>> items;
    {
        std::lock_guard lock(inboxMutex_);
        items.swap(inbox_);
    }
    for (auto& [delay, task] : items) schedule(now_ + (delay > 0 ? delay : 0), std::move(task));
}

size_t VirtualMainLoop::pollFds(int timeoutMs) {
    std::vector<pollfd> fds;
    std::vector<FdWatchId> ids;
    if (wakePipe_[0] >= 0) fds.push_back(pollfd{wakePipe_[0], POLLIN, 0});
    for (auto& [id, w] : watches_) {
        short ev = 0;
        if (w.events & kFdReadable) ev |= POLLIN;
        if (w.events & kFdWritable) ev |= POLLOUT;
        fds.push_back(pollfd{w.fd, ev, 0});
        ids.push_back(id);
    }
    if (fds.empty()) return 0;
    int r = ::poll(fds.data(), fds.size(), timeoutMs);
    if (r <= 0) return 0;
    size_t ran = 0;
    size_t first = wakePipe_[0] >= 0 ? 1 : 0;
    if (first && (fds[0].revents & POLLIN)) {
        char buf[256];
        while (::read(wakePipe_[0], buf, sizeof buf) > 0) {
        }
    }
    for (size_t i = first; i < fds.size(); ++i) {
        if (!fds[i].revents) continue;
        auto it = watches_.find(ids[i - first]);
        if (it == watches_.end()) continue;  // removed by an earlier callback
        short ev = 0;
        if (fds[i].revents & POLLIN) ev |= kFdReadable;
        if (fds[i].revents & POLLOUT) ev |= kFdWritable;
        if (fds[i].revents & (POLLERR | POLLHUP | POLLNVAL)) ev |= kFdError;
        auto cb = it->second.cb;
        const int fd = fds[i].fd;
        runGuarded([&] { cb(fd, ev); });
        ++ran;
    }
    return ran;
}

bool VirtualMainLoop::runOneDue() {
    drainInbox();
    if (queue_.empty() || queue_.top().time > now_) return false;
    Entry e = queue_.top();
    queue_.pop();
    if (e.isTimer) {
        TimerRef timer = e.timer.lock();
        if (!timer || !timer->isValid()) return true;
        if (timer->repeats()) {
            const uint64_t next = e.tick + 1;
            const double at =
                timer->interval() > 0 ? e.base + double(next) * timer->interval() : e.time + 1e-9;
            scheduleTimerEntry(timer, at, e.base, next);
        } else {
            liveTimers_.erase(timer.get());
        }
        timer->fire();
        return true;
    }
    if (e.task) runGuarded(e.task);
    return true;
}

size_t VirtualMainLoop::runUntilIdle() {
    size_t ran = 0;
    for (;;) {
        ran += pollFds(0);
        bool any = false;
        while (runOneDue()) {
            any = true;
            ++ran;
        }
        if (any) continue;
        drainInbox();
        if (!queue_.empty() && queue_.top().time <= now_) continue;
        if (wakeDueSleepers()) continue;
        if (!waitForWorkers()) break;
    }
    return ran;
}

void VirtualMainLoop::advanceTo(double time) {
    playUntil(time);
}

size_t VirtualMainLoop::advance(double seconds) {
    return playUntil(now_ + seconds);
}

size_t VirtualMainLoop::playUntil(double target) {
    size_t ran = 0;
    ran += runUntilIdle();
    for (;;) {
        drainInbox();
        const double next = nextDueTime();
        if (next < 0 || next > target) break;
        if (next > now_) now_ = next;
        ran += runUntilIdle();
    }
    if (target > now_) now_ = target;
    ran += runUntilIdle();
    return ran;
}

bool VirtualMainLoop::runUntil(const std::function<bool()>& done, double realTimeoutSeconds) {
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::duration<double>(realTimeoutSeconds);
    for (;;) {
        runUntilIdle();
        if (done()) return true;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now());
        if (left.count() <= 0) return done();
        pollFds(static_cast<int>(std::min<long long>(left.count(), 50)));
    }
}

void VirtualMainLoop::run() {
    quit_ = false;
    while (!quit_) {
        runUntilIdle();
        if (quit_) break;
        drainInbox();
        if (const double next = nextDueTime(); next >= 0) {
            if (next > now_) now_ = next;
            continue;
        }
        // Nothing scheduled: only other threads or descriptors can bring work.
        if (watches_.empty() && wakePipe_[0] < 0) break;
        pollFds(100);
    }
}

void VirtualMainLoop::quit() {
    quit_ = true;
    if (wakePipe_[1] >= 0) {
        char c = 1;
        [[maybe_unused]] auto n = ::write(wakePipe_[1], &c, 1);
    }
}

double VirtualMainLoop::nextDueTime() const {
    double next = queue_.empty() ? -1.0 : queue_.top().time;
    std::lock_guard lock(inboxMutex_);
    for (const Sleeper* s : sleeping_)
        if (next < 0 || s->wakeAt() < next) next = s->wakeAt();
    return next;
}

size_t VirtualMainLoop::pendingCount() const {
    std::lock_guard lock(inboxMutex_);
    return queue_.size() + inbox_.size();
}

}  // namespace orv
