#pragma once

// Ground for the magnifier-link tests: a virtual-time main loop with an application double, and a
// bare POSIX UDP peer on an ephemeral loopback port standing in for the other side.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "Common/NotificationCenter.h"
#include "Common/ORVCommPkt.h"
#include "Common/ORVCommunicationHub.h"
#include "platform/Platform.h"
#include "platform/VirtualMainLoop.h"
#include "support/LogCapture.h"

namespace orv::test {

class RecordingAppHost : public ApplicationHost {
  public:
    std::vector<std::string> arguments() override { return {}; }
    OSVersion operatingSystemVersion() override { return {}; }
    std::string executablePath() override { return {}; }
    void terminate() override { ++terminateCount; }
    void hide() override {}
    int terminateCount = 0;
};

// Installs a fresh platform and a fresh link state for each test, and takes them down again.
class CommEnvironment {
  public:
    CommEnvironment() : log(2) {
        loop = std::make_shared<VirtualMainLoop>();
        app = std::make_shared<RecordingAppHost>();
        auto p = std::make_shared<Platform>();
        p->name = "comm-test";
        p->loop = loop;
        p->app = app;
        installPlatform(p);
        ORVCommunicationHub::resetSharedState();
        ORVCommPkt::resetSignatureCounter(0);
        ORVCommAgentHooks::shared() = ORVCommAgentHooks();
        connectedToken = NotificationCenter::defaultCenter().addObserver(
            ORVCommunicationHub::kConnectedNotification, nullptr,
            [this](const Notification&) { ++connectedNotifications; });
    }
    ~CommEnvironment() {
        NotificationCenter::defaultCenter().removeObserver(connectedToken);
        ORVCommAgentHooks::shared() = ORVCommAgentHooks();
        ORVCommunicationHub::resetSharedState();
        installPlatform(nullptr);
    }

    // Runs the loop (without moving its clock) until the predicate holds, for at most 5 s.
    bool waitFor(const std::function<bool()>& done) { return loop->runUntil(done, 5.0); }

    LogCapture log;
    std::shared_ptr<VirtualMainLoop> loop;
    std::shared_ptr<RecordingAppHost> app;
    int connectedNotifications = 0;
    NotificationCenter::Token connectedToken = 0;
};

// A plain UDP socket on 127.0.0.1 with a kernel-chosen port.
class RawPeer {
  public:
    RawPeer() {
        fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        socklen_t len = sizeof a;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin_port);
    }
    ~RawPeer() { close(); }

    uint16_t port() const { return port_; }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

    bool sendTo(uint16_t port, const std::string& text) const {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return ::sendto(fd_, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&a),
                        sizeof a) == static_cast<ssize_t>(text.size());
    }
    // Answers the sender of the last datagram received.
    bool reply(const std::string& text) const { return sendTo(lastFromPort, text); }

    // Non-blocking: one datagram if one is waiting.
    bool tryReceive(std::string* text) {
        char buf[70000];
        sockaddr_in from{};
        socklen_t len = sizeof from;
        ssize_t n = ::recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
        if (n < 0) return false;
        lastFromPort = ntohs(from.sin_port);
        text->assign(buf, static_cast<size_t>(n));
        return true;
    }

    uint16_t lastFromPort = 0;

  private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

}  // namespace orv::test
