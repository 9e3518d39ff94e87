#include "platform/glib/GLibMainLoop.h"

#include <glib-unix.h>
#include <glib.h>

#include <cmath>

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

struct TimerBox {
    std::weak_ptr<Timer> timer;
    // Holds the timer while its source is live; invalidation destroys the source.
    TimerRef keep;
};

gboolean fireTimer(gpointer data) {
    auto* box = static_cast<TimerBox*>(data);
    TimerRef t = box->keep;
    if (!t || !t->isValid()) return G_SOURCE_REMOVE;
    const bool again = t->repeats();
    t->fire();
    return again && t->isValid() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

void deleteTimerBox(gpointer data) {
    delete static_cast<TimerBox*>(data);
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

}  // namespace

GLibMainLoop::GLibMainLoop() : GLibMainLoop(nullptr, nullptr) {}

GLibMainLoop::GLibMainLoop(std::function<void()> runner, std::function<void()> quitter)
    : context_(g_main_context_default()),
      loop_(g_main_loop_new(context_, FALSE)),
      runner_(std::move(runner)),
      quitter_(std::move(quitter)) {}

GLibMainLoop::~GLibMainLoop() {
    for (auto& [id, src] : fdSources_) {
        if (GSource* s = g_main_context_find_source_by_id(context_, src)) g_source_destroy(s);
    }
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
    GSource* s = g_timeout_source_new(static_cast<guint>(std::lround(seconds * 1000.0)));
    g_source_set_callback(s, runTaskOnce, new TaskBox{std::move(task)}, deleteTask);
    attach(s, context_);
}

TimerRef GLibMainLoop::scheduleTimer(double interval, bool repeats, Timer::Action action,
                                     std::any userInfo) {
    auto timer = std::make_shared<Timer>(interval, repeats, std::move(action), std::move(userInfo));
    guint ms = interval > 0 ? static_cast<guint>(std::lround(interval * 1000.0)) : 0;
    GSource* s = g_timeout_source_new(ms);
    auto* box = new TimerBox{timer, timer};
    g_source_set_callback(s, fireTimer, box, deleteTimerBox);
    guint id = attach(s, context_);
    GMainContext* ctx = context_;
    timer->setCanceller([ctx, id] {
        if (GSource* src = g_main_context_find_source_by_id(ctx, id)) g_source_destroy(src);
    });
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
