#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "platform/VirtualMainLoop.h"
#include "platform/glib/GLibMainLoop.h"

namespace orv {
namespace {

TEST(VirtualMainLoop, TimersFireInVirtualTimeOrder) {
    VirtualMainLoop loop;
    int ticks = 0;
    int timeouts = 0;
    auto poll = loop.scheduleTimer(0.5, true, [&](Timer&) { ++ticks; });
    loop.scheduleTimer(8.0, false, [&](Timer&) { ++timeouts; });
    loop.advance(10.0);
    EXPECT_EQ(ticks, 20);
    EXPECT_EQ(timeouts, 1);
    EXPECT_DOUBLE_EQ(loop.now(), 10.0);

    poll->invalidate();
    loop.advance(10.0);
    EXPECT_EQ(ticks, 20);
}

TEST(VirtualMainLoop, TasksRunAtTheirTimeInOrderOfQueueing) {
    VirtualMainLoop loop;
    std::vector<std::string> order;
    std::vector<double> when;
    loop.postAfter(1.0, [&] {
        order.push_back("b");
        when.push_back(loop.now());
    });
    loop.post([&] { order.push_back("a"); });
    loop.postAfter(1.0, [&] { order.push_back("c"); });
    loop.scheduleTimer(0.25, false, [&](Timer&) {
        order.push_back("t");
        loop.post([&] { order.push_back("t-post"); });  // queued for the same virtual instant
    });
    EXPECT_EQ(loop.runUntilIdle(), 1u);
    loop.advance(2.0);
    EXPECT_EQ(order, (std::vector<std::string>{"a", "t", "t-post", "b", "c"}));
    EXPECT_DOUBLE_EQ(when.at(0), 1.0);
}

TEST(VirtualMainLoop, ATimerKeepsItsTargetAliveUntilItFiresOrIsInvalidated) {
    VirtualMainLoop loop;
    auto target = std::make_shared<int>(7);
    std::weak_ptr<int> watch = target;
    loop.scheduleTimer(1.0, false, [target](Timer&) {});
    auto repeating = loop.scheduleTimer(1.0, true, [t = std::shared_ptr<int>(target)](Timer&) {});
    target.reset();
    EXPECT_FALSE(watch.expired());
    loop.advance(1.5);
    EXPECT_FALSE(watch.expired());  // the repeating one still holds it
    repeating->invalidate();
    EXPECT_TRUE(watch.expired());
}

TEST(VirtualMainLoop, UserInfoAndInvalidationFromInsideTheAction) {
    VirtualMainLoop loop;
    int fired = 0;
    loop.scheduleTimer(
        0.1, true,
        [&](Timer& t) {
            EXPECT_EQ(std::any_cast<int>(t.userInfo()), 41);
            if (++fired == 3) t.invalidate();
        },
        41);
    loop.advance(5);
    EXPECT_EQ(fired, 3);
}

TEST(VirtualMainLoop, PostsFromOtherThreadsAndPostAndWait) {
    VirtualMainLoop loop;
    int value = 0;
    std::thread worker([&] {
        loop.post([&] { value += 1; });
        EXPECT_TRUE(loop.postAndWait([&] { value += 10; }, 5.0));
    });
    EXPECT_TRUE(loop.runUntil([&] { return value == 11; }, 5.0));
    worker.join();
    EXPECT_EQ(loop.now(), 0.0);            // real waiting never moves virtual time
    loop.postAndWait([&] { value = 0; });  // on the main thread it runs at once
    EXPECT_EQ(value, 0);
}

TEST(VirtualMainLoop, RunPlaysToQuit) {
    VirtualMainLoop loop;
    int ticks = 0;
    loop.scheduleTimer(0.1, true, [&](Timer&) { ++ticks; });
    loop.postAfter(3.0, [&] { loop.quit(); });
    loop.run();
    EXPECT_EQ(ticks, 30);
    EXPECT_DOUBLE_EQ(loop.now(), 3.0);
}

TEST(VirtualMainLoop, WatchesDescriptors) {
    VirtualMainLoop loop;
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    int reads = 0;
    auto id = loop.watchFd(fds[0], kFdReadable, [&](int fd, short ev) {
        EXPECT_TRUE(ev & kFdReadable);
        char c;
        EXPECT_EQ(::read(fd, &c, 1), 1);
        ++reads;
    });
    ASSERT_EQ(::write(fds[1], "x", 1), 1);
    EXPECT_TRUE(loop.runUntil([&] { return reads == 1; }, 5.0));
    loop.unwatchFd(id);
    ASSERT_EQ(::write(fds[1], "y", 1), 1);
    loop.runUntilIdle();
    EXPECT_EQ(reads, 1);
    ::close(fds[0]);
    ::close(fds[1]);
}

TEST(GLibMainLoop, TimersTasksAndCrossThreadPosts) {
    GLibMainLoop loop;
    int ticks = 0;
    bool posted = false;
    auto target = std::make_shared<int>(1);
    std::weak_ptr<int> watch = target;
    auto timer = loop.scheduleTimer(0.001, true, [&, t = target](Timer& self) {
        if (++ticks == 3) self.invalidate();
    });
    target.reset();
    std::thread worker([&] { loop.postAndWait([&] { posted = true; }); });
    loop.postAfter(0.05, [&] { loop.quit(); });
    loop.run();
    worker.join();
    EXPECT_EQ(ticks, 3);
    EXPECT_TRUE(posted);
    EXPECT_TRUE(watch.expired());
    EXPECT_GT(loop.now(), 0.0);
}

// All timers share one GLib source; what matters is that they keep their deadlines' order, and
// that a cancelled one lets go of its target at once and never fires.
TEST(GLibMainLoop, TimerQueueKeepsOrderAndCancelsAtOnce) {
    GLibMainLoop loop;
    std::vector<std::string> fired;
    loop.postAfter(0.08, [&] { fired.push_back("late task"); });
    auto early = loop.scheduleTimer(0.01, false, [&](Timer&) { fired.push_back("early timer"); });
    loop.postAfter(0.01, [&] { fired.push_back("early task"); });
    auto target = std::make_shared<int>(1);
    std::weak_ptr<int> watch = target;
    auto cancelled =
        loop.scheduleTimer(0.005, false, [&, t = target](Timer&) { fired.push_back("cancelled"); });
    target.reset();
    cancelled->invalidate();
    EXPECT_TRUE(watch.expired());
    int ticks = 0;
    loop.scheduleTimer(0.002, true, [&](Timer& self) {
        if (++ticks == 3) {
            self.invalidate();
            // Scheduled from inside a dispatch, due at once: it runs on a later turn.
            loop.scheduleTimer(0, false, [&](Timer&) { fired.push_back("nested"); });
        }
    });
    std::thread worker([&] { loop.postAfter(0.02, [&] { fired.push_back("from worker"); }); });
    worker.join();
    loop.postAfter(0.1, [&] { loop.quit(); });
    loop.run();
    EXPECT_EQ(ticks, 3);
    EXPECT_FALSE(early->isValid());
    // When the nested one runs depends on how soon the loop got going; it runs once.
    EXPECT_EQ(std::count(fired.begin(), fired.end(), "nested"), 1);
    fired.erase(std::remove(fired.begin(), fired.end(), "nested"), fired.end());
    const std::vector<std::string> expected = {"early timer", "early task", "from worker",
                                               "late task"};
    EXPECT_EQ(fired, expected);
}

// A worker that sleeps on the loop's clock is woken exactly at its times, and the loop does not
// go on (neither past the next wake nor out of runUntilIdle) until the worker sleeps again, even
// when each wake makes it wait for the main thread.
TEST(VirtualMainLoop, ASleepingWorkerKeepsStepWithTheClock) {
    VirtualMainLoop loop;
    std::vector<std::string> order;
    std::vector<double> wakes;
    std::atomic<bool> ended{false};
    auto sleeper = loop.makeSleeper();
    std::thread worker([&] {
        do {
            loop.postAndWait([&] {
                wakes.push_back(loop.now());
                order.push_back("worker");
            });
        } while (sleeper->sleep(0.25));
        ended = true;
        sleeper->finish();
    });
    loop.runUntilIdle();
    EXPECT_EQ(wakes, (std::vector<double>{0.0}));  // the first pass ran before runUntilIdle ended
    EXPECT_DOUBLE_EQ(loop.nextDueTime(), 0.25);
    loop.scheduleTimer(0.6, false, [&](Timer&) { order.push_back("timer"); });
    loop.advance(1.0);
    EXPECT_EQ(wakes, (std::vector<double>{0.0, 0.25, 0.5, 0.75, 1.0}));
    EXPECT_EQ(order, (std::vector<std::string>{"worker", "worker", "worker", "timer", "worker",
                                               "worker"}));
    EXPECT_DOUBLE_EQ(loop.now(), 1.0);

    // Cancelling wakes it at once without moving the clock, and the loop waits for its end.
    sleeper->cancel();
    loop.runUntilIdle();
    EXPECT_TRUE(ended.load());
    EXPECT_DOUBLE_EQ(loop.now(), 1.0);
    EXPECT_LT(loop.nextDueTime(), 0.0);
    worker.join();
    EXPECT_EQ(wakes.size(), 5u);
}

// On a real loop a sleep is a wait of real time that cancel cuts short (whether the cancel comes
// before or during it).
TEST(GLibMainLoop, CancelWakesASleepingWorkerAtOnce) {
    GLibMainLoop loop;
    auto sleeper = loop.makeSleeper();
    std::promise<void> asleep;
    std::promise<bool> slept;
    std::thread worker([&] {
        asleep.set_value();
        slept.set_value(sleeper->sleep(3600));
        sleeper->finish();
    });
    asleep.get_future().wait();
    sleeper->cancel();
    auto result = slept.get_future();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_FALSE(result.get());
    worker.join();
}

}  // namespace
}  // namespace orv
