#include "platform/linux/SettleWatch.h"

#include <atspi/atspi.h>

#include "platform/linux/TurnExtents.h"

namespace orv::linuxdesk {

SettleWatch::SettleWatch(std::shared_ptr<MainLoop> loop) : loop_(std::move(loop)) {}

SettleWatch::~SettleWatch() {
    stop();
}

void SettleWatch::watch(AtspiAccessible* acc, int timeoutMs, const Rect* told) {
    stop();
    if (!acc) return;
    acc_ = static_cast<AtspiAccessible*>(g_object_ref(acc));
    timeoutMs_ = timeoutMs;
    startedAt_ = stillSince_ = loop_->now();
    // Readers that found no place for it (not laid out yet) are told when it has one.
    known_ = told != nullptr;
    if (told) last_ = *told;
    timer_ = loop_->scheduleTimer(kStep, true, [this](Timer&) { tick(); });
}

void SettleWatch::stop() {
    ++generation_;
    if (timer_) timer_->invalidate();
    timer_.reset();
    dropCall();
    if (acc_) g_object_unref(acc_);
    acc_ = nullptr;
    known_ = false;
}

void SettleWatch::dropCall() {
    if (!call_) return;
    dbus_pending_call_cancel(call_);
    dbus_pending_call_unref(call_);
    call_ = nullptr;
}

void SettleWatch::ask() {
    call_ = sendGetExtents(acc_, timeoutMs_);
    if (call_) ++asks_;
}

void SettleWatch::tick() {
    const double now = loop_->now();
    if (call_) {
        // A busy application is not asked again before it has answered.
        if (!dbus_pending_call_get_completed(call_)) {
            if (now - startedAt_ >= kLongest) stop();
            return;
        }
        DBusMessage* reply = dbus_pending_call_steal_reply(call_);
        dbus_pending_call_unref(call_);
        call_ = nullptr;
        Rect r;
        const bool placed = extentsOfReply(reply, &r);
        if (reply) dbus_message_unref(reply);
        if (placed) {
            if (!known_ || !(r == last_)) {
                stillSince_ = now;
                ++moves_;
                const uint64_t generation = generation_;
                AtspiAccessible* acc = static_cast<AtspiAccessible*>(g_object_ref(acc_));
                if (moved) moved(acc);
                g_object_unref(acc);
                if (generation != generation_) return;  // whoever was told stopped or moved it
            }
            last_ = r;
            known_ = true;
        }
    }
    if (now - stillSince_ >= kStill || now - startedAt_ >= kLongest) {
        stop();
        return;
    }
    ask();
}

}  // namespace orv::linuxdesk
