#pragma once

// The one UDP link of the process to the magnifier. The agent is a client that connects to the
// magnifier's port; the magnifier's side (and the peer tool) is a server that binds it. Every
// socket event, retry and reply time-out runs on the main loop.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Common/GCDAsyncUdpSocket.h"
#include "Common/ORVCommPkt.h"
#include "Common/ORVCommRequests.h"

namespace orv {

class ORVCommunicationHub : public GCDAsyncUdpSocketDelegate,
                            public std::enable_shared_from_this<ORVCommunicationHub> {
  public:
    static constexpr const char* kConnectedNotification = "kORVCommunicationHubConnected";
    static constexpr uint16_t kServerPort = 41227;
    static constexpr uint16_t kAuthPort = 41228;

    struct Options {
        std::string host = "127.0.0.1";
        // Where a client connects and a server binds; 0 lets a server take any free port.
        uint16_t serverPort = kServerPort;
        // Where the auth client connects.
        uint16_t authPort = kAuthPort;
    };

    enum class Role { Client, AuthClient, Server, LogOnly };

    // ---- the program's entry points -----------------------------------------------------------

    // Null until one of the constructors below has made it.
    static std::shared_ptr<ORVCommunicationHub> sharedInstance();
    static std::shared_ptr<ORVCommunicationHub> clientInstance();
    // Makes a shared instance without a socket; returns nothing on purpose (callers use
    // sharedInstance). Everything dispatched through it is dropped with a warning.
    static void logOnlyInstance();
    static std::shared_ptr<ORVCommunicationHub> serverInstance();
    // A new client of the auth port each time, never the shared instance.
    static std::shared_ptr<ORVCommunicationHub> authInstance();

    // Ports and host used by the constructors above. Set before the first of them runs.
    static void setDefaultOptions(const Options& options);
    static Options defaultOptions();

    // ---- for tests and tools ------------------------------------------------------------------

    // Back to a fresh process: no shared instance, nothing received yet, default options.
    static void resetSharedState();
    // A hub of the given role that is not the shared instance, set up at once.
    static std::shared_ptr<ORVCommunicationHub> make(Role role, const Options& options);

    // ---- sending ------------------------------------------------------------------------------

    void dispatch(const ORVCommPktRef& packet);
    // "+<requestId>:<reply>" to the packet's remoteAddress.
    void dispatch(const ORVCommPktRef& packet, const std::string& reply);
    void dispatchBroadcast(const ORVCommPktRef& packet,
                           const std::vector<ORVCommunicationClient>& clients);
    void reconnect();

    // ---- receiving ----------------------------------------------------------------------------

    // What the socket delegate does with one datagram; public so that fuzzing and tests can feed
    // bytes without a socket. Main loop only.
    void receiveDatagram(const std::vector<uint8_t>& data, const SocketAddress& from);

    // Called on the main loop with every request received, after its kind has handled it.
    // The magnifier's side and the tools answer requests here.
    using RequestObserver = std::function<void(const ORVCommPktRef&, const ORVCommFields&)>;
    void setRequestObserver(RequestObserver observer) { requestObserver_ = std::move(observer); }

    // ---- state --------------------------------------------------------------------------------

    bool connected() const { return connected_; }
    bool isServerInstance() const { return isServerInstance_; }
    bool isAuthClient() const { return isAuthClient_; }
    bool log() const { return log_; }
    void setLog(bool log) { log_ = log; }
    uint64_t minimumPacketLength() const { return minimumPacketLength_; }
    void setUIEndpoint(const SocketAddress& address);
    const std::string& uiHost() const { return uiHost_; }
    uint16_t uiPort() const { return uiPort_; }
    size_t awaitingReplyCount() const;
    // The socket's local port (the server's bound port), 0 without a socket.
    uint16_t localPort() const;
    const Options& options() const { return options_; }

    // ---- socket delegate ----------------------------------------------------------------------

    void udpSocketDidConnectToAddress(GCDAsyncUdpSocket&, const SocketAddress&) override;
    void udpSocketDidNotConnect(GCDAsyncUdpSocket&, const UdpSocketError&) override;
    bool respondsToDidSendData() const override { return false; }
    void udpSocketDidNotSendDataWithTag(GCDAsyncUdpSocket&, int64_t tag,
                                        const UdpSocketError&) override;
    void udpSocketDidReceiveData(GCDAsyncUdpSocket&, const std::vector<uint8_t>& data,
                                 const SocketAddress& from, const std::any& filterContext) override;
    void udpSocketDidClose(GCDAsyncUdpSocket&, const UdpSocketError* error) override;

    explicit ORVCommunicationHub(Options options);
    ~ORVCommunicationHub() override;

  private:
    void setupClientSocket();
    void setupAuthClientSocket();
    void setupClientSocketOnPort(uint16_t port);
    void setupServerSocket();
    void newSocket();
    bool isCurrentSocket(const GCDAsyncUdpSocket& socket) const { return socket_.get() == &socket; }
    bool isSharedInstance() const;
    void postSetupClientSocket(double delay);
    void checkTimeout(const ORVCommPktRef& packet);
    void processReplyDatagram(const ORVCommFields& fields);
    void processRequestDatagram(ORVCommBytes data, const SocketAddress& from,
                                const ORVCommFields& fields);

    Options options_;
    std::shared_ptr<GCDAsyncUdpSocket> socket_;
    bool isServerInstance_ = false;
    bool isAuthClient_ = false;
    bool connected_ = false;
    bool log_ = false;
    uint64_t minimumPacketLength_ = 0;
    mutable std::mutex awaitingLock_;
    std::vector<ORVCommPktRef> awaitingReplies_;  // in the order sent
    std::string uiHost_;
    uint16_t uiPort_ = 0;
    RequestObserver requestObserver_;
};

}  // namespace orv
