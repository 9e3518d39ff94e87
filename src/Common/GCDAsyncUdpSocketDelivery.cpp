// How the endpoint's events reach the delegate queue. They wait in one queue of the endpoint's,
// in the order they happened, and one task on the delegate queue hands them over; a task per event
// would let a flood of datagrams pile up on a main loop that is busy (a blocked log sink, a long
// stall) without limit, and keep the memory after. Received datagrams are bounded in count and
// bytes; what does not fit is dropped and counted, and the count is logged once per turn of the
// delegate queue, not once per datagram.

#include <algorithm>
#include <deque>
#include <utility>

#include "Common/GCDAsyncUdpSocket.h"
#include "Common/OrvLogger.h"

namespace orv {

namespace {
// Past this many waiting events the queue's storage is given back once it is empty again; below
// it the few blocks are kept for the next event.
constexpr size_t kEventsKeptStorage = 16;
}  // namespace

void GCDAsyncUdpSocket::notifyReceived(const uint8_t* data, size_t length, SocketAddress from) {
    assertOnSocketQueue();
    if (!delegateQueue_) return;
    {
        std::lock_guard lock(eventsMutex_);
        ReceiveQueueStats& st = receiveStats_;
        ++st.received;
        if (st.waiting >= kMaxWaitingDatagrams || st.waitingBytes + length > kMaxWaitingBytes) {
            ++st.dropped;
            st.droppedBytes += length;
            ++unreportedDrops_;
            unreportedDropBytes_ += length;
            return;
        }
        // The room is taken now. Only the socket queue adds datagrams, so it stays taken while
        // the copy is made outside the lock.
        ++st.waiting;
        st.waitingBytes += length;
        st.peakWaiting = std::max(st.peakWaiting, st.waiting);
        st.peakWaitingBytes = std::max(st.peakWaitingBytes, st.waitingBytes);
    }
    DelegateEvent event;
    event.data.assign(data, data + length);  // exactly its size, not the receive buffer's
    event.from = std::move(from);
    enqueueDelegateEvent(std::move(event));
}

void GCDAsyncUdpSocket::enqueueDelegateEvent(DelegateEvent event) {
    bool post = false;
    {
        std::lock_guard lock(eventsMutex_);
        events_.push_back(std::move(event));
        if (events_.size() > kEventsKeptStorage) eventsGrew_ = true;
        if (!drainPosted_) post = drainPosted_ = true;
    }
    if (post) postDelegateDrain();
}

void GCDAsyncUdpSocket::postDelegateDrain() {
    std::weak_ptr<GCDAsyncUdpSocket> weakSelf = weak_from_this();
    delegateQueue_->post([weakSelf] { drainDelegateEvents(weakSelf); });
}

void GCDAsyncUdpSocket::drainDelegateEvents(const std::weak_ptr<GCDAsyncUdpSocket>& weakSelf) {
    // Runs even when a delegate call throws, so that delivery never stalls for good.
    struct Finish {
        const std::weak_ptr<GCDAsyncUdpSocket>& weakSelf;
        ~Finish() {
            auto self = weakSelf.lock();
            if (!self) return;
            uint64_t drops, dropBytes;
            bool more;
            {
                std::lock_guard lock(self->eventsMutex_);
                drops = std::exchange(self->unreportedDrops_, 0);
                dropBytes = std::exchange(self->unreportedDropBytes_, 0);
                more = !self->events_.empty();
                if (!more) {
                    self->drainPosted_ = false;
                    if (self->eventsGrew_) std::deque<DelegateEvent>().swap(self->events_);
                    self->eventsGrew_ = false;
                }
            }
            if (drops > 0)
                OrvLogger::addWarningMessageWithFormat(
                    "WARNING: Dropped %@ received UDP datagrams (%@ bytes) while the main loop "
                    "was busy",
                    drops, dropBytes);
            if (more) self->postDelegateDrain();
        }
    } finish{weakSelf};

    size_t budget = 0;
    if (auto self = weakSelf.lock()) {
        std::lock_guard lock(self->eventsMutex_);
        budget = self->events_.size();
    }
    // Only what waited when the turn began: a flood that goes on must not hold the main loop.
    for (; budget > 0; --budget) {
        // Held for one event at a time: once the owner lets go, what is left goes unheard.
        auto self = weakSelf.lock();
        if (!self) return;
        DelegateEvent event;
        {
            std::lock_guard lock(self->eventsMutex_);
            if (self->events_.empty()) break;
            event = std::move(self->events_.front());
            self->events_.pop_front();
            if (!event.call) {
                --self->receiveStats_.waiting;
                self->receiveStats_.waitingBytes -= event.data.size();
            }
        }
        auto delegate = self->delegate_.lock();
        if (!delegate) continue;
        if (event.call)
            event.call(*delegate, *self);
        else
            delegate->udpSocketDidReceiveData(*self, event.data, event.from, std::any());
    }
}

GCDAsyncUdpSocket::ReceiveQueueStats GCDAsyncUdpSocket::receiveQueueStats() const {
    std::lock_guard lock(eventsMutex_);
    return receiveStats_;
}

}  // namespace orv
