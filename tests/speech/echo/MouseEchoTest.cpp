#include <gtest/gtest.h>

#include "speech/ORVAXMouseEchoController.h"
#include "speech/echo/EchoTestSupport.h"

namespace orv::test {
namespace {

// Records what the monitor reports, and where in virtual time.
struct Recorder : ORVAXMouseEchoControllerDelegate {
    explicit Recorder(sim::SimDesktop& d) : desk(d) {}
    void mouseEchoControllerIdentifiedAnItemOfInterest(ORVAXMouseEchoController&,
                                                       const AXUIElementRef& element) override {
        EXPECT_TRUE(desk.loop().isMainThread());
        auto node = desk.node(element);
        labels.push_back(node ? node->label() : "?");
        times.push_back(desk.now());
    }
    sim::SimDesktop& desk;
    std::vector<std::string> labels;
    std::vector<double> times;
};

class MouseEchoTest : public EchoTest {
  protected:
    void SetUp() override {
        EchoTest::SetUp();
        monitor->setDelegate(recorder);
        pointAt("save");
    }
    void TearDown() override {
        monitor.reset();  // joins its threads while the desktop is still installed
        EchoTest::TearDown();
    }
    void pointAt(const char* label) {
        const Rect f = *app->find(label)->frame();
        desk->displays().setMouseLocationTopLeft(
            Point{f.origin.x + f.size.width / 2, f.origin.y + f.size.height / 2});
    }

    std::shared_ptr<ORVAXMouseEchoController> monitor = ORVAXMouseEchoController::create();
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>(*desk);
};

TEST_F(MouseEchoTest, ReportsTheFirstPollAndThenOnlyMoves) {
    monitor->enable();
    desk->runUntilIdle();
    EXPECT_EQ(recorder->labels, (std::vector<std::string>{"save"}));  // never moved, still said
    desk->advance(3);
    EXPECT_EQ(recorder->labels.size(), 1u);

    pointAt("cancel");
    desk->advance(0.25);
    EXPECT_EQ(recorder->labels, (std::vector<std::string>{"save", "cancel"}));
    EXPECT_DOUBLE_EQ(recorder->times.back(), 3.25);  // the poll's own time: 13 sleeps of 0.25 s

    // A move onto nothing reports nothing, and the next move is reported again.
    desk->displays().setMouseLocationTopLeft(Point{1200, 800});
    desk->advance(0.25);
    pointAt("bold");
    desk->advance(0.25);
    EXPECT_EQ(recorder->labels, (std::vector<std::string>{"save", "cancel", "bold"}));
}

TEST_F(MouseEchoTest, EnablingTwiceStartsOneThread) {
    monitor->enable();
    monitor->enable();
    desk->runUntilIdle();
    pointAt("cancel");
    desk->advance(1);
    // A second thread would have its own first poll and its own sight of the move.
    EXPECT_EQ(recorder->labels, (std::vector<std::string>{"save", "cancel"}));
}

TEST_F(MouseEchoTest, DisableStopsPollingAndEnableStartsAfresh) {
    monitor->enable();
    desk->runUntilIdle();
    monitor->disable();
    EXPECT_FALSE(monitor->isEnabled());
    pointAt("cancel");
    desk->advance(2);
    EXPECT_EQ(recorder->labels.size(), 1u);

    monitor->enable();
    desk->runUntilIdle();
    EXPECT_EQ(recorder->labels, (std::vector<std::string>{"save", "cancel"}));

    // Off and on again before the old thread has even run: the new one alone reports.
    monitor->disable();
    monitor->enable();
    desk->runUntilIdle();
    EXPECT_EQ(recorder->labels, (std::vector<std::string>{"save", "cancel", "cancel"}));
    desk->advance(2);
    EXPECT_EQ(recorder->labels.size(), 3u);
}

}  // namespace
}  // namespace orv::test
