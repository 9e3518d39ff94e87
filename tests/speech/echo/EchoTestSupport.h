#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/sim/SimDesktop.h"
#include "speech/ORVAXEchoController.h"
#include "speech/ORVAXFocusEchoController.h"

namespace orv::test {

// A simulated desktop with one window of controls, and the echo side's class-level state fresh
// before and after each test. Frames are top-left origin on the 1440x900 main display.
class EchoTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ORVAXEchoController::resetForTesting();
        ORVAXFocusEchoController::resetForTesting();
        app = &desk->addApplication(100, "com.example.editor", "Editor");
        ASSERT_TRUE(app->load(R"(
AXWindow/AXStandardWindow "Doc" [0 22 800 600] #win
  AXButton "Save" [20 40 80 20] #save
  AXButton "Cancel" [120 40 80 20] #cancel
  AXCheckBox "Bold" [20 80 80 20] #bold AXValue=0
  AXGroup [400 40 300 300] #group
    AXButton "OK" [420 60 60 20] #okA
    AXButton "OK" [500 60 60 20] #okB)")
                        .ok());
        desk->install();
    }
    void TearDown() override {
        ORVAXEchoController::resetForTesting();
        ORVAXFocusEchoController::resetForTesting();
        desk->uninstall();
    }

    ORVAXElementRef wrap(const char* label) {
        return ORVAXElement::newForElement(desk->ref(app->find(label)));
    }
    std::vector<std::string> spoken() const { return desk->speech().spokenTexts(); }
    const std::vector<sim::SimSpeechEngine::Utterance>& utterances() const {
        return desk->speech().utterances();
    }

    static void speakEverything() {
        ORVAXEchoController::setSpeechEnabled(true);
        ORVAXEchoController::setMagnificationEnabled(true);
        ORVAXEchoController::enableFocusEcho(true);
    }
    static ORVAXSpeechDirectiveRef directive(int64_t source, std::optional<std::string> simplified,
                                             std::optional<std::string> detailed,
                                             std::optional<std::string> extra = std::nullopt) {
        auto d = ORVAXSpeechDirective::make();
        d->source = source;
        d->simplifiedDescription = std::move(simplified);
        d->detailedDescription = std::move(detailed);
        d->extraInfo = std::move(extra);
        return d;
    }

    std::shared_ptr<sim::SimDesktop> desk = sim::SimDesktop::create();
    sim::SimApp* app = nullptr;
};

}  // namespace orv::test
