// The engines' conversions, checked against what the installed espeak-ng module of
// speech-dispatcher does with a rate (its own config's scale), without a daemon.

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <sstream>

#include "platform/linux/EspeakEngine.h"
#include "platform/linux/SpeechDispatcherEngine.h"

namespace orv::linuxdesk {
namespace {

// EspeakMinRate, EspeakNormalRate and EspeakMaxRate as the installed module reads them.
std::map<std::string, int> moduleRateScale() {
    std::map<std::string, int> scale;
    std::ifstream in("/etc/speech-dispatcher/modules/espeak-ng.conf");
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string key;
        int value = 0;
        if (words >> key >> value && key.rfind("Espeak", 0) == 0 && key.find("Rate") != key.npos)
            scale[key] = value;
    }
    return scale;
}

TEST(SpeechDispatcherMapping, RateLandsOnTheWordsPerMinuteTheModuleSpeaks) {
    auto scale = moduleRateScale();
    if (scale.size() < 3) GTEST_SKIP() << "no espeak-ng module configuration installed";
    const int min = scale["EspeakMinRate"], normal = scale["EspeakNormalRate"],
              max = scale["EspeakMaxRate"];
    int previous = -101;
    for (float wpm = 180; wpm <= 400; wpm += 5) {
        const int rate = speechDispatcherRate(wpm);
        ASSERT_GE(rate, -100);
        ASSERT_LE(rate, 100);
        EXPECT_GE(rate, previous) << wpm;
        previous = rate;
        // The module's own reading of the rate (sd_espeak-ng's rate setting).
        const int spoken = rate < 0 ? normal + (normal - min) * rate / 100
                                    : normal + (max - normal) * rate / 100;
        EXPECT_NEAR(spoken, wpm, 4) << "at " << wpm << " wpm";
        EXPECT_NEAR(speechDispatcherRateToWordsPerMinute(rate), spoken, 0.5);
    }
    EXPECT_EQ(speechDispatcherRate(static_cast<float>(normal)), 0);
    EXPECT_EQ(speechDispatcherRate(2000), 100);
    EXPECT_EQ(speechDispatcherRate(20), -100);
    EXPECT_EQ(speechDispatcherRate(NAN), 0);
}

TEST(SpeechDispatcherMapping, VolumeSpansTheDaemonScale) {
    EXPECT_EQ(speechDispatcherVolume(0), -100);
    EXPECT_EQ(speechDispatcherVolume(0.5f), 0);
    EXPECT_EQ(speechDispatcherVolume(1), 100);  // the daemon's default level
    EXPECT_EQ(speechDispatcherVolume(1.7f), 100);
    EXPECT_EQ(speechDispatcherVolume(-0.3f), -100);
}

TEST(EspeakMapping, RateAndVolumeStayInTheLibrarysRange) {
    EXPECT_EQ(espeakRate(180), 180);
    EXPECT_EQ(espeakRate(400), 400);
    EXPECT_EQ(espeakRate(30), 80);
    EXPECT_EQ(espeakRate(900), 450);
    EXPECT_EQ(espeakVolume(1), 100);
    EXPECT_EQ(espeakVolume(0.25f), 25);
    EXPECT_EQ(espeakVolume(3), 100);
    EXPECT_EQ(espeakVolume(-1), 0);
}

TEST(SpeechVoices, IdentifiersSplitAtTheFirstSlash) {
    std::string module, name;
    ASSERT_TRUE(splitSpeechDispatcherVoiceId("espeak-ng/English (America)+Adam", &module, &name));
    EXPECT_EQ(module, "espeak-ng");
    EXPECT_EQ(name, "English (America)+Adam");
    ASSERT_TRUE(splitSpeechDispatcherVoiceId("rhvoice/a/b", &module, &name));
    EXPECT_EQ(name, "a/b");
    EXPECT_EQ(speechDispatcherVoiceId(module, name), "rhvoice/a/b");
    for (const char* bad : {"", "noslash", "/name", "module/"})
        EXPECT_FALSE(splitSpeechDispatcherVoiceId(bad, nullptr, nullptr)) << bad;
}

TEST(SpeechVoices, LocalePicksRegionThenLanguageThenFallback) {
    const std::vector<detail::VoiceCandidate> voices{
        {"m/british", "en-GB"}, {"m/american", "en-us"}, {"m/french", "fr"}, {"m/english", "en"}};
    using detail::pickVoiceForLocale;
    EXPECT_EQ(pickVoiceForLocale(voices, "en_US.UTF-8"), "m/american");
    EXPECT_EQ(pickVoiceForLocale(voices, "en_GB@euro"), "m/british");
    EXPECT_EQ(pickVoiceForLocale(voices, "en_AU.UTF-8"), "m/english");
    EXPECT_EQ(pickVoiceForLocale(voices, "fr_CA.UTF-8"), "m/french");
    EXPECT_EQ(pickVoiceForLocale(voices, "C"), "m/english");
    EXPECT_EQ(pickVoiceForLocale(voices, "de_DE", "m/french"), "m/french");
    EXPECT_EQ(pickVoiceForLocale(voices, "de_DE"), "m/british");
    // A region-only match still beats the fallback when the bare language is missing.
    EXPECT_EQ(pickVoiceForLocale({{"m/a", "pt-br"}, {"m/b", "de"}}, "pt_PT", "m/b"), "m/a");
    EXPECT_EQ(pickVoiceForLocale({}, "en_US"), "");
}

}  // namespace
}  // namespace orv::linuxdesk
