#include <gtest/gtest.h>

#include "speech/ORVAXEchoPlayer.h"
#include "speech/echo/EchoTestSupport.h"

namespace orv::test {
namespace {

using EchoPlayerTest = EchoTest;

ORVAXEchoDirectiveRef echoOf(std::vector<std::string> text, float initialDelay,
                             std::vector<double>* completions, const sim::SimDesktop& desk) {
    auto d = ORVAXEchoDirective::make();
    d->text = std::move(text);
    d->initialDelay = initialDelay;
    d->interTextDelay = 0.25f;
    d->voice = "sim.voice.bruno";
    d->voiceRate = 240;
    d->voiceVolume = 0.5f;
    d->sourceSpeechDirective = ORVAXSpeechDirective::make();
    d->sourceSpeechDirective->completionHandler = [completions, &desk] {
        completions->push_back(desk.now());
    };
    return d;
}

TEST_F(EchoPlayerTest, SegmentsFollowTheirPausesAndCompletionFollowsTheLastPause) {
    std::vector<double> completions;
    auto player = ORVAXEchoPlayer::playerForDirective(
        echoOf({"Save button", "Press Return to save"}, 0.1f, &completions, *desk));
    EXPECT_TRUE(utterances().empty());
    EXPECT_TRUE(player->isBusy());
    desk->advance(10);

    ASSERT_EQ(spoken(), (std::vector<std::string>{"Save button", "Press Return to save"}));
    const auto& u = utterances();
    EXPECT_NEAR(u[0].start, 0.1, 1e-6);
    EXPECT_TRUE(u[0].finished);
    EXPECT_NEAR(u[1].start, u[0].end + 0.25, 1e-6);
    ASSERT_EQ(completions.size(), 1u);
    EXPECT_NEAR(completions[0], u[1].end + 0.25, 1e-6);
    EXPECT_EQ(desk->speech().synthesizersCreated(), 1);
    EXPECT_EQ(u[1].voice, "sim.voice.bruno");
    EXPECT_FALSE(player->isBusy());
}

TEST_F(EchoPlayerTest, NoInitialDelaySpeaksAtOnceAndNoSegmentsDoNothing) {
    std::vector<double> completions;
    auto player = ORVAXEchoPlayer::playerForDirective(echoOf({"Now"}, 0, &completions, *desk));
    EXPECT_EQ(spoken(), (std::vector<std::string>{"Now"}));

    auto empty = ORVAXEchoPlayer::playerForDirective(echoOf({}, 0, &completions, *desk));
    desk->advance(5);
    EXPECT_EQ(desk->speech().synthesizersCreated(), 1);
    EXPECT_EQ(completions.size(), 1u);  // the first one's, not the empty one's
}

TEST_F(EchoPlayerTest, ACancelledEchoIsSilentForGoodAndNeverCompletes) {
    std::vector<double> completions;
    auto waiting = ORVAXEchoPlayer::playerForDirective(echoOf({"One"}, 0.1f, &completions, *desk));
    desk->advance(0.05);
    waiting->cancel();
    desk->advance(5);
    EXPECT_TRUE(utterances().empty());
    EXPECT_TRUE(waiting->isBusy());  // what was pending stays pending

    auto speaking =
        ORVAXEchoPlayer::playerForDirective(echoOf({"Two", "Three"}, 0.1f, &completions, *desk));
    desk->advance(0.15);
    ASSERT_EQ(spoken(), (std::vector<std::string>{"Two"}));
    const double cancelledAt = desk->now();
    speaking->cancel();
    desk->advance(5);
    EXPECT_EQ(spoken(), (std::vector<std::string>{"Two"}));
    EXPECT_FALSE(utterances()[0].finished);
    EXPECT_DOUBLE_EQ(utterances()[0].end, cancelledAt);
    EXPECT_EQ(speaking->playingSegment(), "Two");
    EXPECT_TRUE(completions.empty());
}

// An engine that cannot start a segment must not leave the echo hanging: the rest follows and
// the completion handler still runs.
TEST_F(EchoPlayerTest, ASegmentThatCannotStartStillEndsTheEcho) {
    std::vector<double> completions;
    desk->speech().setFailStart(true);
    auto player =
        ORVAXEchoPlayer::playerForDirective(echoOf({"A", "B"}, 0.1f, &completions, *desk));
    desk->advance(5);
    ASSERT_EQ(completions.size(), 1u);
    EXPECT_NEAR(completions[0], 0.1 + 0.25 + 0.25, 1e-6);
}

}  // namespace
}  // namespace orv::test
