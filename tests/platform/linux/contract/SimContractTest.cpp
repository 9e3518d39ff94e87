// The seam contract against the simulated desktop: it must answer as the AT-SPI backend does
// (tests/platform/linux/LinuxBackendTest.cpp runs the same checks on a real GTK window).

#include <gtest/gtest.h>

#include "platform/linux/contract/SeamContract.h"
#include "platform/sim/SimDesktop.h"

namespace orv::contract {
namespace {

class SimContract : public ::testing::Test, public ContractDesktop {
  protected:
    void SetUp() override {
        auto& app = desk_->addApplication(kPid, "orv-gtk-testapp", "orv-gtk-testapp");
        ASSERT_TRUE(app.load(R"(
AXWindow/AXStandardWindow "Ocuvane Test" [60 40 420 460] #win
  AXGroup [60 40 420 460]
    AXButton "First" [72 52 396 30] #first
    AXButton "Second" [72 88 396 30] #second
    AXTextField "Name field" [72 124 396 30]
    AXCheckBox "Check me" [72 160 396 24]
    AXList "Items" [72 190 396 80]
      AXStaticText [72 190 396 24] AXValue="Row 1")")
                        .ok());
        platform_ = desk_->platform();
        desk_->focus(app.find("first"));
        desk_->runUntilIdle();
    }

    Platform& platform() override { return *platform_; }
    pid_t appPid() override { return kPid; }
    void focus(const std::string& title) override {
        AccessibilityAPI& ax = *platform_->ax;
        AXUIElementRef e = findByTitle(ax, ax.createApplication(kPid), title);
        if (auto node = desk_->node(e)) desk_->focus(node);
    }
    void killApp() override { desk_->terminateApplication(kPid); }
    bool waitUntil(const std::function<bool()>& condition, double seconds) override {
        // Virtual time: run what is due, step the clock, until the condition holds.
        for (double t = 0; t <= seconds; t += 0.01) {
            desk_->runUntilIdle();
            if (condition()) return true;
            desk_->advance(0.01);
        }
        return condition();
    }

    static constexpr pid_t kPid = 4242;
    std::shared_ptr<sim::SimDesktop> desk_ = sim::SimDesktop::create();
    std::shared_ptr<Platform> platform_;
};

TEST_F(SimContract, Roles) {
    checkRoles(*this);
}
TEST_F(SimContract, FocusAndParents) {
    checkFocusAndParents(*this);
}
TEST_F(SimContract, Bounds) {
    checkBounds(*this);
}
TEST_F(SimContract, FocusNotifications) {
    checkFocusNotifications(*this);
}
TEST_F(SimContract, GoneApplication) {
    checkGoneApplication(*this);
}

}  // namespace
}  // namespace orv::contract
