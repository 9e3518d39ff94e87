#pragma once

#include <functional>
#include <map>
#include <memory>

#include "platform/MainLoop.h"

typedef struct _GMainContext GMainContext;
typedef struct _GMainLoop GMainLoop;

namespace orv {

// The real main loop, on GLib's default main context. A backend whose library must run the loop
// itself (libatspi's event loop) supplies its own run and quit.
class GLibMainLoop : public MainLoop {
  public:
    GLibMainLoop();
    GLibMainLoop(std::function<void()> runner, std::function<void()> quitter);
    ~GLibMainLoop() override;

    double now() const override;
    void post(Task task) override;
    void postAfter(double seconds, Task task) override;
    TimerRef scheduleTimer(double interval, bool repeats, Timer::Action action,
                           std::any userInfo = {}) override;
    FdWatchId watchFd(int fd, short events, std::function<void(int, short)> cb) override;
    void unwatchFd(FdWatchId id) override;
    void run() override;
    void quit() override;

    GMainContext* context() const { return context_; }

    // Timers and delayed tasks live in one queue behind one GLib source: GLib walks every
    // attached source on every turn, and the link keeps a reply timeout per datagram sent.
    struct Deadlines;

  private:
    void schedule(int64_t dueUs, Task task, TimerRef timer);

    GMainContext* context_;
    GMainLoop* loop_;
    std::function<void()> runner_;
    std::function<void()> quitter_;
    std::map<FdWatchId, unsigned> fdSources_;
    FdWatchId nextWatch_ = 1;
    std::shared_ptr<Deadlines> deadlines_;
};

}  // namespace orv
