// espeak-ng rendering into WAV files: real audio of plausible length per utterance, paced like a
// sound device, cut short by a stop. Needs espeak-ng's data, no sound device and no session.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "SpeechTestSupport.h"
#include "platform/linux/EspeakEngine.h"

namespace orv::linuxdesk {
namespace {

using speechtest::Ends;
using speechtest::turnUntil;
namespace fs = std::filesystem;

const std::string kShort = "Hello.";
const std::string kSentence =
    "The quick brown fox jumps over the lazy dog, and then it runs back into the forest.";

struct Wav {
    double seconds = 0;
    double rms = 0;
};

Wav readWav(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), {});
    if (bytes.size() < 44 || std::string(bytes.begin(), bytes.begin() + 4) != "RIFF") return {};
    auto le = [&](size_t at) {
        return bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 | uint32_t(bytes[at + 3]) << 24;
    };
    const uint32_t rate = le(24), data = le(40);
    EXPECT_EQ(data, bytes.size() - 44) << "the header must tell the samples written";
    double sum = 0;
    const size_t n = (bytes.size() - 44) / 2;
    for (size_t i = 0; i < n; ++i) {
        const auto s = static_cast<int16_t>(bytes[44 + 2 * i] | bytes[45 + 2 * i] << 8);
        sum += double(s) * s;
    }
    return {rate ? double(n) / rate : 0, n ? std::sqrt(sum / n) : 0};
}

class EspeakRender : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() / ("orv-espeak-" + std::to_string(getpid()));
        std::string why;
        engine_ = makeEspeakEngine(loop_, EspeakOptions{dir_.string()}, &why);
        ASSERT_TRUE(engine_) << why;
        synth_ = engine_->createSynthesizer();
        synth_->setDidFinishSpeaking(ends_.callback());
    }
    void TearDown() override {
        synth_.reset();
        engine_.reset();
        fs::remove_all(dir_);
    }

    // Speaks to the end; the utterance's file and how long the loop waited for it.
    std::pair<Wav, double> speakToEnd(const std::string& text) {
        const size_t before = ends_.seen.size();
        const double start = loop_->now();
        EXPECT_TRUE(synth_->startSpeakingString(text));
        EXPECT_TRUE(synth_->isSpeaking());
        EXPECT_TRUE(turnUntil(*loop_, [&] { return ends_.seen.size() > before; }, 30));
        EXPECT_EQ(ends_.seen.size(), before + 1);
        EXPECT_TRUE(ends_.seen.back());
        EXPECT_FALSE(synth_->isSpeaking());
        return {readWav(newest()), loop_->now() - start};
    }

    fs::path newest() {
        std::vector<fs::path> files;
        for (auto& e : fs::directory_iterator(dir_)) files.push_back(e.path());
        std::sort(files.begin(), files.end());
        EXPECT_FALSE(files.empty());
        return files.empty() ? fs::path() : files.back();
    }

    std::shared_ptr<GLibMainLoop> loop_ = std::make_shared<GLibMainLoop>();
    fs::path dir_;
    std::shared_ptr<SpeechEngine> engine_;
    std::unique_ptr<SpeechSynthesizer> synth_;
    Ends ends_;
};

TEST_F(EspeakRender, EachUtteranceIsAudioAsLongAsItsTextAndPlaysInRealTime) {
    auto [shortWav, shortWait] = speakToEnd(kShort);
    auto [longWav, longWait] = speakToEnd(kSentence);
    EXPECT_GT(shortWav.seconds, 0.2);
    EXPECT_LT(shortWav.seconds, 2.0);
    // Around 12 to 20 characters a second at 180 words a minute.
    EXPECT_GT(longWav.seconds, kSentence.size() / 30.0);
    EXPECT_LT(longWav.seconds, kSentence.size() / 6.0);
    EXPECT_GT(longWav.seconds, 2.5 * shortWav.seconds);
    EXPECT_GT(longWav.rms, 300) << "silence is not speech";
    // The end comes when a sound device would have played the last sample, not before.
    EXPECT_GE(longWait, 0.9 * longWav.seconds);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_), {}), 2) << "one file per utterance";
}

TEST_F(EspeakRender, RateAndVolumeReachTheVoice) {
    const std::string text = "Seven slow words are spoken here today.";
    synth_->setRate(180);
    const Wav slow = speakToEnd(text).first;
    synth_->setRate(400);
    const Wav fast = speakToEnd(text).first;
    EXPECT_LT(fast.seconds, 0.7 * slow.seconds);
    synth_->setVolume(0.2f);
    const Wav quiet = speakToEnd(text).first;
    EXPECT_LT(quiet.rms, 0.5 * fast.rms);
}

TEST_F(EspeakRender, StopAndInterruptionCutTheAudioShort) {
    const std::string paragraph = kSentence + " " + kSentence + " " + kSentence;
    ASSERT_TRUE(synth_->startSpeakingString(paragraph));
    synth_->stopSpeaking();
    EXPECT_FALSE(synth_->isSpeaking());
    EXPECT_TRUE(ends_.seen.empty()) << "a stop reports on a later turn";
    ASSERT_TRUE(turnUntil(*loop_, [&] { return !ends_.seen.empty(); }, 10));
    EXPECT_FALSE(ends_.seen[0]);
    EXPECT_LT(readWav(newest()).seconds, 1.0);

    // A second synthesizer speaking takes the one channel from the first.
    ASSERT_TRUE(synth_->startSpeakingString(paragraph));
    auto other = engine_->createSynthesizer();
    Ends otherEnds;
    other->setDidFinishSpeaking(otherEnds.callback());
    ASSERT_TRUE(other->startSpeakingString(kShort));
    ASSERT_TRUE(turnUntil(*loop_, [&] { return !otherEnds.seen.empty(); }, 10));
    ASSERT_EQ(ends_.seen.size(), 2u);
    EXPECT_FALSE(ends_.seen[1]);
    EXPECT_TRUE(otherEnds.seen[0]);
}

TEST_F(EspeakRender, VoicesAndTheProcessWideOutputMode) {
    auto voices = engine_->availableVoices();
    ASSERT_FALSE(voices.empty());
    EXPECT_NE(std::find(voices.begin(), voices.end(), engine_->defaultVoice()), voices.end());
    EXPECT_EQ(synth_->voice(), engine_->defaultVoice());
    const std::string other = voices.front() == engine_->defaultVoice() ? voices[1] : voices[0];
    EXPECT_TRUE(synth_->setVoice(other));
    EXPECT_EQ(synth_->voice(), other);
    EXPECT_FALSE(synth_->setVoice("no/such-voice"));
    EXPECT_EQ(synth_->voice(), other);
    speakToEnd(kShort);

    // espeak-ng has one output per process: playing while this engine renders is refused.
    std::string why;
    EXPECT_FALSE(makeEspeakEngine(loop_, EspeakOptions{}, &why));
    EXPECT_NE(why.find("renders"), std::string::npos) << why;
}

}  // namespace
}  // namespace orv::linuxdesk
