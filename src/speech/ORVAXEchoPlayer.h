#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Desktop.h"
#include "platform/MainLoop.h"
#include "speech/ORVAXEchoDirective.h"

namespace orv {

class ORVAXEchoPlayer;
using ORVAXEchoPlayerRef = std::shared_ptr<ORVAXEchoPlayer>;

// Speaks one echo directive: the initial delay, then each segment followed by the inter-text
// pause, then the source directive's completion handler. A cancelled player is silent for good and
// never reports completion. Main thread only.
class ORVAXEchoPlayer : public std::enable_shared_from_this<ORVAXEchoPlayer> {
  public:
    // A new player that has already started on the directive.
    static ORVAXEchoPlayerRef playerForDirective(ORVAXEchoDirectiveRef directive);
    ~ORVAXEchoPlayer();

    // Takes the directive's settings and segments and starts; with no segments nothing happens.
    void setDirective(ORVAXEchoDirectiveRef directive);
    void playNextSegment();
    void speechSynthesizerDidFinishSpeaking(bool finishedSpeaking);
    void cancel();

    const ORVAXEchoDirectiveRef& directive() const { return directive_; }
    const std::optional<std::string>& playingSegment() const { return playingSegment_; }
    const std::vector<std::string>& pendingSegments() const { return pendingSegments_; }
    SpeechSynthesizer* synthesizer() const { return synthesizer_.get(); }
    float rate() const { return rate_; }
    float volume() const { return volume_; }
    const std::optional<std::string>& voice() const { return voice_; }
    // Something is being said or is still to come (a cancelled player keeps its playing segment).
    bool isBusy() const { return playingSegment_.has_value() || !pendingSegments_.empty(); }

  private:
    void schedule(double seconds);
    void dropTimer();

    ORVAXEchoDirectiveRef directive_;
    float rate_ = 0;
    float volume_ = 0;
    std::optional<std::string> voice_;
    std::vector<std::string> pendingSegments_;
    std::optional<std::string> playingSegment_;
    std::unique_ptr<SpeechSynthesizer> synthesizer_;
    TimerRef interSegmentTimer_;
};

}  // namespace orv
