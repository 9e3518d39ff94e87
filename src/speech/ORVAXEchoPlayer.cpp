#include "speech/ORVAXEchoPlayer.h"

#include "platform/Platform.h"

namespace orv {

ORVAXEchoPlayerRef ORVAXEchoPlayer::playerForDirective(ORVAXEchoDirectiveRef directive) {
    auto player = std::make_shared<ORVAXEchoPlayer>();
    player->setDirective(std::move(directive));
    return player;
}

ORVAXEchoPlayer::~ORVAXEchoPlayer() {
    dropTimer();
    if (synthesizer_) synthesizer_->setDidFinishSpeaking(nullptr);
}

void ORVAXEchoPlayer::setDirective(ORVAXEchoDirectiveRef directive) {
    directive_ = std::move(directive);
    if (!directive_) return;
    rate_ = directive_->voiceRate;
    volume_ = directive_->voiceVolume;
    voice_ = directive_->voice;
    pendingSegments_ = directive_->text;
    if (pendingSegments_.empty()) return;
    if (directive_->initialDelay > 0)
        schedule(directive_->initialDelay);
    else
        playNextSegment();
}

void ORVAXEchoPlayer::playNextSegment() {
    dropTimer();
    if (pendingSegments_.empty()) {
        playingSegment_.reset();
        if (directive_ && directive_->sourceSpeechDirective) {
            // Copied: the handler may start the next echo, which can replace this directive.
            auto handler = directive_->sourceSpeechDirective->completionHandler;
            if (handler) handler();
        }
        return;
    }
    if (synthesizer_) {
        synthesizer_->stopSpeaking();
    } else {
        auto speech = platform().speech;
        synthesizer_ = speech ? speech->createSynthesizer() : nullptr;
        if (synthesizer_) {
            std::weak_ptr<ORVAXEchoPlayer> weak = weak_from_this();
            synthesizer_->setDidFinishSpeaking([weak](bool finished) {
                if (auto self = weak.lock()) self->speechSynthesizerDidFinishSpeaking(finished);
            });
            if (voice_) synthesizer_->setVoice(*voice_);
            synthesizer_->setRate(rate_);
            synthesizer_->setVolume(volume_);
        }
    }
    playingSegment_ = pendingSegments_.front();
    pendingSegments_.erase(pendingSegments_.begin());
    // An engine that cannot start counts as having said the segment at once, so the echo still
    // ends and its completion handler still runs.
    if (!synthesizer_ || !synthesizer_->startSpeakingString(*playingSegment_))
        speechSynthesizerDidFinishSpeaking(false);
}

void ORVAXEchoPlayer::speechSynthesizerDidFinishSpeaking(bool) {
    dropTimer();
    schedule(directive_ ? directive_->interTextDelay : 0);
}

void ORVAXEchoPlayer::cancel() {
    dropTimer();
    if (synthesizer_) {
        synthesizer_->stopSpeaking();
        synthesizer_->setDidFinishSpeaking(nullptr);
        synthesizer_.reset();
    }
}

void ORVAXEchoPlayer::schedule(double seconds) {
    std::weak_ptr<ORVAXEchoPlayer> weak = weak_from_this();
    interSegmentTimer_ = mainLoop().scheduleTimer(seconds, false, [weak](Timer&) {
        if (auto self = weak.lock()) self->playNextSegment();
    });
}

void ORVAXEchoPlayer::dropTimer() {
    if (interSegmentTimer_) interSegmentTimer_->invalidate();
    interSegmentTimer_.reset();
}

}  // namespace orv
