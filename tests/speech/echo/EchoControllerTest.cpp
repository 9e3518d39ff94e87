#include <gtest/gtest.h>

#include <algorithm>

#include "speech/echo/EchoTestSupport.h"
#include "support/LogCapture.h"

namespace orv::test {
namespace {

using Echo = ORVAXEchoController;
using Source = ORVAXSpeechDirective::Source;
using EchoControllerTest = EchoTest;

TEST_F(EchoControllerTest, SettingsKeepOnlyAcceptedValues) {
    Echo::setEchoRate(250);
    Echo::setEchoRate(179.9f);
    Echo::setEchoRate(400.1f);
    EXPECT_FLOAT_EQ(Echo::echoRate(), 250);
    Echo::setEchoRate(180);
    EXPECT_FLOAT_EQ(Echo::echoRate(), 180);
    Echo::setEchoRate(400);
    EXPECT_FLOAT_EQ(Echo::echoRate(), 400);

    Echo::setEchoVolume(0);
    Echo::setEchoVolume(1.01f);
    EXPECT_FLOAT_EQ(Echo::echoVolume(), 0);

    Echo::setEchoVoice("sim.voice.clara");
    Echo::setEchoVoice("no.such.voice");
    Echo::setEchoVoice(std::nullopt);
    EXPECT_EQ(Echo::echoVoice(), "sim.voice.clara");

    Echo::setMouseEchoCondition(3);
    EXPECT_EQ(Echo::mouseEchoCondition(), 16u);

    // What is spoken carries them.
    speakEverything();
    Echo::selfVoice("Hello");
    desk->advance(1);
    ASSERT_EQ(utterances().size(), 1u);
    EXPECT_EQ(utterances()[0].voice, "sim.voice.clara");
    EXPECT_FLOAT_EQ(utterances()[0].rate, 400);
    EXPECT_FLOAT_EQ(utterances()[0].volume, 0);
}

TEST_F(EchoControllerTest, NothingIsSaidUnlessSpeechAndMagnificationAreBothOn) {
    Echo::setSpeechEnabled(true);
    Echo::enableFocusEcho(true);
    Echo::selfVoice("Self");
    Echo::processSpeechDirective(directive(Source::kSourceFocus, "Save", "Save button"));
    desk->advance(5);
    EXPECT_TRUE(spoken().empty());

    // Switching either off silences what is under way at once.
    Echo::setMagnificationEnabled(true);
    Echo::selfVoice("A long sentence to be said");
    desk->advance(0.2);
    ASSERT_EQ(spoken().size(), 1u);
    Echo::setSpeechEnabled(false);
    EXPECT_EQ(Echo::currentPlayer(), nullptr);
    EXPECT_FALSE(utterances()[0].finished);
    EXPECT_DOUBLE_EQ(utterances()[0].end, desk->now());
}

TEST_F(EchoControllerTest, EachSourceChoosesItsTextAndDelay) {
    speakEverything();
    auto focus = directive(Source::kSourceFocus, "Save", "Save button", "Saves the file");
    int completions = 0;
    focus->completionHandler = [&] { ++completions; };
    Echo::processSpeechDirective(focus);
    desk->advance(10);
    ASSERT_EQ(spoken(), (std::vector<std::string>{"Save button", "Saves the file"}));
    EXPECT_NEAR(utterances()[0].start, 0.1, 1e-6);
    EXPECT_NEAR(utterances()[1].start, utterances()[0].end + 0.25, 1e-6);
    EXPECT_EQ(completions, 1);
    desk->speech().clear();

    // The Dock is always short; mouse echo is short except inside menus, and waits longer.
    Echo::processSpeechDirective(directive(Source::kSourceDock, "Mail", "Mail, dock item"));
    desk->advance(10);
    Echo::setMouseEchoCondition(4);  // so that enabling mouse echo starts no monitor
    Echo::enableMouseEcho(true);
    const double mouseAt = desk->now();
    Echo::processSpeechDirective(directive(Source::kSourceMouse, "Open", "Open, menu item"));
    desk->advance(10);
    auto inMenu = directive(Source::kSourceMouse, "Open", "Open, menu item");
    inMenu->associatedElementIsDescendantOfMenuItem = true;
    Echo::processSpeechDirective(inMenu);
    desk->advance(10);
    EXPECT_EQ(spoken(), (std::vector<std::string>{"Mail", "Open", "Open, menu item"}));
    EXPECT_NEAR(utterances()[1].start, mouseAt + 0.5, 1e-6);
}

TEST_F(EchoControllerTest, DisabledSourcesUnknownSourcesAndEmptyTextsAreDropped) {
    LogCapture log(2);
    Echo::setSpeechEnabled(true);
    Echo::setMagnificationEnabled(true);
    Echo::selfVoice("A long sentence that is still being said");
    desk->advance(0.2);
    Echo::processSpeechDirective(directive(Source::kSourceDock, "Mail", "Mail"));
    Echo::processSpeechDirective(directive(Source::kSourceMouse, "Open", "Open"));
    Echo::processSpeechDirective(directive(7, "Odd", "Odd"));
    EXPECT_EQ(
        log.countContaining("Received request to process speech directive from unknown source: 7"),
        1u);
    Echo::enableFocusEcho(true);
    Echo::processSpeechDirective(directive(Source::kSourceFocus, "Save", ""));
    desk->advance(10);
    // None of them interrupted the first text.
    ASSERT_EQ(utterances().size(), 1u);
    EXPECT_TRUE(utterances()[0].finished);
}

TEST_F(EchoControllerTest, SelfVoiceNeverCutsOffEchoButReplacesOlderSelfVoice) {
    speakEverything();
    Echo::processSpeechDirective(directive(Source::kSourceFocus, "Save", "Save button"));
    Echo::selfVoice("dropped while focus echo waits");
    desk->advance(0.2);
    Echo::selfVoice("dropped while focus echo speaks");
    desk->advance(10);
    EXPECT_EQ(spoken(), (std::vector<std::string>{"Save button"}));

    Echo::selfVoice("first text that is rather long");
    desk->advance(0.3);
    Echo::selfVoice("second");
    desk->advance(10);
    EXPECT_EQ(spoken(), (std::vector<std::string>{"Save button", "first text that is rather long",
                                                  "second"}));
    EXPECT_FALSE(utterances()[1].finished);

    // A cancelled echo still counts as busy until the next directive is played.
    Echo::processSpeechDirective(directive(Source::kSourceFocus, "Cancel", "Cancel button"));
    desk->advance(0.2);
    Echo::cancelPlayingDirective();
    Echo::selfVoice("dropped after cancel");
    desk->advance(10);
    EXPECT_EQ(spoken().back(), "Cancel button");
}

TEST_F(EchoControllerTest, TheStopKeyCancelsOncePerPress) {
    speakEverything();
    auto speakLong = [&] {
        Echo::selfVoice("a sentence long enough to be cut off");
        desk->advance(0.2);
    };
    auto lastCut = [&] { return !utterances().back().finished && utterances().back().end >= 0; };

    speakLong();
    Echo::modKeysUpdated(4);
    EXPECT_TRUE(lastCut());
    speakLong();
    Echo::modKeysUpdated(4);
    Echo::modKeysUpdated(4 | 1);  // still held, with another key
    EXPECT_FALSE(lastCut());
    Echo::modKeysUpdated(0);
    Echo::modKeysUpdated(4);
    EXPECT_TRUE(lastCut());
    EXPECT_EQ(Echo::keyModifiers(), 4);
}

TEST_F(EchoControllerTest, FocusEchoStyleSaysTheLastEchoAgain) {
    speakEverything();
    // Before any echo there is nothing to repeat.
    Echo::enableFocusEchoContext(false);
    desk->advance(5);
    EXPECT_TRUE(spoken().empty());
    EXPECT_TRUE(Echo::focusEchoSimplified());

    int completions = 0;
    auto focus = directive(Source::kSourceFocus, "Save", "Save button", "Saves the file");
    focus->completionHandler = [&] { ++completions; };
    Echo::processSpeechDirective(focus);
    desk->advance(30);  // long finished
    Echo::enableFocusEchoContext(true);
    desk->advance(10);
    EXPECT_EQ(spoken(), (std::vector<std::string>{"Save", "Save button", "Saves the file"}));
    EXPECT_EQ(completions, 2);

    // Also a self-voiced text: the last echo whatever its source.
    Echo::selfVoice("Hello");
    desk->advance(10);
    Echo::enableFocusEchoContext(false);
    desk->advance(10);
    const auto said = spoken();
    EXPECT_EQ(said.back(), "Hello");
    EXPECT_EQ(std::count(said.begin(), said.end(), "Hello"), 2);
}

// The monitor's key pairing is the magnifier's: condition 4 goes with bit 2.
TEST_F(EchoControllerTest, MouseEchoConditionsFollowTheirModifierKeys) {
    auto monitor = Echo::instance()->mouseEchoController();
    Echo::setMouseEchoCondition(4);
    Echo::enableMouseEcho(true);
    EXPECT_TRUE(Echo::mouseEchoEnabled());
    EXPECT_FALSE(monitor->isEnabled());
    Echo::modKeysUpdated(2);
    EXPECT_TRUE(monitor->isEnabled());
    Echo::modKeysUpdated(6);
    EXPECT_FALSE(monitor->isEnabled());
    Echo::modKeysUpdated(4);
    EXPECT_FALSE(monitor->isEnabled());

    Echo::setMouseEchoCondition(1);
    Echo::modKeysUpdated(1);
    EXPECT_TRUE(monitor->isEnabled());
    Echo::setMouseEchoCondition(8);  // a new held-key condition stops the monitor until pressed
    EXPECT_FALSE(monitor->isEnabled());
    Echo::modKeysUpdated(8);
    EXPECT_TRUE(monitor->isEnabled());

    Echo::setMouseEchoCondition(16);
    Echo::modKeysUpdated(0);  // always on: keys no longer matter
    EXPECT_TRUE(monitor->isEnabled());
    Echo::enableMouseEcho(false);
    EXPECT_FALSE(monitor->isEnabled());
    Echo::modKeysUpdated(8);
    EXPECT_FALSE(monitor->isEnabled());
    Echo::enableMouseEcho(true);
    EXPECT_TRUE(monitor->isEnabled());
    desk->runUntilIdle();
}

}  // namespace
}  // namespace orv::test
