#include <gtest/gtest.h>

#include <thread>

#include "Common/MFThreadSafeSet.h"
#include "Common/ORVMulticastBlock.h"
#include "platform/Platform.h"
#include "platform/VirtualMainLoop.h"
#include "support/LogCapture.h"

namespace orv {
namespace {

TEST(MulticastBlock, RunsInOrderAndRemovesByHandle) {
    ORVMulticastBlock<int> mb;
    std::string calls;
    auto a = mb.add([&](int v) { calls += "A" + std::to_string(v); });
    auto b = mb.add([&](int v) { calls += "B" + std::to_string(v); });
    auto c = mb.add([&](int v) { calls += "C" + std::to_string(v); });
    mb.performBlocksWith(1);
    EXPECT_EQ(calls, "A1B1C1");

    calls.clear();
    mb.remove(b);
    mb.remove(b);  // a handle no longer in the list changes nothing
    ORVMulticastBlock<int> other;
    mb.remove(other.add([](int) {}));
    mb.performBlocksWith(2);
    EXPECT_EQ(calls, "A2C2");
    EXPECT_EQ(mb.count(), 2u);
    (void)a;
    (void)c;
}

TEST(MulticastBlock, RemovalDuringPerformStopsTheRemovedBlockAndAThrowEndsTheCall) {
    ORVMulticastBlock<int> mb;
    std::string calls;
    ORVMulticastBlock<int>::Token second;
    mb.add([&](int) {
        calls += "1";
        mb.remove(second);
    });
    second = mb.add([&](int) { calls += "2"; });
    mb.add([&](int) { throw std::runtime_error("boom"); });
    mb.add([&](int) { calls += "4"; });
    EXPECT_THROW(mb.performBlocksWith(0), std::runtime_error);
    EXPECT_EQ(calls, "1");
}

class ThreadSafeSetTest : public ::testing::Test {
  protected:
    void SetUp() override {
        auto p = std::make_shared<Platform>();
        p->loop = loop;
        installPlatform(p);
    }
    void TearDown() override { installPlatform(nullptr); }
    std::shared_ptr<VirtualMainLoop> loop = std::make_shared<VirtualMainLoop>();
};

TEST_F(ThreadSafeSetTest, BusyWritersRetryOnTheMainLoop) {
    test::LogCapture cap(1);
    auto set = MFThreadSafeSet<int>::create();
    set->addObject(1);

    std::unique_lock held(set->accessLock());
    std::thread writer([&] {
        set->addObject(2);  // must return at once although the lock is held
        set->removeObject(1);
    });
    writer.join();
    held.unlock();

    EXPECT_TRUE(set->containsObject(1));
    EXPECT_FALSE(set->containsObject(2));
    loop->runUntilIdle();
    EXPECT_TRUE(set->containsObject(2));
    EXPECT_FALSE(set->containsObject(1));
    // The warnings go to the plain log whatever the verbosity.
    EXPECT_EQ(cap.countContaining("WARNING: containsObject: method called in MFThreadSafeSet"), 4u);
}

TEST_F(ThreadSafeSetTest, PerformActionVisitsEveryMatchAndLogs) {
    test::LogCapture cap(1);
    auto set = MFThreadSafeSet<int>::create();
    for (int i = 1; i <= 6; ++i) set->addObject(i);
    std::vector<int> seen;
    set->performAction([&](const int& v, const std::shared_ptr<void>&) { seen.push_back(v); },
                       [](const int& v) { return v % 2 == 0; }, nullptr);
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (std::vector<int>{2, 4, 6}));
    EXPECT_EQ(cap.countContaining("performAction onObjectMatchedUsingComparator... _set:"), 1u);
    auto all = set->allObjects();
    EXPECT_EQ(all.size(), 6u);
    EXPECT_EQ(cap.countContaining("WARNING: allObjects method calld in MFThreadSafeSet"), 1u);
    set->removeAllObjects();
    EXPECT_TRUE(set->allObjects().empty());
}

}  // namespace
}  // namespace orv
