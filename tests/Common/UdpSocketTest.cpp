#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <thread>

#include "Common/CommTestSupport.h"
#include "Common/GCDAsyncUdpSocket.h"

namespace orv {
namespace {

using test::CommEnvironment;
using test::RawPeer;

// Records every event in arrival order.
struct Recorder : GCDAsyncUdpSocketDelegate {
    std::vector<SocketAddress> connects;
    std::vector<UdpSocketError> connectFailures;
    std::vector<int64_t> sent;
    std::vector<std::pair<int64_t, UdpSocketError>> notSent;
    std::vector<std::pair<std::string, SocketAddress>> received;
    std::vector<std::optional<UdpSocketError>> closes;

    void udpSocketDidConnectToAddress(GCDAsyncUdpSocket&, const SocketAddress& a) override {
        connects.push_back(a);
    }
    void udpSocketDidNotConnect(GCDAsyncUdpSocket&, const UdpSocketError& e) override {
        connectFailures.push_back(e);
    }
    void udpSocketDidSendDataWithTag(GCDAsyncUdpSocket&, int64_t tag) override {
        sent.push_back(tag);
    }
    void udpSocketDidNotSendDataWithTag(GCDAsyncUdpSocket&, int64_t tag,
                                        const UdpSocketError& e) override {
        notSent.emplace_back(tag, e);
    }
    void udpSocketDidReceiveData(GCDAsyncUdpSocket&, const std::vector<uint8_t>& d,
                                 const SocketAddress& from, const std::any&) override {
        received.emplace_back(std::string(d.begin(), d.end()), from);
    }
    void udpSocketDidClose(GCDAsyncUdpSocket&, const UdpSocketError* e) override {
        closes.push_back(e ? std::optional<UdpSocketError>(*e) : std::nullopt);
    }
};

std::vector<uint8_t> bytes(const std::string& s) {
    return {s.begin(), s.end()};
}

class UdpSocketTest : public ::testing::Test {
  protected:
    std::shared_ptr<GCDAsyncUdpSocket> makeSocket() {
        auto s = GCDAsyncUdpSocket::initWithDelegate(rec, env.loop);
        s->setIPv6Enabled(false);
        return s;
    }
    CommEnvironment env;
    std::shared_ptr<Recorder> rec = std::make_shared<Recorder>();
};

TEST_F(UdpSocketTest, ConnectedClientAndBoundServerExchangeDatagramsWithTags) {
    auto server = makeSocket();
    UdpSocketError err;
    ASSERT_TRUE(server->bindToPort(0, "127.0.0.1", &err)) << err.description();
    ASSERT_TRUE(server->beginReceiving(&err));
    const uint16_t serverPort = server->localPort();
    ASSERT_NE(serverPort, 0);

    auto serverRec = rec;
    rec = std::make_shared<Recorder>();
    auto client = makeSocket();
    ASSERT_TRUE(client->connectToHost("127.0.0.1", serverPort, &err));
    ASSERT_TRUE(client->beginReceiving(&err));
    client->sendData(bytes("one"), 1.0, 11);
    client->sendData(bytes("two"), -1, 12);
    ASSERT_TRUE(
        env.waitFor([&] { return serverRec->received.size() == 2 && rec->sent.size() == 2; }));

    ASSERT_EQ(rec->connects.size(), 1u);
    std::string host;
    uint16_t port = 0;
    ASSERT_TRUE(GCDAsyncUdpSocket::getHost(&host, &port, rec->connects[0]));
    EXPECT_EQ(host, "127.0.0.1");
    EXPECT_EQ(port, serverPort);
    EXPECT_EQ(rec->sent, (std::vector<int64_t>{11, 12}));
    EXPECT_EQ(serverRec->received[0].first, "one");
    EXPECT_EQ(serverRec->received[1].first, "two");

    // The server answers the address it learned; a connected socket accepts it from its peer.
    server->sendData(bytes("back"), serverRec->received[0].second, 1.0, 21);
    ASSERT_TRUE(
        env.waitFor([&] { return rec->received.size() == 1 && serverRec->sent.size() == 1; }));
    EXPECT_EQ(rec->received[0].first, "back");
    EXPECT_EQ(serverRec->sent[0], 21);
}

TEST_F(UdpSocketTest, SendsFromSeveralThreadsStaySerialAndInOrder) {
    // A send that finds the queue idle runs on its caller's thread; one that finds it busy waits
    // its turn. Either way each sender's datagrams leave in order and every one is told.
    auto server = makeSocket();
    UdpSocketError err;
    ASSERT_TRUE(server->bindToPort(0, "127.0.0.1", &err)) << err.description();
    ASSERT_TRUE(server->beginReceiving(&err));
    auto serverRec = rec;
    rec = std::make_shared<Recorder>();
    auto client = makeSocket();
    ASSERT_TRUE(client->connectToHost("127.0.0.1", server->localPort(), &err));
    ASSERT_TRUE(client->beginReceiving(&err));
    ASSERT_TRUE(env.waitFor([&] { return rec->connects.size() == 1; }));

    client->sendData(bytes("first"), -1, 7);
    // Few enough to fit the receiver's buffer: loopback drops what does not.
    constexpr int kPerSender = 50;
    auto sendMany = [&](char sender) {
        for (int i = 0; i < kPerSender; ++i)
            client->sendData(bytes(std::string(1, sender) + std::to_string(i)), 1.0, 100 + i);
    };
    std::thread a([&] { sendMany('a'); });
    std::thread b([&] { sendMany('b'); });
    sendMany('m');
    a.join();
    b.join();
    ASSERT_TRUE(env.waitFor([&] {
        return serverRec->received.size() == 1 + 3 * kPerSender &&
               rec->sent.size() == 1 + 3 * kPerSender;
    }));
    std::map<char, int> next;
    for (size_t i = 1; i < serverRec->received.size(); ++i) {
        const std::string& d = serverRec->received[i].first;
        EXPECT_EQ(std::stoi(d.substr(1)), next[d[0]]++) << d;
    }
    EXPECT_TRUE(rec->notSent.empty());
}

TEST_F(UdpSocketTest, ConfigurationErrorsAreReturnedAtOnce) {
    auto s = makeSocket();
    UdpSocketError err;
    EXPECT_FALSE(s->beginReceiving(&err));
    EXPECT_TRUE(err.is(GCDAsyncUdpSocketErrorDomain, GCDAsyncUdpSocketBadConfigError));
    EXPECT_EQ(err.reason,
              "Must bind socket before you can receive data. You can do this explicitly via bind, "
              "or implicitly via connect or by sending data.");

    EXPECT_FALSE(s->connectToHost("", 1, &err));
    EXPECT_TRUE(err.is(GCDAsyncUdpSocketErrorDomain, GCDAsyncUdpSocketBadParamError));
    EXPECT_EQ(err.reason, "The host param is nil. Should be domain name or IP address string.");

    RawPeer peer;
    ASSERT_TRUE(s->connectToHost("127.0.0.1", peer.port(), &err));
    EXPECT_FALSE(s->connectToHost("127.0.0.1", peer.port(), &err));
    EXPECT_EQ(err.reason, "Cannot connect a socket more than once.");
    EXPECT_FALSE(s->bindToPort(0, &err));
    EXPECT_EQ(err.reason, "Cannot bind after connecting. If needed, bind first, then connect.");

    auto bound = makeSocket();
    ASSERT_TRUE(bound->bindToPort(0, "127.0.0.1", &err));
    EXPECT_FALSE(bound->bindToPort(0, "127.0.0.1", &err));
    EXPECT_EQ(err.reason, "Cannot bind a socket more than once.");

    auto none = makeSocket();
    none->setIPv4Enabled(false);
    EXPECT_FALSE(none->bindToPort(0, &err));
    EXPECT_EQ(err.reason,
              "Both IPv4 and IPv6 have been disabled. Must enable at least one protocol first.");
}

TEST_F(UdpSocketTest, MisdirectedSendsFailWithTheirTags) {
    RawPeer peer;
    UdpSocketError err;
    auto unconnected = makeSocket();
    unconnected->sendData(bytes("x"), 1.0, 5);
    auto connected = makeSocket();
    ASSERT_TRUE(connected->connectToHost("127.0.0.1", peer.port(), &err));
    connected->sendData(bytes("y"), "127.0.0.1", peer.port(), 1.0, 6);
    unconnected->sendData(bytes("z"), SocketAddress{1, 2, 3}, 1.0, 7);
    unconnected->sendData(bytes("w"), "", 9, 1.0, 8);
    ASSERT_TRUE(env.waitFor([&] { return rec->notSent.size() == 4; }));

    std::map<int64_t, UdpSocketError> byTag(rec->notSent.begin(), rec->notSent.end());
    EXPECT_EQ(byTag[5].code, GCDAsyncUdpSocketBadConfigError);
    EXPECT_EQ(byTag[5].reason, "You must specify destination of packet for a non-connected socket");
    EXPECT_EQ(byTag[6].code, GCDAsyncUdpSocketBadConfigError);
    EXPECT_EQ(byTag[6].reason, "Cannot specify destination of packet for connected socket");
    EXPECT_EQ(byTag[7].code, GCDAsyncUdpSocketBadParamError);
    EXPECT_EQ(byTag[7].reason, "A valid IPv4 or IPv6 address was not given");
    EXPECT_EQ(byTag[8].code, GCDAsyncUdpSocketBadParamError);
}

// Completions reach the delegate queue in order: once the failure of the later send is in, a
// success notice for the earlier one would be too.
TEST_F(UdpSocketTest, ADelegateThatIgnoresSuccessfulSendsIsToldOnlyOfFailures) {
    struct Quiet : Recorder {
        bool respondsToDidSendData() const override { return false; }
    };
    rec = std::make_shared<Quiet>();
    RawPeer peer;
    UdpSocketError err;
    auto s = makeSocket();
    ASSERT_TRUE(s->connectToHost("127.0.0.1", peer.port(), &err));
    s->sendData(bytes("delivered"), 1.0, 1);
    s->sendData(bytes("misdirected"), "127.0.0.1", peer.port(), 1.0, 2);
    ASSERT_TRUE(env.waitFor([&] { return rec->notSent.size() == 1; }));
    EXPECT_EQ(rec->notSent[0].first, 2);
    EXPECT_TRUE(rec->sent.empty());
}

TEST_F(UdpSocketTest, LookupWithoutUsableFamilyDoesNotConnect) {
    auto s = makeSocket();
    s->setIPv4Enabled(false);
    s->setIPv6Enabled(true);
    UdpSocketError err;
    ASSERT_TRUE(s->connectToHost("127.0.0.1", 9, &err));
    ASSERT_TRUE(env.waitFor([&] { return !rec->connectFailures.empty(); }));
    EXPECT_TRUE(
        rec->connectFailures[0].is(GCDAsyncUdpSocketErrorDomain, GCDAsyncUdpSocketOtherError));
    EXPECT_EQ(rec->connectFailures[0].reason,
              "IPv4 has been disabled and DNS lookup found no IPv6 address(es).");
    EXPECT_FALSE(s->isConnected());
}

TEST_F(UdpSocketTest, BusyPortIsAPosixBindError) {
    RawPeer holder;
    auto s = makeSocket();
    UdpSocketError err;
    EXPECT_FALSE(s->bindToPort(holder.port(), "127.0.0.1", &err));
    EXPECT_EQ(err.domain, NSPOSIXErrorDomain);
    EXPECT_EQ(err.code, EADDRINUSE);
    EXPECT_EQ(err.reason.rfind("Error in bind() function", 0), 0u) << err.reason;
}

TEST_F(UdpSocketTest, RefusedPeerClosesTheConnectedSocketFromTheReceiveSide) {
    auto peer = std::make_unique<RawPeer>();
    const uint16_t port = peer->port();
    auto s = makeSocket();
    UdpSocketError err;
    ASSERT_TRUE(s->connectToHost("127.0.0.1", port, &err));
    ASSERT_TRUE(s->beginReceiving(&err));
    ASSERT_TRUE(env.waitFor([&] { return rec->connects.size() == 1; }));
    peer.reset();  // the peer's port is gone

    s->sendData(bytes("anyone there?"), 1.0, 1);
    s->sendData(bytes("second"), 1.0, 2);
    ASSERT_TRUE(env.waitFor([&] { return !rec->closes.empty(); }));
    ASSERT_TRUE(rec->closes[0].has_value());
    EXPECT_EQ(rec->closes[0]->domain, NSPOSIXErrorDomain);
    EXPECT_EQ(rec->closes[0]->code, ECONNREFUSED);
    EXPECT_EQ(rec->closes[0]->reason.rfind("Error in recvfrom() function", 0), 0u);
    EXPECT_TRUE(s->isClosed());
    EXPECT_FALSE(s->isConnected());
}

TEST_F(UdpSocketTest, CloseOnRequestReportsNoErrorAndDestroyedSocketReportsNothing) {
    RawPeer peer;
    UdpSocketError err;
    auto s = makeSocket();
    ASSERT_TRUE(s->bindToPort(0, "127.0.0.1", &err));
    s->close();
    ASSERT_TRUE(env.waitFor([&] { return rec->closes.size() == 1; }));
    EXPECT_FALSE(rec->closes[0].has_value());

    // Events still queued for a socket that has been dropped are not delivered.
    auto gone = makeSocket();
    ASSERT_TRUE(gone->connectToHost("127.0.0.1", peer.port(), &err));
    gone->sendData(bytes("x"), 1.0, 3);
    gone->close();
    gone.reset();
    env.loop->runUntilIdle();
    EXPECT_TRUE(rec->connects.empty());
    EXPECT_TRUE(rec->sent.empty());
    EXPECT_EQ(rec->closes.size(), 1u);
}

}  // namespace
}  // namespace orv
