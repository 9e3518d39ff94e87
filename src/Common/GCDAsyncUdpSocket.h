#pragma once

// Asynchronous UDP endpoint on POSIX sockets. All socket work runs on the endpoint's serial socket
// queue: its own worker thread, or a sender's thread for a send that finds the queue idle; every
// event reaches the delegate on the delegate queue, a main loop chosen by the owner. Events wait
// for that loop in one ordered queue of the endpoint's, with at most one delivery task posted;
// received datagrams in it are bounded, so a flood while the loop is busy costs a counted drop,
// not memory.

#include <poll.h>

#include <any>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/MainLoop.h"

namespace orv {

// A platform socket address structure as bytes (sockaddr_in or sockaddr_in6).
using SocketAddress = std::vector<uint8_t>;

inline constexpr const char* GCDAsyncUdpSocketErrorDomain = "GCDAsyncUdpSocketErrorDomain";
inline constexpr const char* NSPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr const char* kCFStreamErrorDomainNetDB = "kCFStreamErrorDomainNetDB";

enum GCDAsyncUdpSocketErrorCode : int {
    GCDAsyncUdpSocketNoError = 0,
    GCDAsyncUdpSocketBadConfigError = 1,
    GCDAsyncUdpSocketBadParamError = 2,
    GCDAsyncUdpSocketSendTimeoutError = 3,
    GCDAsyncUdpSocketClosedError = 4,
    GCDAsyncUdpSocketOtherError = 5,
};

struct UdpSocketError {
    std::string domain;
    int code = 0;
    std::string reason;

    bool is(const char* d, int c) const { return code == c && domain == d; }
    // "Error Domain=<domain> Code=<code> \"<reason>\"", what "%@" prints in the hub's log lines.
    std::string description() const;
};

class GCDAsyncUdpSocket;

// Events of the endpoint, delivered on the delegate queue. Every one is optional.
class GCDAsyncUdpSocketDelegate {
  public:
    virtual ~GCDAsyncUdpSocketDelegate() = default;
    virtual void udpSocketDidConnectToAddress(GCDAsyncUdpSocket&, const SocketAddress&) {}
    virtual void udpSocketDidNotConnect(GCDAsyncUdpSocket&, const UdpSocketError&) {}
    virtual void udpSocketDidSendDataWithTag(GCDAsyncUdpSocket&, int64_t /*tag*/) {}
    // A delegate that ignores successful sends says so: each one otherwise costs a hop to the
    // delegate queue.
    virtual bool respondsToDidSendData() const { return true; }
    virtual void udpSocketDidNotSendDataWithTag(GCDAsyncUdpSocket&, int64_t /*tag*/,
                                                const UdpSocketError&) {}
    // One whole datagram; the filter context is always empty.
    virtual void udpSocketDidReceiveData(GCDAsyncUdpSocket&, const std::vector<uint8_t>& /*data*/,
                                         const SocketAddress& /*from*/,
                                         const std::any& /*filterContext*/) {}
    // error is null when the socket was closed on request.
    virtual void udpSocketDidClose(GCDAsyncUdpSocket&, const UdpSocketError* /*error*/) {}
};

class GCDAsyncUdpSocket : public std::enable_shared_from_this<GCDAsyncUdpSocket> {
  public:
    // The delegate is held weakly; events for a delegate that is gone are dropped, and so are
    // events still queued when the endpoint itself is destroyed.
    static std::shared_ptr<GCDAsyncUdpSocket> initWithDelegate(
        std::weak_ptr<GCDAsyncUdpSocketDelegate> delegate, std::shared_ptr<MainLoop> delegateQueue);

    GCDAsyncUdpSocket(std::weak_ptr<GCDAsyncUdpSocketDelegate> delegate,
                      std::shared_ptr<MainLoop> delegateQueue);
    ~GCDAsyncUdpSocket();
    GCDAsyncUdpSocket(const GCDAsyncUdpSocket&) = delete;
    GCDAsyncUdpSocket& operator=(const GCDAsyncUdpSocket&) = delete;

    void setIPv4Enabled(bool enabled);
    void setIPv6Enabled(bool enabled);
    bool isIPv4Enabled() const;
    bool isIPv6Enabled() const;

    // Binds to the port on every interface, or on the numeric interface address given.
    bool bindToPort(uint16_t port, UdpSocketError* error);
    bool bindToPort(uint16_t port, const std::string& interface, UdpSocketError* error);
    // Checks the configuration now; look-up and connect follow on the socket queue and end in a
    // did-connect or did-not-connect event.
    bool connectToHost(const std::string& host, uint16_t port, UdpSocketError* error);
    bool beginReceiving(UdpSocketError* error);

    // A negative timeout means none. The tag comes back in the send events.
    void sendData(std::vector<uint8_t> data, double timeout, int64_t tag);
    void sendData(std::vector<uint8_t> data, const std::string& host, uint16_t port, double timeout,
                  int64_t tag);
    void sendData(std::vector<uint8_t> data, const SocketAddress& address, double timeout,
                  int64_t tag);

    // Closes now, dropping queued sends; did-close follows with no error if anything was open.
    void close();

    // What received datagrams may hold while they wait for the delegate queue; a datagram that
    // does not fit is dropped and counted, and the count is logged once the queue runs again.
    static constexpr size_t kMaxWaitingDatagrams = 256;
    static constexpr size_t kMaxWaitingBytes = 4 * 1024 * 1024;  // payload bytes

    struct ReceiveQueueStats {
        uint64_t received = 0;  // read off the socket since the endpoint was made, kept or not
        size_t waiting = 0;     // received, not yet handed to the delegate
        size_t waitingBytes = 0;
        size_t peakWaiting = 0;  // the most there ever were at once
        size_t peakWaitingBytes = 0;
        uint64_t dropped = 0;  // since the endpoint was made
        uint64_t droppedBytes = 0;
    };
    ReceiveQueueStats receiveQueueStats() const;

    bool isConnected() const;
    bool isClosed() const;
    // The bound local port, 0 when there is no socket yet.
    uint16_t localPort() const;

    static bool getHost(std::string* host, uint16_t* port, const SocketAddress& address);
    // A numeric IPv4 or IPv6 address as socket address bytes; empty when it is not one.
    static SocketAddress addressWithHost(const std::string& host, uint16_t port);

  private:
    struct Send;
    struct Resolved;
    // One event waiting for the delegate queue: a call, or (call empty) a received datagram.
    struct DelegateEvent {
        std::function<void(GCDAsyncUdpSocketDelegate&, GCDAsyncUdpSocket&)> call;
        std::vector<uint8_t> data;
        SocketAddress from;
    };

    void workerMain();
    void runOnQueue(std::function<void()> task);
    // Runs `task` on this thread when the queue is idle, else queues it. Only for work that
    // never blocks (no name look-up).
    void runOnQueueOrHere(std::function<void()> task);
    void claimQueue();
    // True when the queue's thread must look again: work is waiting, or what it waits on in
    // poll is no longer what the socket needs.
    bool releaseQueue();
    // The socket and events the queue's thread waits on (fd -1: none).
    pollfd watched() const;
    void runOnQueueAndWait(const std::function<void()>& task);
    void assertOnSocketQueue() const;
    void wake();

    // Socket-queue only.
    bool createSocket(int family, UdpSocketError* error);
    bool resolve(const std::string& host, uint16_t port, SocketAddress* out, UdpSocketError* error);
    void doConnect(std::string host, uint16_t port);
    void enqueueSend(std::shared_ptr<Send> send);
    void maybeDequeueSend();
    void doSend();
    void finishCurrentSend(const UdpSocketError* error);
    void checkSendTimeout();
    void readDatagrams();
    void pollSocketNow();
    void closeWithError(const UdpSocketError* error);
    void closeSocketFd();

    template <typename F>
    void notifyDelegate(F&& call);
    // Socket queue: a datagram for the delegate, or a counted drop when the bound is reached.
    void notifyReceived(const uint8_t* data, size_t length, SocketAddress from);
    void enqueueDelegateEvent(DelegateEvent event);
    void postDelegateDrain();
    // Delegate queue: hands over what waits, at most what was there when the turn began.
    static void drainDelegateEvents(const std::weak_ptr<GCDAsyncUdpSocket>& weakSelf);

    std::weak_ptr<GCDAsyncUdpSocketDelegate> delegate_;
    std::shared_ptr<MainLoop> delegateQueue_;

    std::thread worker_;
    std::mutex tasksMutex_;
    std::condition_variable queueIdle_;
    // Some thread is doing the queue's work (guarded by tasksMutex_).
    bool queueBusy_ = false;
    // What the queue's thread waits on in poll (guarded by tasksMutex_).
    pollfd polled_{-1, 0, 0};
    std::deque<std::function<void()>> tasks_;
    int wakePipe_[2] = {-1, -1};
    std::atomic<bool> stop_{false};

    // Socket-queue state.
    int fd_ = -1;
    int family_ = 0;
    bool ipv4Enabled_ = true;
    bool ipv6Enabled_ = true;
    bool didBind_ = false;
    bool connecting_ = false;
    bool didConnect_ = false;
    bool receiving_ = false;
    std::deque<std::shared_ptr<Send>> sendQueue_;
    std::shared_ptr<Send> currentSend_;
    bool currentSendWaitsWritable_ = false;
    std::vector<uint8_t> receiveBuffer_;

    // Snapshot readable from any thread.
    std::atomic<bool> connectedFlag_{false};

    // Events for the delegate queue, in the order they happened (guarded by eventsMutex_).
    mutable std::mutex eventsMutex_;
    std::deque<DelegateEvent> events_;
    bool drainPosted_ = false;
    // The queue grew past a few events since its storage was last given back.
    bool eventsGrew_ = false;
    ReceiveQueueStats receiveStats_;
    uint64_t unreportedDrops_ = 0;
    uint64_t unreportedDropBytes_ = 0;
};

}  // namespace orv
