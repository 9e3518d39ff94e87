#include "platform/glib/GLibMainLoop.h"

#include <glib-unix.h>
#include <glib.h>

#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace orv {

namespace {

struct TaskBox {
    MainLoop::Task task;
};

gboolean runTaskOnce(gpointer data) {
    auto* box = static_cast<TaskBox*>(data);
    if (box->task) MainLoop::runGuarded(box->task);
    return G_SOURCE_REMOVE;
}

void deleteTask(gpointer data) {
    delete static_cast<TaskBox*>(data);
}

guint attach(GSource* source, GMainContext* ctx) {
    guint id = g_source_attach(source, ctx);
    g_source_unref(source);
    return id;
}

struct FdBox {
    std::function<void(int, short)> cb;
};

gboolean fdReady(gint fd, GIOCondition cond, gpointer data) {
    auto* box = static_cast<FdBox*>(data);
    short ev = 0;
    if (cond & G_IO_IN) ev |= kFdReadable;
    if (cond & G_IO_OUT) ev |= kFdWritable;
    if (cond & (G_IO_ERR | G_IO_HUP | G_IO_NVAL)) ev |= kFdError;
    auto cb = box->cb;
    MainLoop::runGuarded([&] { cb(fd, ev); });
    return G_SOURCE_CONTINUE;
}

void deleteFdBox(gpointer data) {
    delete static_cast<FdBox*>(data);
}

int64_t toMicroseconds(double seconds) {
    return static_cast<int64_t>(std::llround(seconds * 1e6));
}

}  // namespace

struct GLibMainLoop::Deadlines : std::enable_shared_from_this<Deadlines> {
    struct Entry {
        uint64_t id;
        Task task;       // a delayed task, or
        TimerRef timer;  // a timer, held until it fires for the last time or is cancelled
    };
    using Queue = std::multimap<int64_t, Entry>;  // equal deadlines keep their order

    struct Source {
        GSource base;
        Deadlines* owner;
    };

    Queue queue;
    std::unordered_map<uint64_t, Queue::iterator> timers;
    uint64_t nextId = 1;
    GSource* source = nullptr;
    int64_t armedFor = -1;

    void add(int64_t due, Task task, TimerRef timer, uint64_t id) {
        auto it = queue.emplace(due, Entry{id, std::move(task), std::move(timer)});
        if (it->second.timer) timers[id] = it;
        rearm();
    }

    void cancel(uint64_t id) {
        auto found = timers.find(id);
        if (found == timers.end()) return;
        queue.erase(found->second);
        timers.erase(found);
        rearm();
    }

    void rearm() {
        const int64_t due = queue.empty() ? -1 : queue.begin()->first;
        if (due == armedFor) return;
        armedFor = due;
        g_source_set_ready_time(source, due);
    }

    void dispatch() {
        auto keep = shared_from_this();
        const int64_t now = g_get_monotonic_time();
        // Only what was due when the turn began: a zero-interval timer must not spin here.
        while (!queue.empty() && queue.begin()->first <= now) {
            auto it = queue.begin();
            const int64_t due = it->first;
            Entry e = std::move(it->second);
            if (e.timer) timers.erase(e.id);
            queue.erase(it);
            if (!e.timer) {
                if (e.task) MainLoop::runGuarded(e.task);
                continue;
            }
            TimerRef t = std::move(e.timer);
            t->fire();
            if (!t->repeats() || !t->isValid()) continue;
            // Ticks fall at start + n * interval; ticks missed while the loop was busy are
            // skipped, not bunched.
            const int64_t step = std::max<int64_t>(1, toMicroseconds(t->interval()));
            int64_t next = due + step;
            if (next <= now) next += ((now - next) / step + 1) * step;
            add(next, nullptr, std::move(t), e.id);
        }
        armedFor = -2;  // GLib keeps a ready time after dispatch: always set it afresh
        rearm();
    }
};

namespace {

gboolean dispatchDeadlines(GSource* source, GSourceFunc, gpointer) {
    reinterpret_cast<GLibMainLoop::Deadlines::Source*>(source)->owner->dispatch();
    return G_SOURCE_CONTINUE;
}

GSourceFuncs kDeadlineFuncs = {nullptr, nullptr, dispatchDeadlines, nullptr, nullptr, nullptr};

}  // namespace

GLibMainLoop::GLibMainLoop() : GLibMainLoop(nullptr, nullptr) {}

GLibMainLoop::GLibMainLoop(std::function<void()> runner, std::function<void()> quitter)
    : context_(g_main_context_default()),
      loop_(g_main_loop_new(context_, FALSE)),
      runner_(std::move(runner)),
      quitter_(std::move(quitter)),
      deadlines_(std::make_shared<Deadlines>()) {
    GSource* s = g_source_new(&kDeadlineFuncs, sizeof(Deadlines::Source));
    reinterpret_cast<Deadlines::Source*>(s)->owner = deadlines_.get();
    g_source_set_name(s, "orv timers");
    g_source_set_ready_time(s, -1);
    deadlines_->source = s;
    g_source_attach(s, context_);
}

GLibMainLoop::~GLibMainLoop() {
    for (auto& [id, src] : fdSources_) {
        if (GSource* s = g_main_context_find_source_by_id(context_, src)) g_source_destroy(s);
    }
    g_source_destroy(deadlines_->source);
    g_source_unref(deadlines_->source);
    g_main_loop_unref(loop_);
}

double GLibMainLoop::now() const {
    return static_cast<double>(g_get_monotonic_time()) / 1e6;
}

void GLibMainLoop::post(Task task) {
    GSource* s = g_idle_source_new();
    g_source_set_priority(s, G_PRIORITY_DEFAULT);
    g_source_set_callback(s, runTaskOnce, new TaskBox{std::move(task)}, deleteTask);
    attach(s, context_);  // g_source_attach is thread-safe and wakes the context
}

void GLibMainLoop::postAfter(double seconds, Task task) {
    if (seconds <= 0) return post(std::move(task));
    int64_t due = g_get_monotonic_time() + toMicroseconds(seconds);
    // A wait of a second or more (the link's reply time-outs, retries) ends on a 0.1 s grid of
    // the clock, at most that late: the time-outs of a burst of focus changes then share one
    // wake-up instead of waking the process once each.
    constexpr int64_t kLaxGrainUs = 100000;
    if (seconds >= 1.0) due = (due + kLaxGrainUs - 1) / kLaxGrainUs * kLaxGrainUs;
    if (isMainThread()) return schedule(due, std::move(task), nullptr);
    // The queue is the main thread's: the deadline is taken here, the entry made there.
    std::weak_ptr<Deadlines> weak = deadlines_;
    post([weak, due, task = std::move(task)]() mutable {
        if (auto d = weak.lock()) d->add(due, std::move(task), nullptr, d->nextId++);
    });
}

void GLibMainLoop::schedule(int64_t dueUs, Task task, TimerRef timer) {
    const uint64_t id = deadlines_->nextId++;
    if (timer) {
        std::weak_ptr<Deadlines> weak = deadlines_;
        timer->setCanceller([weak, id] {
            if (auto d = weak.lock()) d->cancel(id);
        });
    }
    deadlines_->add(dueUs, std::move(task), std::move(timer), id);
}

TimerRef GLibMainLoop::scheduleTimer(double interval, bool repeats, Timer::Action action,
                                     std::any userInfo) {
    auto timer = std::make_shared<Timer>(interval, repeats, std::move(action), std::move(userInfo));
    schedule(g_get_monotonic_time() + toMicroseconds(std::max(0.0, interval)), nullptr, timer);
    return timer;
}

FdWatchId GLibMainLoop::watchFd(int fd, short events, std::function<void(int, short)> cb) {
    int cond = G_IO_ERR | G_IO_HUP;
    if (events & kFdReadable) cond |= G_IO_IN;
    if (events & kFdWritable) cond |= G_IO_OUT;
    GSource* s = g_unix_fd_source_new(fd, static_cast<GIOCondition>(cond));
    g_source_set_callback(s, reinterpret_cast<GSourceFunc>(reinterpret_cast<void (*)()>(fdReady)),
                          new FdBox{std::move(cb)}, deleteFdBox);
    FdWatchId id = nextWatch_++;
    fdSources_[id] = attach(s, context_);
    return id;
}

void GLibMainLoop::unwatchFd(FdWatchId id) {
    auto it = fdSources_.find(id);
    if (it == fdSources_.end()) return;
    if (GSource* s = g_main_context_find_source_by_id(context_, it->second)) g_source_destroy(s);
    fdSources_.erase(it);
}

void GLibMainLoop::run() {
    if (runner_)
        runner_();
    else
        g_main_loop_run(loop_);
}

void GLibMainLoop::quit() {
    if (quitter_)
        quitter_();
    else
        g_main_loop_quit(loop_);
}

}  // namespace orv
