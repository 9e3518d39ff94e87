#pragma once

// A new focus may still be on its way when it is told: GTK 3 slides a popover into place over
// some 150 ms after its button has focus, and says nothing of it (the popover's own allocation
// stays where it was). For a moment after each focus change its extents are asked again, a few
// times, without waiting on the answers; a change is told as the toolkit's bounds-changed would
// be. The watch goes on while the object keeps moving, within a bound.

#include <cstdint>
#include <functional>
#include <memory>

#include "Common/Geometry.h"
#include "platform/MainLoop.h"

typedef struct _AtspiAccessible AtspiAccessible;
typedef struct DBusPendingCall DBusPendingCall;

namespace orv::linuxdesk {

class SettleWatch {
  public:
    // Time between two asks; how long the object must stay still, since the watch began or since
    // it last moved; how long a watch may last in all.
    static constexpr double kStep = 0.03;
    static constexpr double kStill = 0.3;
    static constexpr double kLongest = 1.5;

    explicit SettleWatch(std::shared_ptr<MainLoop> loop);
    ~SettleWatch();
    SettleWatch(const SettleWatch&) = delete;
    SettleWatch& operator=(const SettleWatch&) = delete;

    // Watches `acc` from now on, in place of what was watched, from where its readers found it
    // (`told`; null: they found no place for it).
    void watch(AtspiAccessible* acc, int timeoutMs, const Rect* told);
    void stop();
    bool watching() const { return acc_ != nullptr; }

    // The watched object moved (X screen coordinates as the toolkit answers them). On the main
    // loop, outside libatspi's dispatch.
    std::function<void(AtspiAccessible*)> moved;

    // Asks sent and moves seen since start, for tests and diagnostics.
    uint64_t asks() const { return asks_; }
    uint64_t moves() const { return moves_; }

  private:
    void tick();
    void ask();
    void dropCall();

    std::shared_ptr<MainLoop> loop_;
    AtspiAccessible* acc_ = nullptr;  // one reference held
    DBusPendingCall* call_ = nullptr;
    TimerRef timer_;
    int timeoutMs_ = 0;
    bool known_ = false;
    Rect last_;
    double startedAt_ = 0;
    double stillSince_ = 0;
    uint64_t generation_ = 0;  // one per watch
    uint64_t asks_ = 0;
    uint64_t moves_ = 0;
};

}  // namespace orv::linuxdesk
