#include "Common/GCDAsyncUdpSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>

#include "Common/Format.h"
#include "Common/OrvLogger.h"

namespace orv {

namespace {

constexpr const char* kSourceName = "Common/GCDAsyncUdpScocket";
// Largest UDP payload plus one, so a truncated datagram can be told apart.
constexpr size_t kReceiveBufferSize = 65536;
// Datagrams read per wake-up before queued sends get their turn.
constexpr int kReadsPerTurn = 64;

double monotonicNow() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

UdpSocketError socketError(int code, std::string reason) {
    return UdpSocketError{GCDAsyncUdpSocketErrorDomain, code, std::move(reason)};
}

UdpSocketError posixError(int err, const char* reason) {
    return UdpSocketError{NSPOSIXErrorDomain, err, format("%s: %s", reason, std::strerror(err))};
}

UdpSocketError badConfig(const char* reason) {
    return socketError(GCDAsyncUdpSocketBadConfigError, reason);
}

void setError(UdpSocketError* out, UdpSocketError err) {
    if (out) *out = std::move(err);
}

int familyOf(const SocketAddress& a) {
    if (a.size() >= sizeof(sa_family_t)) {
        sa_family_t f;
        std::memcpy(&f, a.data(), sizeof f);
        if (f == AF_INET && a.size() >= sizeof(sockaddr_in)) return AF_INET;
        if (f == AF_INET6 && a.size() >= sizeof(sockaddr_in6)) return AF_INET6;
    }
    return AF_UNSPEC;
}

SocketAddress toBytes(const sockaddr* sa, socklen_t len) {
    const auto* p = reinterpret_cast<const uint8_t*>(sa);
    return SocketAddress(p, p + len);
}

}  // namespace

std::string UdpSocketError::description() const {
    return format("Error Domain=%@ Code=%i \"%@\"", domain, code, reason);
}

struct GCDAsyncUdpSocket::Send {
    enum class Destination { Connected, Host, Address };
    std::vector<uint8_t> data;
    Destination destination = Destination::Connected;
    std::string host;
    uint16_t port = 0;
    SocketAddress address;
    double timeout = -1;
    int64_t tag = 0;
    double deadline = -1;  // monotonic seconds; negative for none
};

std::shared_ptr<GCDAsyncUdpSocket> GCDAsyncUdpSocket::initWithDelegate(
    std::weak_ptr<GCDAsyncUdpSocketDelegate> delegate, std::shared_ptr<MainLoop> delegateQueue) {
    return std::make_shared<GCDAsyncUdpSocket>(std::move(delegate), std::move(delegateQueue));
}

GCDAsyncUdpSocket::GCDAsyncUdpSocket(std::weak_ptr<GCDAsyncUdpSocketDelegate> delegate,
                                     std::shared_ptr<MainLoop> delegateQueue)
    : delegate_(std::move(delegate)), delegateQueue_(std::move(delegateQueue)) {
    if (::pipe(wakePipe_) == 0) {
        for (int fd : wakePipe_) {
            ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
            ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
    }
    worker_ = std::thread([this] { workerMain(); });
}

GCDAsyncUdpSocket::~GCDAsyncUdpSocket() {
    // Stop after the work already queued, so that a last send still leaves; its events are not
    // delivered any more (nobody holds this endpoint).
    runOnQueue([this] { stop_ = true; });
    if (worker_.joinable()) worker_.join();
    // The worker is gone: its state is ours now. Nothing is reported any more.
    closeSocketFd();
    for (int fd : wakePipe_)
        if (fd >= 0) ::close(fd);
}

// ---- socket queue -----------------------------------------------------------------------------

void GCDAsyncUdpSocket::wake() {
    if (wakePipe_[1] >= 0) {
        char c = 1;
        [[maybe_unused]] auto n = ::write(wakePipe_[1], &c, 1);
    }
}

namespace {
// The socket whose queue the running thread is working for, if any.
thread_local const GCDAsyncUdpSocket* tlsQueueOwner = nullptr;
}  // namespace

void GCDAsyncUdpSocket::claimQueue() {
    std::unique_lock lock(tasksMutex_);
    queueIdle_.wait(lock, [this] { return !queueBusy_; });
    queueBusy_ = true;
}

bool GCDAsyncUdpSocket::releaseQueue() {
    bool stale;
    {
        std::lock_guard lock(tasksMutex_);
        queueBusy_ = false;
        const pollfd now = watched();
        stale = !tasks_.empty() || currentSend_ != nullptr || now.fd != polled_.fd ||
                now.events != polled_.events;
    }
    queueIdle_.notify_all();
    return stale;
}

pollfd GCDAsyncUdpSocket::watched() const {
    short events = 0;
    if (fd_ >= 0 && receiving_) events |= POLLIN;
    if (fd_ >= 0 && currentSendWaitsWritable_) events |= POLLOUT;
    return pollfd{events ? fd_ : -1, events, 0};
}

void GCDAsyncUdpSocket::runOnQueue(std::function<void()> task) {
    {
        std::lock_guard lock(tasksMutex_);
        tasks_.push_back(std::move(task));
    }
    wake();
}

void GCDAsyncUdpSocket::runOnQueueOrHere(std::function<void()> task) {
    {
        std::unique_lock lock(tasksMutex_);
        if (queueBusy_ || !tasks_.empty() || stop_ || tlsQueueOwner) {
            tasks_.push_back(std::move(task));
            lock.unlock();
            wake();
            return;
        }
        queueBusy_ = true;
    }
    // The queue is idle: its work runs on this thread, in order and alone as ever, without
    // waking the queue's thread for it (a thread hop per datagram costs more than the send).
    tlsQueueOwner = this;
    pollSocketNow();
    task();
    tlsQueueOwner = nullptr;
    // What the queue's thread waits on may have changed under it.
    if (releaseQueue()) wake();
}

void GCDAsyncUdpSocket::runOnQueueAndWait(const std::function<void()>& task) {
    if (tlsQueueOwner == this) {
        task();
        return;
    }
    std::promise<void> done;
    auto future = done.get_future();
    runOnQueue([&] {
        task();
        done.set_value();
    });
    future.wait();
}

void GCDAsyncUdpSocket::assertOnSocketQueue() const {
    if (tlsQueueOwner != this) {
        std::string line =
            format("*** Assertion failure in %s: Must be dispatched on socketQueue", kSourceName);
        systemLog(line);
        std::fprintf(stderr, "%s\n", line.c_str());
        std::abort();
    }
}

template <typename F>
void GCDAsyncUdpSocket::notifyDelegate(F&& call) {
    if (!delegateQueue_) return;
    DelegateEvent event;
    event.call = std::forward<F>(call);
    enqueueDelegateEvent(std::move(event));
}

void GCDAsyncUdpSocket::workerMain() {
    tlsQueueOwner = this;
    receiveBuffer_.resize(kReceiveBufferSize);
    pollfd fds[2];
    nfds_t n = 0;
    bool watchSocket = false;
    while (true) {
        // Socket state is touched only while holding the queue; a sender may be running its
        // work on its own thread while this one waits in poll.
        claimQueue();
        if (stop_) break;
        if (n > 0) {
            if (fds[0].revents & POLLIN) {
                char buf[256];
                while (::read(wakePipe_[0], buf, sizeof buf) > 0) {
                }
            }
            // The socket may have changed while this thread waited.
            if (watchSocket && fd_ >= 0 && fd_ == fds[1].fd && fds[1].revents) {
                if (receiving_ && (fds[1].revents & (POLLIN | POLLERR | POLLHUP))) readDatagrams();
                if (fd_ >= 0 && currentSendWaitsWritable_ &&
                    (fds[1].revents & (POLLOUT | POLLERR))) {
                    currentSendWaitsWritable_ = false;
                    doSend();
                }
            }
            checkSendTimeout();
            if (stop_) break;
        }
        std::deque<std::function<void()>> tasks;
        {
            std::lock_guard lock(tasksMutex_);
            tasks.swap(tasks_);
        }
        for (auto& task : tasks) {
            if (stop_) break;
            // A refusal reported on the socket belongs to the receive side; let it close the
            // socket before the next send could swallow it.
            pollSocketNow();
            task();
        }
        if (stop_) break;
        checkSendTimeout();
        if (stop_) break;

        n = 0;
        fds[n++] = pollfd{wakePipe_[0], POLLIN, 0};
        const pollfd socket = watched();
        watchSocket = socket.fd >= 0;
        if (watchSocket) fds[n++] = socket;
        int timeoutMs = -1;
        if (currentSend_ && currentSend_->deadline >= 0) {
            double left = currentSend_->deadline - monotonicNow();
            timeoutMs = left <= 0 ? 0 : static_cast<int>(left * 1000.0) + 1;
        }
        {
            std::lock_guard lock(tasksMutex_);
            if (!tasks_.empty()) timeoutMs = 0;
            polled_ = socket;
            queueBusy_ = false;
        }
        queueIdle_.notify_all();
        int r = ::poll(fds, n, timeoutMs);
        if (r < 0) {
            for (nfds_t i = 0; i < n; ++i) fds[i].revents = 0;
            if (errno != EINTR) continue;
        }
    }
    releaseQueue();
}

void GCDAsyncUdpSocket::pollSocketNow() {
    if (fd_ < 0 || !receiving_) return;
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, 0) > 0 && (p.revents & (POLLIN | POLLERR | POLLHUP))) readDatagrams();
}

void GCDAsyncUdpSocket::readDatagrams() {
    assertOnSocketQueue();
    for (int i = 0; i < kReadsPerTurn && fd_ >= 0; ++i) {
        sockaddr_storage from{};
        socklen_t fromLen = sizeof from;
        ssize_t got = ::recvfrom(fd_, receiveBuffer_.data(), receiveBuffer_.size(), MSG_DONTWAIT,
                                 reinterpret_cast<sockaddr*>(&from), &fromLen);
        if (got < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return;
            UdpSocketError err = posixError(errno, "Error in recvfrom() function");
            closeWithError(&err);
            return;
        }
        notifyReceived(receiveBuffer_.data(), static_cast<size_t>(got),
                       toBytes(reinterpret_cast<sockaddr*>(&from), fromLen));
    }
}

bool GCDAsyncUdpSocket::createSocket(int family, UdpSocketError* error) {
    assertOnSocketQueue();
    int fd = ::socket(family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        setError(error, posixError(errno, "Error in socket() function"));
        return false;
    }
    // No address reuse: a second endpoint on a busy port must fail to bind.
    if (family == AF_INET6) {
        int on = 1;
        ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    fd_ = fd;
    family_ = family;
    return true;
}

void GCDAsyncUdpSocket::closeSocketFd() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    family_ = 0;
    didBind_ = connecting_ = didConnect_ = receiving_ = false;
    currentSendWaitsWritable_ = false;
    currentSend_.reset();
    sendQueue_.clear();
    connectedFlag_ = false;
}

void GCDAsyncUdpSocket::closeWithError(const UdpSocketError* error) {
    assertOnSocketQueue();
    const bool wasOpen = fd_ >= 0 || connecting_;
    closeSocketFd();
    if (!wasOpen) return;
    std::optional<UdpSocketError> copy;
    if (error) copy = *error;
    notifyDelegate([copy](GCDAsyncUdpSocketDelegate& d, GCDAsyncUdpSocket& s) {
        d.udpSocketDidClose(s, copy ? &*copy : nullptr);
    });
}

bool GCDAsyncUdpSocket::resolve(const std::string& host, uint16_t port, SocketAddress* out,
                                UdpSocketError* error) {
    assertOnSocketQueue();
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_protocol = IPPROTO_UDP;
    addrinfo* list = nullptr;
    const std::string service = std::to_string(port);
    int rc = ::getaddrinfo(host.c_str(), service.c_str(), &hints, &list);
    if (rc != 0) {
        setError(error, UdpSocketError{kCFStreamErrorDomainNetDB, rc, ::gai_strerror(rc)});
        return false;
    }
    SocketAddress v4, v6;
    for (addrinfo* ai = list; ai; ai = ai->ai_next) {
        if (ai->ai_family == AF_INET && v4.empty()) v4 = toBytes(ai->ai_addr, ai->ai_addrlen);
        if (ai->ai_family == AF_INET6 && v6.empty()) v6 = toBytes(ai->ai_addr, ai->ai_addrlen);
    }
    ::freeaddrinfo(list);
    if (ipv4Enabled_ && !v4.empty()) {
        *out = std::move(v4);
        return true;
    }
    if (ipv6Enabled_ && !v6.empty()) {
        *out = std::move(v6);
        return true;
    }
    if (!ipv6Enabled_) {
        setError(error,
                 socketError(GCDAsyncUdpSocketOtherError,
                             "IPv6 has been disabled and DNS lookup found no IPv4 address(es)."));
    } else {
        setError(error,
                 socketError(GCDAsyncUdpSocketOtherError,
                             "IPv4 has been disabled and DNS lookup found no IPv6 address(es)."));
    }
    return false;
}

// ---- configuration ----------------------------------------------------------------------------

void GCDAsyncUdpSocket::setIPv4Enabled(bool enabled) {
    runOnQueueAndWait([&] { ipv4Enabled_ = enabled; });
}

void GCDAsyncUdpSocket::setIPv6Enabled(bool enabled) {
    runOnQueueAndWait([&] { ipv6Enabled_ = enabled; });
}

bool GCDAsyncUdpSocket::isIPv4Enabled() const {
    bool v = false;
    const_cast<GCDAsyncUdpSocket*>(this)->runOnQueueAndWait([&] { v = ipv4Enabled_; });
    return v;
}

bool GCDAsyncUdpSocket::isIPv6Enabled() const {
    bool v = false;
    const_cast<GCDAsyncUdpSocket*>(this)->runOnQueueAndWait([&] { v = ipv6Enabled_; });
    return v;
}

bool GCDAsyncUdpSocket::bindToPort(uint16_t port, UdpSocketError* error) {
    return bindToPort(port, std::string(), error);
}

bool GCDAsyncUdpSocket::bindToPort(uint16_t port, const std::string& interface,
                                   UdpSocketError* error) {
    bool ok = false;
    runOnQueueAndWait([&] {
        if (connecting_ || didConnect_) {
            setError(
                error,
                badConfig("Cannot bind after connecting. If needed, bind first, then connect."));
            return;
        }
        if (didBind_) {
            setError(error, badConfig("Cannot bind a socket more than once."));
            return;
        }
        if (!ipv4Enabled_ && !ipv6Enabled_) {
            setError(error, badConfig("Both IPv4 and IPv6 have been disabled. Must enable at "
                                      "least one protocol first."));
            return;
        }
        SocketAddress local;
        if (interface.empty()) {
            if (ipv4Enabled_) {
                sockaddr_in a{};
                a.sin_family = AF_INET;
                a.sin_port = htons(port);
                a.sin_addr.s_addr = htonl(INADDR_ANY);
                local = toBytes(reinterpret_cast<sockaddr*>(&a), sizeof a);
            } else {
                sockaddr_in6 a{};
                a.sin6_family = AF_INET6;
                a.sin6_port = htons(port);
                a.sin6_addr = in6addr_any;
                local = toBytes(reinterpret_cast<sockaddr*>(&a), sizeof a);
            }
        } else {
            local = addressWithHost(interface, port);
            const int f = familyOf(local);
            if (f == AF_UNSPEC || (f == AF_INET && !ipv4Enabled_) ||
                (f == AF_INET6 && !ipv6Enabled_)) {
                setError(error, socketError(GCDAsyncUdpSocketBadParamError,
                                            "Unknown interface. Specify valid interface by name "
                                            "(e.g. \"en1\") or IP address."));
                return;
            }
        }
        const int family = familyOf(local);
        if (fd_ >= 0 && family_ != family) closeSocketFd();
        if (fd_ < 0 && !createSocket(family, error)) return;
        if (::bind(fd_, reinterpret_cast<const sockaddr*>(local.data()),
                   static_cast<socklen_t>(local.size())) < 0) {
            setError(error, posixError(errno, "Error in bind() function"));
            closeSocketFd();
            return;
        }
        didBind_ = true;
        ok = true;
    });
    return ok;
}

bool GCDAsyncUdpSocket::connectToHost(const std::string& host, uint16_t port,
                                      UdpSocketError* error) {
    bool ok = false;
    runOnQueueAndWait([&] {
        if (connecting_ || didConnect_) {
            setError(error, badConfig("Cannot connect a socket more than once."));
            return;
        }
        if (!ipv4Enabled_ && !ipv6Enabled_) {
            setError(error, badConfig("Both IPv4 and IPv6 have been disabled. Must enable at "
                                      "least one protocol first."));
            return;
        }
        if (host.empty()) {
            setError(error, socketError(GCDAsyncUdpSocketBadParamError,
                                        "The host param is nil. Should be domain name or IP "
                                        "address string."));
            return;
        }
        connecting_ = true;
        ok = true;
        // Look-up and connect are the socket queue's next task, ahead of any send queued after.
        runOnQueue([this, host, port] { doConnect(host, port); });
    });
    return ok;
}

void GCDAsyncUdpSocket::doConnect(std::string host, uint16_t port) {
    assertOnSocketQueue();
    if (!connecting_) return;  // closed meanwhile
    UdpSocketError err;
    SocketAddress address;
    bool ok = resolve(host, port, &address, &err);
    if (ok) {
        const int family = familyOf(address);
        if (fd_ >= 0 && family_ != family) {
            err = socketError(GCDAsyncUdpSocketOtherError,
                              "The bound socket's address family does not match the host's.");
            ok = false;
        } else if (fd_ < 0) {
            ok = createSocket(family, &err);
        }
    }
    if (ok && ::connect(fd_, reinterpret_cast<const sockaddr*>(address.data()),
                        static_cast<socklen_t>(address.size())) < 0) {
        err = posixError(errno, "Error in connect() function");
        ok = false;
    }
    if (!ok) {
        connecting_ = false;
        notifyDelegate([err](GCDAsyncUdpSocketDelegate& d, GCDAsyncUdpSocket& s) {
            d.udpSocketDidNotConnect(s, err);
        });
        maybeDequeueSend();
        return;
    }
    connecting_ = false;
    didConnect_ = true;
    didBind_ = true;
    connectedFlag_ = true;
    notifyDelegate([address](GCDAsyncUdpSocketDelegate& d, GCDAsyncUdpSocket& s) {
        d.udpSocketDidConnectToAddress(s, address);
    });
    maybeDequeueSend();
}

bool GCDAsyncUdpSocket::beginReceiving(UdpSocketError* error) {
    bool ok = false;
    runOnQueueAndWait([&] {
        if (receiving_) {
            ok = true;
            return;
        }
        if (!didBind_ && !connecting_ && !didConnect_) {
            setError(error, badConfig("Must bind socket before you can receive data. You can do "
                                      "this explicitly via bind, or implicitly via connect or by "
                                      "sending data."));
            return;
        }
        receiving_ = true;
        ok = true;
    });
    return ok;
}

void GCDAsyncUdpSocket::close() {
    runOnQueueAndWait([&] { closeWithError(nullptr); });
}

bool GCDAsyncUdpSocket::isConnected() const {
    return connectedFlag_;
}

bool GCDAsyncUdpSocket::isClosed() const {
    bool closed = true;
    const_cast<GCDAsyncUdpSocket*>(this)->runOnQueueAndWait(
        [&] { closed = fd_ < 0 && !connecting_; });
    return closed;
}

uint16_t GCDAsyncUdpSocket::localPort() const {
    uint16_t port = 0;
    const_cast<GCDAsyncUdpSocket*>(this)->runOnQueueAndWait([&] {
        if (fd_ < 0) return;
        sockaddr_storage a{};
        socklen_t len = sizeof a;
        if (::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len) == 0) {
            std::string host;
            getHost(&host, &port, toBytes(reinterpret_cast<sockaddr*>(&a), len));
        }
    });
    return port;
}

// ---- sending ----------------------------------------------------------------------------------

void GCDAsyncUdpSocket::sendData(std::vector<uint8_t> data, double timeout, int64_t tag) {
    auto send = std::make_shared<Send>();
    send->data = std::move(data);
    send->timeout = timeout;
    send->tag = tag;
    runOnQueueOrHere([this, send] { enqueueSend(send); });
}

void GCDAsyncUdpSocket::sendData(std::vector<uint8_t> data, const std::string& host, uint16_t port,
                                 double timeout, int64_t tag) {
    auto send = std::make_shared<Send>();
    send->data = std::move(data);
    send->destination = Send::Destination::Host;
    send->host = host;
    send->port = port;
    send->timeout = timeout;
    send->tag = tag;
    runOnQueue([this, send] { enqueueSend(send); });
}

void GCDAsyncUdpSocket::sendData(std::vector<uint8_t> data, const SocketAddress& address,
                                 double timeout, int64_t tag) {
    auto send = std::make_shared<Send>();
    send->data = std::move(data);
    send->destination = Send::Destination::Address;
    send->address = address;
    send->timeout = timeout;
    send->tag = tag;
    runOnQueueOrHere([this, send] { enqueueSend(send); });
}

void GCDAsyncUdpSocket::enqueueSend(std::shared_ptr<Send> send) {
    assertOnSocketQueue();
    sendQueue_.push_back(std::move(send));
    maybeDequeueSend();
}

void GCDAsyncUdpSocket::maybeDequeueSend() {
    assertOnSocketQueue();
    // Sends wait for a pending connect, which decides where they go.
    while (!currentSend_ && !sendQueue_.empty() && !connecting_) {
        currentSend_ = std::move(sendQueue_.front());
        sendQueue_.pop_front();
        Send& s = *currentSend_;
        s.deadline = s.timeout >= 0 ? monotonicNow() + s.timeout : -1;

        UdpSocketError err;
        bool ok = true;
        if (s.destination == Send::Destination::Connected) {
            if (!didConnect_) {
                err =
                    badConfig("You must specify destination of packet for a non-connected socket");
                ok = false;
            }
        } else if (didConnect_) {
            err = badConfig("Cannot specify destination of packet for connected socket");
            ok = false;
        } else if (s.destination == Send::Destination::Host) {
            if (s.host.empty()) {
                err = socketError(GCDAsyncUdpSocketBadParamError,
                                  "The host param is nil. Should be domain name or IP address "
                                  "string.");
                ok = false;
            } else {
                ok = resolve(s.host, s.port, &s.address, &err);
            }
        } else if (s.address.empty()) {
            err = socketError(GCDAsyncUdpSocketBadParamError,
                              "The address param is nil. Should be a valid address.");
            ok = false;
        }
        if (ok && s.destination != Send::Destination::Connected) {
            const int family = familyOf(s.address);
            if (family == AF_UNSPEC) {
                err = socketError(GCDAsyncUdpSocketBadParamError,
                                  "A valid IPv4 or IPv6 address was not given");
                ok = false;
            } else if ((family == AF_INET && !ipv4Enabled_) ||
                       (family == AF_INET6 && !ipv6Enabled_)) {
                err = socketError(GCDAsyncUdpSocketOtherError,
                                  family == AF_INET
                                      ? "Cannot send to IPv4 address. IPv4 has been disabled."
                                      : "Cannot send to IPv6 address. IPv6 has been disabled.");
                ok = false;
            } else if (fd_ >= 0 && family != family_) {
                err = socketError(GCDAsyncUdpSocketOtherError,
                                  "The socket's address family does not match the destination.");
                ok = false;
            } else if (fd_ < 0) {
                // Sending binds implicitly to an ephemeral port.
                ok = createSocket(family, &err);
                if (ok) didBind_ = true;
            }
        }
        if (!ok) {
            finishCurrentSend(&err);
            continue;
        }
        doSend();
    }
}

void GCDAsyncUdpSocket::doSend() {
    assertOnSocketQueue();
    if (!currentSend_ || fd_ < 0) return;
    Send& s = *currentSend_;
    ssize_t n;
    if (s.destination == Send::Destination::Connected) {
        n = ::send(fd_, s.data.data(), s.data.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    } else {
        n = ::sendto(fd_, s.data.data(), s.data.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                     reinterpret_cast<const sockaddr*>(s.address.data()),
                     static_cast<socklen_t>(s.address.size()));
    }
    if (n >= 0) {
        finishCurrentSend(nullptr);
        return;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS || errno == EINTR) {
        currentSendWaitsWritable_ = true;  // the worker retries when writable or times it out
        return;
    }
    UdpSocketError err = posixError(errno, "Error in send() function.");
    finishCurrentSend(&err);
}

void GCDAsyncUdpSocket::finishCurrentSend(const UdpSocketError* error) {
    assertOnSocketQueue();
    if (!currentSend_) return;
    const int64_t tag = currentSend_->tag;
    currentSend_.reset();
    currentSendWaitsWritable_ = false;
    if (error) {
        UdpSocketError copy = *error;
        notifyDelegate([tag, copy](GCDAsyncUdpSocketDelegate& d, GCDAsyncUdpSocket& s) {
            d.udpSocketDidNotSendDataWithTag(s, tag, copy);
        });
    } else if (auto d = delegate_.lock(); !d || d->respondsToDidSendData()) {
        notifyDelegate([tag](GCDAsyncUdpSocketDelegate& d, GCDAsyncUdpSocket& s) {
            d.udpSocketDidSendDataWithTag(s, tag);
        });
    }
    // The caller moves on to the next send (maybeDequeueSend's loop or the worker's turn).
}

void GCDAsyncUdpSocket::checkSendTimeout() {
    assertOnSocketQueue();
    if (currentSend_ && currentSend_->deadline >= 0 && monotonicNow() >= currentSend_->deadline &&
        currentSendWaitsWritable_) {
        UdpSocketError err =
            socketError(GCDAsyncUdpSocketSendTimeoutError, "Send operation timed out");
        finishCurrentSend(&err);
    }
    maybeDequeueSend();
}

// ---- addresses --------------------------------------------------------------------------------

bool GCDAsyncUdpSocket::getHost(std::string* host, uint16_t* port, const SocketAddress& address) {
    char buf[INET6_ADDRSTRLEN] = {};
    switch (familyOf(address)) {
        case AF_INET: {
            sockaddr_in a;
            std::memcpy(&a, address.data(), sizeof a);
            if (!::inet_ntop(AF_INET, &a.sin_addr, buf, sizeof buf)) return false;
            if (host) *host = buf;
            if (port) *port = ntohs(a.sin_port);
            return true;
        }
        case AF_INET6: {
            sockaddr_in6 a;
            std::memcpy(&a, address.data(), sizeof a);
            if (!::inet_ntop(AF_INET6, &a.sin6_addr, buf, sizeof buf)) return false;
            if (host) *host = buf;
            if (port) *port = ntohs(a.sin6_port);
            return true;
        }
        default:
            return false;
    }
}

SocketAddress GCDAsyncUdpSocket::addressWithHost(const std::string& host, uint16_t port) {
    sockaddr_in a4{};
    if (::inet_pton(AF_INET, host.c_str(), &a4.sin_addr) == 1) {
        a4.sin_family = AF_INET;
        a4.sin_port = htons(port);
        return toBytes(reinterpret_cast<sockaddr*>(&a4), sizeof a4);
    }
    sockaddr_in6 a6{};
    if (::inet_pton(AF_INET6, host.c_str(), &a6.sin6_addr) == 1) {
        a6.sin6_family = AF_INET6;
        a6.sin6_port = htons(port);
        return toBytes(reinterpret_cast<sockaddr*>(&a6), sizeof a6);
    }
    return {};
}

}  // namespace orv
