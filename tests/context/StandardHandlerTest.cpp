#include <gtest/gtest.h>

#include "accessibility/element/ORVAXElement.h"
#include "context/OrvContextController.h"
#include "context/OrvContextHandler.h"
#include "speech/ORVAXFocusEchoController.h"
#include "support/AgentHarness.h"

namespace orv {
namespace {

using test::area;
using test::FocusDatagram;

struct EchoRecorder : ORVAXFocusEchoControllerDelegate {
    void focusEchoControllerIdentifiedAnItemOfInterest(const ORVAXElementRef& e) override {
        echoed.push_back(e);
    }
    std::vector<ORVAXElementRef> echoed;
};

class StandardHandler : public ::testing::Test {
  protected:
    void SetUp() override {
        auto& app = h.desk->addApplication(100, "com.example.app", "App");
        ASSERT_TRUE(app.load(R"(
AXWindow "Doc" [0 22 800 600] #win
  AXList [20 60 200 300] #list
    AXStaticText "One" [20 60 200 20] #one
    AXStaticText "Two" [20 80 200 20] #two
  AXTable [300 60 300 300] #table
    AXRow [300 60 300 20] #row
      AXList [300 60 100 20] #inner
        AXStaticText "Cell" [300 60 100 20] #cell
)")
                        .ok());
        echo = std::make_shared<EchoRecorder>();
        ORVAXFocusEchoController::setDelegate(echo);
        ORVAXFocusEchoController::enable();
        h.connectLink();
    }
    ORVAXElementRef wrap(const char* label) {
        return ORVAXElement::newForElement(h.desk->ref(h.desk->application(100)->find(label)));
    }

    test::AgentHarness h;
    std::shared_ptr<EchoRecorder> echo;
};

TEST_F(StandardHandler, SendsAChangedAreaOnceAndEchoesANewElementObjectOnce) {
    auto controller = OrvContextController::create();
    auto one = wrap("one");
    auto r = ORVOrientedRect::initWithRect(Rect(1, 2, 3, 4), 0, 0, 2);
    controller->setElementOfInterest(one, r);
    controller->setElementOfInterest(one, ORVOrientedRect::initWithRect(Rect(1, 2, 3, 4), 0, 0, 2));
    h.settle();
    EXPECT_EQ(h.takeFocusAreas(), std::vector<FocusDatagram>{area(1, 2, 3, 4, 0, 0, 2)});
    ASSERT_EQ(echo->echoed.size(), 1u);
    EXPECT_EQ(echo->echoed[0], one);

    // Same rectangle but another source is a new area; nil after an area is sent as zero.
    controller->setElementOfInterest(one, ORVOrientedRect::initWithRect(Rect(1, 2, 3, 4), 0, 0, 8));
    controller->setElementOfInterest(nullptr, nullptr);
    controller->setElementOfInterest(nullptr, nullptr);
    h.settle();
    EXPECT_EQ(h.takeFocusAreas(),
              (std::vector<FocusDatagram>{area(1, 2, 3, 4, 0, 0, 8), area(0, 0, 0, 0, 0, 0, 0)}));

    // Echo compares identity: an equal but new wrapper is echoed again.
    controller->setElementOfInterest(wrap("one"), nullptr);
    EXPECT_EQ(echo->echoed.size(), 2u);
}

TEST_F(StandardHandler, EchoesTheSingleSelectedEntryOfListsAndTablesRecursively) {
    auto handler = OrvContextHandler::create();
    auto list = h.desk->application(100)->find("list");
    list->set("AXSelectedChildren",
              std::vector<sim::SimNodePtr>{h.desk->application(100)->find("two")});
    EXPECT_TRUE(handler->updateFocusedElementStartingOn(wrap("list"))->isEqual(wrap("two")));

    list->set("AXSelectedChildren",
              std::vector<sim::SimNodePtr>{h.desk->application(100)->find("one"),
                                           h.desk->application(100)->find("two")});
    EXPECT_TRUE(handler->updateFocusedElementStartingOn(wrap("list"))->isEqual(wrap("list")));

    // A selected row that holds a list with one selected entry descends to that entry.
    auto app = h.desk->application(100);
    app->find("table")->set("AXSelectedRows", std::vector<sim::SimNodePtr>{app->find("row")});
    EXPECT_TRUE(handler->updateFocusedElementStartingOn(wrap("table"))->isEqual(wrap("row")));
    app->find("row")->set("AXRole", "AXList");
    app->find("row")->set("AXSelectedChildren", std::vector<sim::SimNodePtr>{app->find("cell")});
    EXPECT_TRUE(handler->updateFocusedElementStartingOn(wrap("table"))->isEqual(wrap("cell")));
}

TEST_F(StandardHandler, TheEchoGateAndTheCompletionHandler) {
    auto handler = OrvContextHandler::create();
    ORVAXFocusEchoController::shutdown();
    handler->updateFocusedElement(wrap("one"));
    EXPECT_TRUE(echo->echoed.empty());

    ORVAXFocusEchoController::enable();
    struct Counting : OrvContextHandler {
        void focusEchoDidFinishSpeaking() override { ++finished; }
        int finished = 0;
    };
    auto counting = std::make_shared<Counting>();
    counting->updateFocusedElement(wrap("two"));
    ASSERT_EQ(echo->echoed.size(), 1u);
    auto completion = ORVAXFocusEchoController::completionHandler();
    ASSERT_TRUE(completion);
    completion();
    EXPECT_EQ(counting->finished, 1);
}

TEST_F(StandardHandler, ObservedChangesAreIgnoredWithoutContextHandlers) {
    auto controller = OrvContextController::create();
    auto before = controller->contextHandler();
    h.log.clear();
    controller->observeValueForKeyPath("activeWindow", nullptr, std::any(wrap("win")));
    controller->observeValueForKeyPath("processSwitcherList", nullptr, std::any(wrap("list")));
    EXPECT_EQ(controller->contextHandler(), before);
    EXPECT_TRUE(h.log.lines().empty());
    EXPECT_FALSE(controller->contextHandlersEnabled());
}

}  // namespace
}  // namespace orv
