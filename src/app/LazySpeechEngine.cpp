#include "app/LazySpeechEngine.h"

#include "platform/NullSpeech.h"

namespace orv {

namespace {

class LazySpeechEngine : public SpeechEngine {
  public:
    explicit LazySpeechEngine(std::function<std::shared_ptr<SpeechEngine>()> factory)
        : factory_(std::move(factory)) {}

    std::vector<std::string> availableVoices() override { return engine().availableVoices(); }
    std::string defaultVoice() override { return engine().defaultVoice(); }
    std::unique_ptr<SpeechSynthesizer> createSynthesizer() override {
        return engine().createSynthesizer();
    }

  private:
    SpeechEngine& engine() {
        if (!engine_) {
            if (factory_) engine_ = factory_();
            factory_ = nullptr;
            if (!engine_) engine_ = makeNullSpeechEngine();
        }
        return *engine_;
    }

    std::function<std::shared_ptr<SpeechEngine>()> factory_;
    std::shared_ptr<SpeechEngine> engine_;
};

}  // namespace

std::shared_ptr<SpeechEngine> makeLazySpeechEngine(
    std::function<std::shared_ptr<SpeechEngine>()> factory) {
    return std::make_shared<LazySpeechEngine>(std::move(factory));
}

}  // namespace orv
