#include <gtest/gtest.h>

#include "Common/CommTestSupport.h"
#include "Common/ORVCommRequests.h"
#include "Common/ORVCommunicationHub.h"

namespace orv {
namespace {

using test::CommEnvironment;
using test::RawPeer;

constexpr const char* kUnhandled = "WARNING: Unhandled request code received";

class HubTest : public ::testing::Test {
  protected:
    // The shared client, connected to the raw peer, its connect event delivered.
    std::shared_ptr<ORVCommunicationHub> connectedClient() {
        ORVCommunicationHub::Options o;
        o.serverPort = peer.port();
        ORVCommunicationHub::setDefaultOptions(o);
        auto hub = ORVCommunicationHub::clientInstance();
        EXPECT_TRUE(env.waitFor([&] { return hub->connected(); }));
        peer.lastFromPort = hub->localPort();
        return hub;
    }
    // Waits for the peer to receive one datagram from the hub.
    std::string receiveAtPeer() {
        std::string text;
        EXPECT_TRUE(env.waitFor([&] { return peer.tryReceive(&text); }));
        return text;
    }
    // The hub has taken in everything the peer sent so far once a marker datagram sent after
    // it has logged its unhandled-code warning.
    void drainPeerDatagrams(RawPeer& from) {
        const size_t before = env.log.countContaining(": 4120030");
        from.reply("ORVCommReq99999999:4120030");
        ASSERT_TRUE(env.waitFor([&] { return env.log.countContaining(": 4120030") > before; }));
    }

    CommEnvironment env;
    RawPeer peer;
};

TEST_F(HubTest, FirstPacketSentCarriesIdentifierOne) {
    auto hub = connectedClient();
    EXPECT_EQ(hub->minimumPacketLength(), 19u);
    EXPECT_EQ(env.connectedNotifications, 1);
    ORVCommStatusSubscription::create()->dispatch();
    EXPECT_EQ(receiveAtPeer(), "ORVCommReq00000001:4120020");
}

TEST_F(HubTest, DispatchBeforeTheConnectEventIsDroppedWithAWarning) {
    ORVCommunicationHub::Options o;
    o.serverPort = peer.port();
    ORVCommunicationHub::setDefaultOptions(o);
    // The connect call succeeds at once, but its event has not been delivered yet.
    auto hub = ORVCommunicationHub::clientInstance();
    ORVCommKeepAlive::create()->dispatch();
    EXPECT_EQ(env.log.countContaining("UDP dispatch of [<ORVCommKeepAlive:"), 1u);
    EXPECT_EQ(env.log.countContaining("ignored, not connected."), 1u);
    EXPECT_EQ(hub->awaitingReplyCount(), 0u);

    // The log-only hub never connects.
    ORVCommunicationHub::resetSharedState();
    ORVCommunicationHub::logOnlyInstance();
    ASSERT_TRUE(ORVCommunicationHub::sharedInstance());
    ORVCommFocusArea::create()->dispatch();
    EXPECT_EQ(env.log.countContaining("ignored, not connected."), 2u);
}

TEST_F(HubTest, DatagramsUpToNineteenBytesAreIgnored) {
    auto hub = connectedClient();
    peer.reply("ABCDEFGHIJK:4120007");   // 19 bytes
    peer.reply("ABCDEFGHIJKL:4120007");  // 20 bytes
    ASSERT_TRUE(env.waitFor([&] { return env.log.countContaining(kUnhandled) > 0; }));
    drainPeerDatagrams(peer);
    EXPECT_EQ(env.log.countContaining(": 4120007"), 1u);
}

TEST_F(HubTest, UnknownCodesAndMalformedDatagramsOnlyWarn) {
    auto hub = connectedClient();
    std::vector<std::string> bad = {
        "ORVCommReq00000009:4120007",  // the gap left by the shared fullscreen code
        "ORVCommReq00000009:4120030",  // inside the range, not in the table
        "ORVCommReq00000009:99",       // outside the range
        "no colon anywhere in this datagram",
        std::string(65000, ':'),
        std::string("ORVCommReq00000009:\xff\xfe:4120017"),
    };
    for (const auto& d : bad) peer.reply(d);
    ASSERT_TRUE(env.waitFor([&] { return env.log.countContaining(kUnhandled) == bad.size(); }));
    EXPECT_EQ(env.log.countContaining(": 4120007"), 1u);
    EXPECT_EQ(env.log.countContaining(": 4120030"), 1u);
    EXPECT_EQ(env.log.countContaining(": (null)"), 2u);  // no code field; not UTF-8
    EXPECT_EQ(env.app->terminateCount, 0);
    EXPECT_EQ(env.log.count(), bad.size());
}

TEST_F(HubTest, ForgedLineAndHugeTokenInADatagramMakeOneBoundedLogLine) {
    auto hub = connectedClient();
    env.log.clear();
    const std::string forged = "(error) Lost communication to visor - shutting down.";
    peer.reply("ORVCommReq00000009:4120099\n" + forged + std::string(60000, 'A'));
    ASSERT_TRUE(env.waitFor([&] { return env.log.countContaining(kUnhandled) == 1; }));
    drainPeerDatagrams(peer);
    ASSERT_EQ(env.log.count(), 2u);  // the warning and the marker's
    const std::string line = env.log.lines()[0];
    EXPECT_NE(line.find(": 4120099\\n" + forged), std::string::npos) << line;
    EXPECT_EQ(line.find('\n'), std::string::npos);
    EXPECT_LT(line.size(), 400u);
    EXPECT_NE(line.find("more bytes)"), std::string::npos) << line;
    EXPECT_EQ(env.app->terminateCount, 0);
}

TEST_F(HubTest, RepliesMatchTheLastPacketWithTheIdentifier) {
    auto hub = connectedClient();
    std::vector<std::string> order;
    std::vector<ORVCommDictionary> replies;
    auto first = ORVCommStatusInquiry::create();
    auto second = ORVCommStatusInquiry::create();
    first->setReplyHandler([&](ORVCommPkt&, const ORVCommDictionary& d) {
        order.push_back("first");
        replies.push_back(d);
    });
    second->setReplyHandler([&](ORVCommPkt&, const ORVCommDictionary& d) {
        order.push_back("second");
        replies.push_back(d);
    });
    first->encode();
    second->encode();
    second->setRequestId(first->requestId());
    hub->dispatch(first);
    hub->dispatch(second);
    EXPECT_EQ(hub->awaitingReplyCount(), 2u);
    receiveAtPeer();
    receiveAtPeer();

    const std::string id = first->requestId();
    peer.reply("+" + id + ":speechEnabled:0:echoRate");  // odd: the last key is dropped
    peer.reply("+" + id + ":");                          // nothing but the identifier
    peer.reply("+" + id + ":late:reply");                // nobody waits any more
    ASSERT_TRUE(env.waitFor([&] { return order.size() == 2; }));
    drainPeerDatagrams(peer);
    EXPECT_EQ(order, (std::vector<std::string>{"second", "first"}));
    EXPECT_EQ(replies[0], (ORVCommDictionary{{"speechEnabled", "0"}}));
    EXPECT_TRUE(replies[1].empty());
    EXPECT_EQ(hub->awaitingReplyCount(), 0u);
}

TEST_F(HubTest, ReplyAfterTimeOutIsDroppedSilently) {
    auto hub = connectedClient();
    int timeouts = 0, replies = 0;
    auto inquiry = ORVCommStatusInquiry::create();
    inquiry->setTimeoutHandler([&](ORVCommPkt&) { ++timeouts; });
    inquiry->setReplyHandler([&](ORVCommPkt&, const ORVCommDictionary&) { ++replies; });
    inquiry->dispatch();
    receiveAtPeer();

    env.loop->advance(4.999);
    EXPECT_EQ(timeouts, 0);
    EXPECT_EQ(hub->awaitingReplyCount(), 1u);
    env.loop->advance(0.001);
    EXPECT_EQ(timeouts, 1);
    EXPECT_EQ(hub->awaitingReplyCount(), 0u);

    env.log.clear();
    peer.reply("+" + inquiry->requestId() + ":speechEnabled:1");
    drainPeerDatagrams(peer);
    EXPECT_EQ(replies, 0);
    EXPECT_EQ(env.log.count(), 1u);  // the marker's warning and nothing else
}

TEST_F(HubTest, RequestsReachTheirKindsHooks) {
    auto hub = connectedClient();
    std::vector<std::string> changes;
    int shutdowns = 0;
    auto& hooks = ORVCommAgentHooks::shared();
    hooks.statusChanged = [&](const std::string& k, const std::string& o, const std::string& n) {
        changes.push_back(k + "|" + o + "|" + n);
    };
    hooks.shutdown = [&] { ++shutdowns; };
    std::vector<int32_t> observed;
    hub->setRequestObserver(
        [&](const ORVCommPktRef& p, const ORVCommFields&) { observed.push_back(p->opCode()); });

    peer.reply("ORVCommReq00000001:4120021:speechEnabled:1:0");
    peer.reply("ORVCommReq00000002:4120021:speechEnabled:1");  // too few fields
    peer.reply("ORVCommReq00000003:4120011");
    peer.reply("ORVCommReq00000004:4120017");
    ASSERT_TRUE(env.waitFor([&] { return observed.size() == 4; }));
    EXPECT_EQ(changes, (std::vector<std::string>{"speechEnabled|1|0"}));
    EXPECT_EQ(shutdowns, 1);
    EXPECT_EQ(observed, (std::vector<int32_t>{4120021, 4120021, 4120011, 4120017}));

    // The agent answers no request: the keep-alive got nothing back.
    std::string text;
    EXPECT_FALSE(peer.tryReceive(&text));
}

TEST_F(HubTest, SocketCloseBeforeContactSetsUpAgainAfterContactTerminates) {
    connectedClient();
    peer.close();  // the magnifier's port is gone; nothing was ever received
    ORVCommKeepAlive::create()->dispatch();
    ASSERT_TRUE(env.waitFor([&] { return env.connectedNotifications == 2; }));
    EXPECT_EQ(env.app->terminateCount, 0);
    EXPECT_EQ(env.log.countContaining("Lost communication"), 0u);

    // Contact, then loss.
    RawPeer again;
    ORVCommunicationHub::resetSharedState();
    ORVCommunicationHub::Options o;
    o.serverPort = again.port();
    ORVCommunicationHub::setDefaultOptions(o);
    auto client = ORVCommunicationHub::clientInstance();
    ASSERT_TRUE(env.waitFor([&] { return client->connected(); }));
    again.lastFromPort = client->localPort();
    drainPeerDatagrams(again);
    again.close();
    client->dispatch(ORVCommKeepAlive::create());
    ASSERT_TRUE(env.waitFor([&] { return env.app->terminateCount == 1; }));
    EXPECT_EQ(env.log.countContaining("(error) Lost communication to visor: Error Domain="
                                      "NSPOSIXErrorDomain Code=111"),
              1u);
}

TEST_F(HubTest, HubThatIsNotSharedReconnectsWhenASendFindsItsSocketClosed) {
    ORVCommunicationHub::Options o;
    o.serverPort = peer.port();
    auto hub = ORVCommunicationHub::make(ORVCommunicationHub::Role::Client, o);
    ASSERT_TRUE(env.waitFor([&] { return hub->connected(); }));
    peer.lastFromPort = hub->localPort();
    drainPeerDatagrams(peer);  // contact: a shared client would now terminate on close
    peer.close();
    hub->dispatch(ORVCommKeepAlive::create());
    ASSERT_TRUE(env.waitFor([&] { return hub->localPort() == 0; }));  // closed, nothing done

    hub->dispatch(ORVCommKeepAlive::create());
    ASSERT_TRUE(env.waitFor([&] { return env.connectedNotifications == 2; }));
    EXPECT_EQ(env.log.countContaining("(warning) Failed to send UDP packet: Error Domain="
                                      "GCDAsyncUdpSocketErrorDomain Code=1"),
              1u);
    EXPECT_EQ(env.app->terminateCount, 0);
}

TEST_F(HubTest, AuthClientRetriesWithTheOrdinaryClientSetUp) {
    ORVCommunicationHub::Options o;
    o.host = "";
    ORVCommunicationHub::setDefaultOptions(o);
    auto auth = ORVCommunicationHub::authInstance();
    EXPECT_TRUE(auth->isAuthClient());
    EXPECT_NE(ORVCommunicationHub::sharedInstance(), auth);
    env.loop->advance(1.0);
    EXPECT_FALSE(auth->isAuthClient());
}

TEST_F(HubTest, ConnectCallErrorsRetryEverySecond) {
    ORVCommunicationHub::Options o;
    o.host = "";  // refused by the connect call itself
    ORVCommunicationHub::setDefaultOptions(o);
    ORVCommunicationHub::clientInstance();
    const char* line =
        "Unable to connect to server: Error Domain=GCDAsyncUdpSocketErrorDomain "
        "Code=2";
    EXPECT_EQ(env.log.countContaining(line), 1u);
    env.loop->advance(0.999);
    EXPECT_EQ(env.log.countContaining(line), 1u);
    env.loop->advance(0.001);
    EXPECT_EQ(env.log.countContaining(line), 2u);
    env.loop->advance(3.0);
    EXPECT_EQ(env.log.countContaining(line), 5u);
}

TEST_F(HubTest, ServerAnswersRequestsAndReachesItsClients) {
    ORVCommunicationHub::Options o;
    o.serverPort = 0;
    auto server = ORVCommunicationHub::make(ORVCommunicationHub::Role::Server, o);
    const uint16_t serverPort = server->localPort();
    ASSERT_NE(serverPort, 0);
    ORVCommunicationHub* s = server.get();
    server->setRequestObserver([s](const ORVCommPktRef& p, const ORVCommFields&) {
        if (s->uiHost().empty()) s->setUIEndpoint(p->remoteAddress());
        if (p->opCode() == ORVCommStatusSubscription::kRequestCode)
            p->dispatchReply({{"status", "OK"}});
    });

    // Before anyone has written, the server has nobody to send to.
    server->dispatch(ORVCommShutdown::create());
    peer.sendTo(serverPort, "ORVCommReq00000005:4120020");
    std::string text;
    ASSERT_TRUE(env.waitFor([&] { return peer.tryReceive(&text); }));
    EXPECT_EQ(text, "+ORVCommReq00000005:status:OK");
    EXPECT_EQ(server->uiPort(), peer.port());

    server->dispatch(ORVCommShutdown::create());
    ASSERT_TRUE(env.waitFor([&] { return peer.tryReceive(&text); }));
    EXPECT_EQ(orvCommSplitFields(text).at(1), "4120011");

    RawPeer other;
    server->dispatchBroadcast(ORVCommStatusChanged::create("echoRate", "180", "200"),
                              {{"127.0.0.1", peer.port()}, {"127.0.0.1", other.port()}});
    std::string a, b;
    ASSERT_TRUE(env.waitFor([&] {
        return (!a.empty() || peer.tryReceive(&a)) && (!b.empty() || other.tryReceive(&b));
    }));
    EXPECT_EQ(a, b);
    EXPECT_NE(a.find(":4120021:echoRate:180:200"), std::string::npos);
    EXPECT_EQ(server->awaitingReplyCount(), 0u);
}

TEST_F(HubTest, ServerThatCannotBindTerminates) {
    ORVCommunicationHub::Options o;
    o.serverPort = peer.port();  // taken by the peer
    ORVCommunicationHub::setDefaultOptions(o);
    auto server = ORVCommunicationHub::serverInstance();
    EXPECT_TRUE(server->isServerInstance());
    EXPECT_EQ(env.app->terminateCount, 1);
    EXPECT_EQ(env.log.countContaining("(error) ERROR: Unable to bind server port: Error Domain="
                                      "NSPOSIXErrorDomain"),
              1u);
}

TEST_F(HubTest, ClientAndServerHubsCompleteTheStatusSequence) {
    ORVCommunicationHub::Options o;
    o.serverPort = 0;
    auto server = ORVCommunicationHub::make(ORVCommunicationHub::Role::Server, o);
    std::vector<ORVOrientedRectRef> areas;
    server->setRequestObserver([&](const ORVCommPktRef& p, const ORVCommFields&) {
        if (p->opCode() == ORVCommStatusSubscription::kRequestCode)
            p->dispatchReply({{"status", "OK"}});
        if (p->opCode() == ORVCommStatusInquiry::kRequestCode)
            p->dispatchReply({{"speechEnabled", "1"}, {"echoRate", "200"}});
        if (auto area = std::dynamic_pointer_cast<ORVCommFocusArea>(p)) areas.push_back(area->area);
    });

    // The agent's side as the status monitor will wire it.
    ORVCommDictionary status;
    auto& hooks = ORVCommAgentHooks::shared();
    hooks.statusSubscriptionConfirmed = [](bool) { ORVCommStatusInquiry::create()->dispatch(); };
    hooks.statusReceived = [&](const ORVCommDictionary& d) { status = d; };
    auto token = NotificationCenter::defaultCenter().addObserver(
        ORVCommunicationHub::kConnectedNotification, nullptr,
        [](const Notification&) { ORVCommStatusSubscription::create()->dispatch(); });

    o.serverPort = server->localPort();
    ORVCommunicationHub::setDefaultOptions(o);
    auto client = ORVCommunicationHub::clientInstance();
    ASSERT_TRUE(env.waitFor([&] { return !status.empty(); }));
    NotificationCenter::defaultCenter().removeObserver(token);
    EXPECT_EQ(status, (ORVCommDictionary{{"speechEnabled", "1"}, {"echoRate", "200"}}));

    ORVCommFocusArea::create(ORVOrientedRect::initWithRect(Rect(10.5, -10.5, 30, 40), 2, 0, 1))
        ->dispatch();
    ASSERT_TRUE(env.waitFor([&] { return areas.size() == 1; }));
    EXPECT_TRUE(areas[0]->isEqual(ORVOrientedRect::initWithRect(Rect(11, -11, 30, 40), 2, 0, 1)));
}

}  // namespace
}  // namespace orv

namespace orv {
namespace {

TEST(HubDeathTest, MisuseIsInvalidUsage) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    test::CommEnvironment env;
    ORVCommunicationHub::logOnlyInstance();
    // A packet made here has no sender to reply to.
    EXPECT_DEATH(ORVCommKeepAlive::create()->dispatchReply({{"status", "OK"}}), "Invalid usage");
    // The process is a client now; it cannot also be the server.
    EXPECT_DEATH(ORVCommunicationHub::serverInstance(), "Invalid usage");
}

}  // namespace
}  // namespace orv
