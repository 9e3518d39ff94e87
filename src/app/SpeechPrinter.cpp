#include "app/SpeechPrinter.h"

#include <cstdio>
#include <optional>

namespace orv {

namespace {

// Length of the UTF-8 sequence starting at s[i], 0 when it is not a valid one.
size_t utf8Length(std::string_view s, size_t i) {
    const auto b = static_cast<unsigned char>(s[i]);
    size_t n = 0;
    uint32_t cp = 0;
    if (b < 0x80) return 1;
    if ((b & 0xE0) == 0xC0) n = 2, cp = b & 0x1F;
    else if ((b & 0xF0) == 0xE0) n = 3, cp = b & 0x0F;
    else if ((b & 0xF8) == 0xF0) n = 4, cp = b & 0x07;
    else return 0;
    if (i + n > s.size()) return 0;
    for (size_t k = 1; k < n; ++k) {
        const auto c = static_cast<unsigned char>(s[i + k]);
        if ((c & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (c & 0x3F);
    }
    // Overlong forms, surrogates and values past Unicode are not text.
    static const uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[n] || (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) return 0;
    return n;
}

std::string number(double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.6g", v);
    return buf;
}

class PrintingSynthesizer : public SpeechSynthesizer {
  public:
    PrintingSynthesizer(std::unique_ptr<SpeechSynthesizer> inner, std::function<double()> now,
                        std::function<void(const std::string&)> emit)
        : inner_(std::move(inner)),
          now_(std::move(now)),
          emit_(std::move(emit)),
          state_(std::make_shared<State>()) {
        // The inner engine may report after this wrapper is gone; the state outlives it.
        inner_->setDidFinishSpeaking([state = state_, now = now_, emit = emit_](bool finished) {
            // The late report of a stop already printed must not end the utterance after it.
            if (!finished && state->lateStops > 0) {
                --state->lateStops;
            } else if (state->pending) {
                state->pending = false;
                emit(endLine(now(), finished));
            }
            if (auto cb = state->callback) cb(finished);
        });
    }
    ~PrintingSynthesizer() override { ended(false); }

    bool setVoice(const std::string& id) override {
        const bool ok = inner_->setVoice(id);
        if (ok) chosenVoice_ = id;
        return ok;
    }
    std::string voice() const override { return inner_->voice(); }
    void setRate(float wpm) override { inner_->setRate(wpm); }
    float rate() const override { return inner_->rate(); }
    void setVolume(float volume) override { inner_->setVolume(volume); }
    float volume() const override { return inner_->volume(); }

    bool startSpeakingString(const std::string& text) override {
        // A new utterance cuts the one under way short.
        ended(false);
        if (inner_->isSpeaking()) ++state_->lateStops;
        if (!inner_->startSpeakingString(text)) return false;
        state_->pending = true;
        emit_("{\"time\":" + timeText(now_()) + ",\"say\":" + jsonString(text) + ",\"voice\":" +
              (chosenVoice_ ? jsonString(*chosenVoice_) : std::string("null")) +
              ",\"rate\":" + number(inner_->rate()) + ",\"volume\":" + number(inner_->volume()) +
              "}\n");
        return true;
    }
    void stopSpeaking() override {
        ended(false);
        if (inner_->isSpeaking()) ++state_->lateStops;
        inner_->stopSpeaking();
    }
    bool isSpeaking() const override { return inner_->isSpeaking(); }
    void setDidFinishSpeaking(std::function<void(bool)> callback) override {
        state_->callback = std::move(callback);
    }

    static std::string timeText(double t) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "%.3f", t);
        return buf;
    }
    static std::string endLine(double t, bool finished) {
        return "{\"time\":" + timeText(t) + ",\"end\":\"" + (finished ? "finished" : "stopped") +
               "\"}\n";
    }

  private:
    struct State {
        bool pending = false;
        int lateStops = 0;
        std::function<void(bool)> callback;
    };

    void ended(bool finished) {
        if (!state_->pending) return;
        state_->pending = false;
        emit_(endLine(now_(), finished));
    }

    std::unique_ptr<SpeechSynthesizer> inner_;
    std::function<double()> now_;
    std::function<void(const std::string&)> emit_;
    std::shared_ptr<State> state_;
    std::optional<std::string> chosenVoice_;
};

class PrintingEngine : public SpeechEngine {
  public:
    PrintingEngine(std::shared_ptr<SpeechEngine> inner, std::function<double()> now,
                   std::function<void(const std::string&)> emit)
        : inner_(std::move(inner)), now_(std::move(now)), emit_(std::move(emit)) {}
    std::vector<std::string> availableVoices() override { return inner_->availableVoices(); }
    std::string defaultVoice() override { return inner_->defaultVoice(); }
    std::unique_ptr<SpeechSynthesizer> createSynthesizer() override {
        auto s = inner_->createSynthesizer();
        if (!s) return nullptr;
        return std::make_unique<PrintingSynthesizer>(std::move(s), now_, emit_);
    }

  private:
    std::shared_ptr<SpeechEngine> inner_;
    std::function<double()> now_;
    std::function<void(const std::string&)> emit_;
};

}  // namespace

std::string jsonString(std::string_view text) {
    std::string out = "\"";
    for (size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        const size_t n = utf8Length(text, i);
        if (n == 0) {
            out += "\\ufffd";
            ++i;
            continue;
        }
        if (n > 1) {
            out.append(text.substr(i, n));
        } else if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c < 0x20 || c == 0x7F) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
        i += n;
    }
    return out + "\"";
}

std::shared_ptr<SpeechEngine> makePrintingSpeechEngine(std::shared_ptr<SpeechEngine> inner,
                                                       std::function<double()> now,
                                                       std::function<void(const std::string&)> emit) {
    return std::make_shared<PrintingEngine>(std::move(inner), std::move(now), std::move(emit));
}

}  // namespace orv
