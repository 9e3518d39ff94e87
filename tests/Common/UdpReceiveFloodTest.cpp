// A flood of datagrams while the main loop is held: what waits for it stays within the endpoint's
// bounds, the rest is dropped and reported once, and delivery goes on when the loop runs again.

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include "Common/CommTestSupport.h"
#include "Common/GCDAsyncUdpSocket.h"

// The heap is only measured where the allocator's own counts mean something.
#if defined(__SANITIZE_ADDRESS__)
#define ORV_HEAP_MEASURABLE 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORV_HEAP_MEASURABLE 0
#endif
#endif
#if !defined(ORV_HEAP_MEASURABLE) && defined(__GLIBC__) && \
    (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 33))
#define ORV_HEAP_MEASURABLE 1
#endif
#ifndef ORV_HEAP_MEASURABLE
#define ORV_HEAP_MEASURABLE 0
#endif

namespace orv {
namespace {

using test::CommEnvironment;
using test::RawPeer;
using Endpoint = GCDAsyncUdpSocket;

// Keeps only each datagram's sequence number, so the heap shows what the endpoint holds.
struct Counter : GCDAsyncUdpSocketDelegate {
    std::vector<uint32_t> seqs;
    std::function<void(uint32_t)> onReceive;
    void udpSocketDidReceiveData(GCDAsyncUdpSocket&, const std::vector<uint8_t>& d,
                                 const SocketAddress&, const std::any&) override {
        uint32_t n = UINT32_MAX;
        if (d.size() >= sizeof n) std::memcpy(&n, d.data(), sizeof n);
        seqs.push_back(n);
        if (onReceive) onReceive(n);
    }
};

size_t heapInUse() {
#if ORV_HEAP_MEASURABLE
    const struct mallinfo2 m = ::mallinfo2();
    return m.uordblks + m.hblkhd;
#else
    return 0;
#endif
}

std::string datagram(uint32_t seq, size_t size) {
    std::string d(size, 'x');
    std::memcpy(d.data(), &seq, sizeof seq);
    return d;
}

// Each localPort() is a round trip through the socket's queue, which first reads what has
// arrived; bounded in real time should a datagram never come.
bool endpointHasRead(Endpoint& s, uint64_t count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (s.receiveQueueStats().received < count) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        (void)s.localPort();
    }
    return true;
}

class UdpReceiveFloodTest : public ::testing::Test {
  protected:
    void SetUp() override {
        server = GCDAsyncUdpSocket::initWithDelegate(counter, env.loop);
        server->setIPv6Enabled(false);
        UdpSocketError err;
        ASSERT_TRUE(server->bindToPort(0, "127.0.0.1", &err)) << err.description();
        ASSERT_TRUE(server->beginReceiving(&err));
        port = server->localPort();
    }

    // Sends `count` datagrams of `size` bytes without running the main loop, in chunks that fit
    // the kernel's receive buffer, each read by the endpoint before the next goes.
    void floodWhileHeld(uint32_t count, size_t size) {
        const uint64_t before = server->receiveQueueStats().received;
        const uint32_t chunk =
            std::clamp<uint32_t>(static_cast<uint32_t>((96 * 1024) / (size + 1024)), 1, 48);
        for (uint32_t sent = 0; sent < count;) {
            for (uint32_t k = 0; k < chunk && sent < count; ++k, ++sent)
                ASSERT_TRUE(peer.sendTo(port, datagram(nextSeq++, size)));
            ASSERT_TRUE(endpointHasRead(*server, before + sent));
            const auto st = server->receiveQueueStats();
            ASSERT_LE(st.waiting, Endpoint::kMaxWaitingDatagrams);
            ASSERT_LE(st.waitingBytes, Endpoint::kMaxWaitingBytes);
        }
    }

    // One flood of `count` datagrams, of which `kept` fit the bounds.
    void floodAndRecover(uint32_t count, size_t size, uint32_t kept) {
        env.log.clear();
        counter->seqs.clear();
        const uint32_t firstSeq = nextSeq;
        const auto before = server->receiveQueueStats();
        const size_t heapBefore = heapInUse();

        floodWhileHeld(count, size);
        const auto held = server->receiveQueueStats();
        const size_t heapHeld = heapInUse();
        EXPECT_EQ(held.waiting, kept);
        EXPECT_EQ(held.dropped - before.dropped, count - kept);
        EXPECT_LE(held.peakWaiting, Endpoint::kMaxWaitingDatagrams);
        EXPECT_LE(held.peakWaitingBytes, Endpoint::kMaxWaitingBytes);
        // Documented bound: the payload bound plus 1 MiB for per-datagram bookkeeping.
        if (ORV_HEAP_MEASURABLE) {
            EXPECT_LT(heapHeld, heapBefore + Endpoint::kMaxWaitingBytes + (1u << 20));
        }
        EXPECT_TRUE(counter->seqs.empty());
        EXPECT_EQ(env.log.count(), 0u);  // the loop has not run: nothing reported yet

        // The loop runs again: the earliest datagrams arrive in order, the drop is told once.
        ASSERT_TRUE(env.waitFor([&] { return counter->seqs.size() == kept; }));
        env.loop->runUntilIdle();
        for (uint32_t i = 0; i < kept; ++i) ASSERT_EQ(counter->seqs[i], firstSeq + i);
        EXPECT_EQ(env.log.countContaining("Dropped"), 1u);
        EXPECT_EQ(env.log.countContaining("(warning) WARNING: Dropped " +
                                          std::to_string(count - kept) +
                                          " received UDP datagrams (" +
                                          std::to_string(size_t(count - kept) * size) + " bytes)"),
                  1u);
        const auto drained = server->receiveQueueStats();
        EXPECT_EQ(drained.waiting, 0u);
        EXPECT_EQ(drained.waitingBytes, 0u);
        if (ORV_HEAP_MEASURABLE) {
            EXPECT_LT(heapInUse(), heapBefore + (256u << 10));
        }

        // Delivery goes on, and nothing more is reported.
        for (int i = 0; i < 3; ++i) ASSERT_TRUE(peer.sendTo(port, datagram(nextSeq++, size)));
        ASSERT_TRUE(env.waitFor([&] { return counter->seqs.size() == kept + 3; }));
        EXPECT_EQ(counter->seqs.back(), nextSeq - 1);
        EXPECT_EQ(env.log.countContaining("Dropped"), 1u);
    }

    CommEnvironment env;
    RawPeer peer;
    std::shared_ptr<Counter> counter = std::make_shared<Counter>();
    std::shared_ptr<GCDAsyncUdpSocket> server;
    uint16_t port = 0;
    uint32_t nextSeq = 0;
};

TEST_F(UdpReceiveFloodTest, WhatWaitsForAHeldMainLoopIsBoundedAndTheDropIsReportedOnce) {
    // Many small datagrams meet the count bound.
    floodAndRecover(1000, 64, Endpoint::kMaxWaitingDatagrams);
    // Fewer large ones meet the byte bound first.
    constexpr size_t kLarge = 60000;
    floodAndRecover(150, kLarge, static_cast<uint32_t>(Endpoint::kMaxWaitingBytes / kLarge));
}

// A flood that goes on must not hold the main loop: one turn hands over what waited when it
// began, and whatever the loop was given meanwhile runs before the datagrams that came after.
TEST_F(UdpReceiveFloodTest, ADeliveryTurnHandsOverOnlyWhatWaitedWhenItBegan) {
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(peer.sendTo(port, datagram(nextSeq++, 64)));
    ASSERT_TRUE(endpointHasRead(*server, 3));
    std::vector<std::string> order;
    counter->onReceive = [&](uint32_t seq) {
        order.push_back("datagram " + std::to_string(seq));
        if (seq != 0) return;
        for (int i = 0; i < 3; ++i) ASSERT_TRUE(peer.sendTo(port, datagram(nextSeq++, 64)));
        ASSERT_TRUE(endpointHasRead(*server, 6));
        env.loop->post([&] { order.push_back("task"); });
    };
    ASSERT_TRUE(env.waitFor([&] { return order.size() == 7; }));
    EXPECT_EQ(order, (std::vector<std::string>{"datagram 0", "datagram 1", "datagram 2", "task",
                                               "datagram 3", "datagram 4", "datagram 5"}));
}

}  // namespace
}  // namespace orv
