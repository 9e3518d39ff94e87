#include "Common/ORVCommunicationHub.h"

#include <algorithm>

#include "Common/Format.h"
#include "Common/NotificationCenter.h"
#include "Common/ORVCommAssert.h"
#include "Common/OrvLogger.h"
#include "platform/Platform.h"

namespace orv {

namespace {

constexpr const char* kSourceName = "Common/ORVCommunicationHub";
constexpr double kRetryDelay = 1.0;
constexpr double kRequestSendTimeout = 1.0;
constexpr double kReplySendTimeout = 5.0;

struct SharedState {
    std::mutex mutex;
    std::shared_ptr<ORVCommunicationHub> instance;
    ORVCommunicationHub::Options options;
};

SharedState& shared() {
    static SharedState s;
    return s;
}

// Set by any hub of the process on its first datagram; decides between terminating and setting
// up again when the shared client loses its socket.
std::atomic<bool> gDatagramReceived{false};

void terminateApplication() {
    auto p = installedPlatform();
    if (p && p->app) p->app->terminate();
}

}  // namespace

// ---- construction -----------------------------------------------------------------------------

ORVCommunicationHub::ORVCommunicationHub(Options options) : options_(std::move(options)) {
    // One identifier plus one: anything that short cannot hold an identifier and a code.
    minimumPacketLength_ = ORVCommPkt::signature().size() + 1;
}

ORVCommunicationHub::~ORVCommunicationHub() = default;

std::shared_ptr<ORVCommunicationHub> ORVCommunicationHub::sharedInstance() {
    std::lock_guard lock(shared().mutex);
    return shared().instance;
}

std::shared_ptr<ORVCommunicationHub> ORVCommunicationHub::clientInstance() {
    std::shared_ptr<ORVCommunicationHub> hub;
    {
        std::lock_guard lock(shared().mutex);
        if (shared().instance) {
            orvCommAssert(!shared().instance->isServerInstance(), kSourceName);
            return shared().instance;
        }
        hub = std::make_shared<ORVCommunicationHub>(shared().options);
        shared().instance = hub;
    }
    hub->setupClientSocket();
    hub->log_ = true;
    return hub;
}

void ORVCommunicationHub::logOnlyInstance() {
    std::lock_guard lock(shared().mutex);
    if (shared().instance) {
        orvCommAssert(!shared().instance->isServerInstance(), kSourceName);
        return;
    }
    shared().instance = std::make_shared<ORVCommunicationHub>(shared().options);
    shared().instance->log_ = true;
}

std::shared_ptr<ORVCommunicationHub> ORVCommunicationHub::serverInstance() {
    std::shared_ptr<ORVCommunicationHub> hub;
    {
        std::lock_guard lock(shared().mutex);
        if (shared().instance) {
            orvCommAssert(shared().instance->isServerInstance(), kSourceName);
            return shared().instance;
        }
        hub = std::make_shared<ORVCommunicationHub>(shared().options);
        hub->isServerInstance_ = true;  // before set-up, so that a failed bind finds it a server
        shared().instance = hub;
    }
    hub->setupServerSocket();
    hub->log_ = true;
    return hub;
}

std::shared_ptr<ORVCommunicationHub> ORVCommunicationHub::authInstance() {
    auto hub = std::make_shared<ORVCommunicationHub>(defaultOptions());
    hub->setupAuthClientSocket();
    hub->log_ = true;
    return hub;
}

void ORVCommunicationHub::setDefaultOptions(const Options& options) {
    std::lock_guard lock(shared().mutex);
    shared().options = options;
}

ORVCommunicationHub::Options ORVCommunicationHub::defaultOptions() {
    std::lock_guard lock(shared().mutex);
    return shared().options;
}

void ORVCommunicationHub::resetSharedState() {
    std::shared_ptr<ORVCommunicationHub> old;
    {
        std::lock_guard lock(shared().mutex);
        old = std::move(shared().instance);
        shared().instance.reset();
        shared().options = Options();
    }
    gDatagramReceived = false;
    old.reset();  // outside the lock: the socket's worker is joined here
}

std::shared_ptr<ORVCommunicationHub> ORVCommunicationHub::make(Role role, const Options& options) {
    auto hub = std::make_shared<ORVCommunicationHub>(options);
    switch (role) {
        case Role::Client:
            hub->setupClientSocket();
            break;
        case Role::AuthClient:
            hub->setupAuthClientSocket();
            break;
        case Role::Server:
            hub->setupServerSocket();
            break;
        case Role::LogOnly:
            break;
    }
    hub->log_ = true;
    return hub;
}

bool ORVCommunicationHub::isSharedInstance() const {
    std::lock_guard lock(shared().mutex);
    return shared().instance.get() == this;
}

// ---- socket set-up ----------------------------------------------------------------------------

void ORVCommunicationHub::newSocket() {
    // Replacing the socket drops the old one with its queued events.
    socket_ = GCDAsyncUdpSocket::initWithDelegate(
        weak_from_this(), installedPlatform() ? installedPlatform()->loop : nullptr);
    socket_->setIPv4Enabled(true);
    socket_->setIPv6Enabled(false);
}

void ORVCommunicationHub::postSetupClientSocket(double delay) {
    std::weak_ptr<ORVCommunicationHub> weakSelf = weak_from_this();
    auto task = [weakSelf] {
        if (auto self = weakSelf.lock()) self->setupClientSocket();
    };
    if (delay > 0)
        mainLoop().postAfter(delay, std::move(task));
    else
        mainLoop().post(std::move(task));
}

void ORVCommunicationHub::setupClientSocket() {
    isAuthClient_ = false;
    setupClientSocketOnPort(options_.serverPort);
}

void ORVCommunicationHub::setupAuthClientSocket() {
    isAuthClient_ = true;
    setupClientSocketOnPort(options_.authPort);
}

void ORVCommunicationHub::setupClientSocketOnPort(uint16_t port) {
    isServerInstance_ = false;
    newSocket();
    UdpSocketError error;
    if (!socket_->connectToHost(options_.host, port, &error)) {
        OrvLogger::addErrorMessageWithFormat(
            "Unable to connect to server: %@, retrying in 1 second", error);
        // Also for the auth client: its retry is the ordinary client set-up.
        postSetupClientSocket(kRetryDelay);
        return;
    }
    if (socket_->beginReceiving(&error))
        OrvLogger::addInfoMessage("client socket ready to receive");
}

void ORVCommunicationHub::setupServerSocket() {
    isServerInstance_ = true;
    newSocket();
    UdpSocketError error;
    if (!socket_->bindToPort(options_.serverPort, options_.host, &error)) {
        OrvLogger::addErrorMessageWithFormat("ERROR: Unable to bind server port: %@", error);
        terminateApplication();
        return;
    }
    OrvLogger::addInfoMessageWithFormat("UDP server started on port %i", socket_->localPort());
    if (socket_->beginReceiving(&error))
        OrvLogger::addInfoMessage("UDP server should now be active");
    else
        OrvLogger::addInfoMessageWithFormat("Error %@ while trying to enable UDP receiving", error);
}

void ORVCommunicationHub::reconnect() {
    if (isServerInstance_) return;
    if (isAuthClient_)
        setupAuthClientSocket();
    else
        setupClientSocket();
}

// ---- sending ----------------------------------------------------------------------------------

void ORVCommunicationHub::dispatch(const ORVCommPktRef& packet) {
    orvCommAssert(packet != nullptr, kSourceName);
    if (isServerInstance_) {
        if (uiHost_.empty() || !socket_) return;
        if (!packet->hasRequest()) packet->encode();
        orvCommAssert(packet->hasRequest(), kSourceName);
        socket_->sendData(packet->request(), uiHost_, uiPort_, kRequestSendTimeout, 0);
        return;
    }
    if (!connected_ || !socket_) {
        OrvLogger::addWarningMessageWithFormat("UDP dispatch of [%@] ignored, not connected.",
                                               packet->description());
        return;
    }
    if (!packet->hasRequest()) packet->encode();
    orvCommAssert(packet->hasRequest(), kSourceName);
    {
        std::lock_guard lock(awaitingLock_);
        if (std::find(awaitingReplies_.begin(), awaitingReplies_.end(), packet) ==
            awaitingReplies_.end())
            awaitingReplies_.push_back(packet);
    }
    std::weak_ptr<ORVCommunicationHub> weakSelf = weak_from_this();
    mainLoop().postAfter(packet->timeoutInterval(), [weakSelf, packet] {
        if (auto self = weakSelf.lock()) self->checkTimeout(packet);
    });
    socket_->sendData(packet->request(), kRequestSendTimeout, 0);
}

void ORVCommunicationHub::checkTimeout(const ORVCommPktRef& packet) {
    bool timedOut = false;
    {
        std::lock_guard lock(awaitingLock_);
        auto it = std::find(awaitingReplies_.begin(), awaitingReplies_.end(), packet);
        if (it != awaitingReplies_.end()) {
            awaitingReplies_.erase(it);
            timedOut = true;
        }
    }
    if (timedOut) mainLoop().post([packet] { packet->dispatchTimeout(); });
}

void ORVCommunicationHub::dispatch(const ORVCommPktRef& packet, const std::string& reply) {
    orvCommAssert(packet != nullptr, kSourceName);
    const SocketAddress to = packet->remoteAddress();
    orvCommAssert(!to.empty(), kSourceName);
    if (!socket_) return;
    const std::string text = "+" + packet->requestId() + ":" + reply;
    socket_->sendData(ORVCommBytes(text.begin(), text.end()), to, kReplySendTimeout, 0);
}

void ORVCommunicationHub::dispatchBroadcast(const ORVCommPktRef& packet,
                                            const std::vector<ORVCommunicationClient>& clients) {
    orvCommAssert(packet != nullptr, kSourceName);
    if (!packet->hasRequest()) packet->encode();
    orvCommAssert(packet->hasRequest(), kSourceName);
    if (!socket_) return;
    const ORVCommBytes bytes = packet->request();
    for (const auto& client : clients)
        socket_->sendData(bytes, client.host, client.port, kRequestSendTimeout, 0);
}

size_t ORVCommunicationHub::awaitingReplyCount() const {
    std::lock_guard lock(awaitingLock_);
    return awaitingReplies_.size();
}

uint16_t ORVCommunicationHub::localPort() const {
    return socket_ ? socket_->localPort() : 0;
}

void ORVCommunicationHub::setUIEndpoint(const SocketAddress& address) {
    std::string host;
    uint16_t port = 0;
    if (!GCDAsyncUdpSocket::getHost(&host, &port, address)) return;
    uiHost_ = std::move(host);
    uiPort_ = port;
}

// ---- receiving --------------------------------------------------------------------------------

void ORVCommunicationHub::receiveDatagram(const std::vector<uint8_t>& data,
                                          const SocketAddress& from) {
    if (data.size() <= minimumPacketLength_) return;
    gDatagramReceived = true;
    if (!orvCommIsValidUtf8(data.data(), data.size())) {
        // Undecodable text has no fields at all; it goes the way of a missing code.
        OrvLogger::addWarningMessageWithFormat("WARNING: Unhandled request code received: %@",
                                               nullptr);
        return;
    }
    const ORVCommFields fields = orvCommSplitFields(
        std::string_view(reinterpret_cast<const char*>(data.data()), data.size()));
    if (!fields[0].empty() && fields[0][0] == '+') {
        processReplyDatagram(fields);
        return;
    }
    processRequestDatagram(data, from, fields);
}

void ORVCommunicationHub::processReplyDatagram(const ORVCommFields& fields) {
    const std::string_view id = std::string_view(fields[0]).substr(1);
    ORVCommPktRef match;
    {
        std::lock_guard lock(awaitingLock_);
        for (auto it = awaitingReplies_.rbegin(); it != awaitingReplies_.rend(); ++it) {
            if ((*it)->requestId() == id) {
                match = *it;
                awaitingReplies_.erase(std::next(it).base());
                break;
            }
        }
    }
    // Handled outside the lock: a reply handler may well dispatch the next request.
    if (match) match->processReply(ORVCommPkt::dictionaryFromReplyComponents(fields));
}

void ORVCommunicationHub::processRequestDatagram(ORVCommBytes data, const SocketAddress& from,
                                                 const ORVCommFields& fields) {
    const ORVCommKindInfo* kind =
        fields.size() > 1 ? ORVCommKinds::forCode(orvCommIntValue(fields[1])) : nullptr;
    if (!kind) {
        if (fields.size() > 1)
            OrvLogger::addWarningMessageWithFormat("WARNING: Unhandled request code received: %@",
                                                   outsideText(fields[1]));
        else
            OrvLogger::addWarningMessageWithFormat("WARNING: Unhandled request code received: %@",
                                                   nullptr);
        return;
    }
    ORVCommPktRef packet = kind->newFrom(from, std::move(data), fields[0]);
    packet->setReceivingHub(weak_from_this());
    packet->decodePayload(fields);
    packet->processRequest(fields);
    if (requestObserver_) requestObserver_(packet, fields);
}

// ---- socket events ----------------------------------------------------------------------------

void ORVCommunicationHub::udpSocketDidConnectToAddress(GCDAsyncUdpSocket& socket,
                                                       const SocketAddress& address) {
    if (!isCurrentSocket(socket)) return;
    connected_ = true;
    std::string host;
    uint16_t port = 0;
    GCDAsyncUdpSocket::getHost(&host, &port, address);
    if (isServerInstance_)
        OrvLogger::addInfoMessageWithFormat("Server did connect with client %@:%u", host, port);
    else
        OrvLogger::addInfoMessageWithFormat("Established connection to server at %@:%u", host,
                                            port);
    NotificationCenter::defaultCenter().post(kConnectedNotification, this);
}

void ORVCommunicationHub::udpSocketDidNotConnect(GCDAsyncUdpSocket& socket,
                                                 const UdpSocketError& error) {
    if (!isCurrentSocket(socket) || isServerInstance_) return;
    OrvLogger::addErrorMessageWithFormat("Failed to connect to Visor: %@", error);
    postSetupClientSocket(0);
}

void ORVCommunicationHub::udpSocketDidNotSendDataWithTag(GCDAsyncUdpSocket& socket, int64_t,
                                                         const UdpSocketError& error) {
    if (!isCurrentSocket(socket)) return;
    OrvLogger::addWarningMessageWithFormat("Failed to send UDP packet: %@", error);
    if (error.is(GCDAsyncUdpSocketErrorDomain, GCDAsyncUdpSocketBadConfigError)) reconnect();
}

void ORVCommunicationHub::udpSocketDidReceiveData(GCDAsyncUdpSocket& socket,
                                                  const std::vector<uint8_t>& data,
                                                  const SocketAddress& from, const std::any&) {
    if (!isCurrentSocket(socket)) return;
    receiveDatagram(data, from);
}

void ORVCommunicationHub::udpSocketDidClose(GCDAsyncUdpSocket& socket,
                                            const UdpSocketError* error) {
    if (!isCurrentSocket(socket) || !isSharedInstance()) return;
    if (!isServerInstance_ && gDatagramReceived) {
        OrvLogger::addErrorMessageWithFormat(
            "Lost communication to visor: %@, shutting down.",
            error ? FormatArg(error->description()) : FormatArg(nullptr));
        terminateApplication();
        return;
    }
    postSetupClientSocket(0);
}

}  // namespace orv
