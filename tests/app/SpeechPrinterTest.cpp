#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/LazySpeechEngine.h"
#include "app/SpeechPrinter.h"
#include "platform/sim/SimDesktop.h"

namespace orv {
namespace {

using sim::SimDesktop;

struct Printed {
    std::shared_ptr<SimDesktop> desk = SimDesktop::create();
    std::vector<std::string> lines;
    std::shared_ptr<SpeechEngine> engine = makePrintingSpeechEngine(
        std::shared_ptr<SpeechEngine>(desk, &desk->speech()),
        [d = desk.get()] { return d->loop().now(); },
        [this](const std::string& line) { lines.push_back(line); });
};

TEST(SpeechLines, EverySaidPieceGetsExactlyOneEndEvenWhenCutShort) {
    Printed p;
    auto synth = p.engine->createSynthesizer();
    std::vector<bool> heard;
    synth->setDidFinishSpeaking([&](bool f) { heard.push_back(f); });
    ASSERT_TRUE(synth->setVoice("sim.voice.bruno"));
    synth->setRate(200);
    synth->setVolume(0.5f);

    ASSERT_TRUE(synth->startSpeakingString("Save, \"button\"\n"));
    p.desk->advance(0.25);
    synth->stopSpeaking();
    // The next piece starts before the engine's late report of the stop arrives.
    ASSERT_TRUE(synth->startSpeakingString("OK"));
    p.desk->advance(5);

    ASSERT_EQ(p.lines.size(), 4u);
    EXPECT_EQ(p.lines[0],
              "{\"time\":0.000,\"say\":\"Save, \\\"button\\\"\\n\",\"voice\":\"sim.voice.bruno\","
              "\"rate\":200,\"volume\":0.5}\n");
    EXPECT_EQ(p.lines[1], "{\"time\":0.250,\"end\":\"stopped\"}\n");
    EXPECT_EQ(p.lines[2].rfind("{\"time\":0.250,\"say\":\"OK\"", 0), 0u) << p.lines[2];
    EXPECT_TRUE(p.lines[3].ends_with(",\"end\":\"finished\"}\n")) << p.lines[3];
    // The wrapped engine's reports still reach whoever listens.
    EXPECT_EQ(heard, (std::vector<bool>{false, true}));
}

TEST(SpeechLines, DefaultVoiceIsNullAndADroppedSynthesizerEndsItsPiece) {
    Printed p;
    auto synth = p.engine->createSynthesizer();
    EXPECT_FALSE(synth->setVoice("no.such.voice"));
    ASSERT_TRUE(synth->startSpeakingString("Welcome"));
    EXPECT_NE(p.lines.at(0).find("\"voice\":null"), std::string::npos) << p.lines[0];
    p.desk->advance(0.1);
    synth.reset();
    ASSERT_EQ(p.lines.size(), 2u);
    EXPECT_EQ(p.lines[1], "{\"time\":0.100,\"end\":\"stopped\"}\n");
    p.desk->advance(10);
    EXPECT_EQ(p.lines.size(), 2u);

    p.desk->speech().setFailStart(true);
    auto refused = p.engine->createSynthesizer();
    EXPECT_FALSE(refused->startSpeakingString("nothing"));
    EXPECT_EQ(p.lines.size(), 2u) << "a refused piece was never said";
}

TEST(SpeechLines, JsonStringsStayValidForAnyBytes) {
    EXPECT_EQ(jsonString("a\\b\t\x01"), "\"a\\\\b\\t\\u0001\"");
    EXPECT_EQ(jsonString("caf\xc3\xa9 \xe2\x80\x94"), "\"caf\xc3\xa9 \xe2\x80\x94\"");
    // Cut, overlong and surrogate sequences are not text.
    EXPECT_EQ(jsonString("x\xc3"), "\"x\\ufffd\"");
    EXPECT_EQ(jsonString("\xc0\xaf"), "\"\\ufffd\\ufffd\"");
    EXPECT_EQ(jsonString("\xed\xa0\x80"), "\"\\ufffd\\ufffd\\ufffd\"");
}

TEST(LazySpeech, TheEngineIsMadeAtFirstUseOnlyAndANullOneIsSilent) {
    auto desk = SimDesktop::create();
    int made = 0;
    auto lazy = makeLazySpeechEngine([&] {
        ++made;
        return std::shared_ptr<SpeechEngine>(desk, &desk->speech());
    });
    EXPECT_EQ(made, 0) << "an agent that never speaks must not reach the speech service";
    EXPECT_EQ(lazy->availableVoices().size(), 3u);
    ASSERT_TRUE(lazy->createSynthesizer()->startSpeakingString("hello"));
    EXPECT_EQ(made, 1);

    int tried = 0;
    auto none = makeLazySpeechEngine([&] {
        ++tried;
        return std::shared_ptr<SpeechEngine>();
    });
    EXPECT_FALSE(none->createSynthesizer()->startSpeakingString("hello"));
    EXPECT_TRUE(none->availableVoices().empty());
    EXPECT_EQ(tried, 1) << "a failed factory is not asked again at every utterance";
}

}  // namespace
}  // namespace orv
