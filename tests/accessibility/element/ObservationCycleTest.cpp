// Many create-observe-notify-unobserve-destroy cycles must leave nothing behind: run under
// AddressSanitizer (build with -DORV_SANITIZE=ON), whose leak check at exit covers what the
// assertions here cannot see.

#include <gtest/gtest.h>

#include "accessibility/element/ORVAXElement.h"
#include "platform/sim/SimDesktop.h"

using namespace orv;
using namespace orv::sim;

TEST(ObservationCycleTest, HundredThousandCyclesLeaveNothingBehind) {
    auto desk = SimDesktop::create();
    auto& app = desk->addApplication(100, "com.example.editor", "Editor");
    ASSERT_TRUE(app.load("AXWindow \"Doc\" [0 22 800 600] #win\n  AXButton \"OK\" #ok").ok());
    desk->install();
    const auto ok = app.find("ok");

    // Cycles run in batches that share a turn of the main loop, so the loop's own per-turn cost
    // does not dominate; every cycle still has its own wrapper, observer, delivery and event.
    constexpr int kCycles = 100000;
    constexpr int kBatch = 50;
    size_t delivered = 0;
    std::vector<std::weak_ptr<const void>> released;
    for (int cycle = 0; cycle < kCycles; cycle += kBatch) {
        std::vector<std::pair<ORVAXElementRef, ORVAXSubscription>> batch;
        for (int i = 0; i < kBatch; ++i) {
            auto wrapper = ORVAXElement::newForElement(desk->ref(ok));
            auto token = wrapper->observe("AXTitleChanged", [&](const ORVAXEventRef& e) {
                ++delivered;
                released.push_back(e);
                released.push_back(e->data());
            });
            batch.emplace_back(std::move(wrapper), std::move(token));
        }
        desk->post(ok, "AXTitleChanged");
        desk->runUntilIdle();
        for (auto& [wrapper, token] : batch) {
            wrapper->unobserve("AXTitleChanged", token);
            released.push_back(wrapper);
            released.push_back(token);
        }
        batch.clear();
        for (auto& w : released) ASSERT_TRUE(w.expired()) << "cycle " << cycle;
        released.clear();
        ASSERT_EQ(desk->observerCount(), 0u) << "cycle " << cycle;
        desk->clearPostedNotifications();  // the desktop's own record, not ours
    }
    EXPECT_EQ(delivered, static_cast<size_t>(kCycles));
    EXPECT_EQ(desk->registrationCount(), 0u);
    EXPECT_EQ(desk->virtualLoop()->pendingCount(), 0u);
    desk->uninstall();
}
