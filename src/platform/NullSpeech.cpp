#include "platform/NullSpeech.h"

namespace orv {

namespace {

class NullSynthesizer : public SpeechSynthesizer {
  public:
    bool setVoice(const std::string&) override { return false; }
    std::string voice() const override { return {}; }
    void setRate(float wordsPerMinute) override { rate_ = wordsPerMinute; }
    float rate() const override { return rate_; }
    void setVolume(float volume) override { volume_ = volume; }
    float volume() const override { return volume_; }
    bool startSpeakingString(const std::string&) override { return false; }
    void stopSpeaking() override {}
    bool isSpeaking() const override { return false; }
    void setDidFinishSpeaking(std::function<void(bool)>) override {}

  private:
    float rate_ = 180;
    float volume_ = 1;
};

class NullSpeechEngine : public SpeechEngine {
  public:
    std::vector<std::string> availableVoices() override { return {}; }
    std::string defaultVoice() override { return {}; }
    std::unique_ptr<SpeechSynthesizer> createSynthesizer() override {
        return std::make_unique<NullSynthesizer>();
    }
};

}  // namespace

std::shared_ptr<SpeechEngine> makeNullSpeechEngine() {
    return std::make_shared<NullSpeechEngine>();
}

}  // namespace orv
