#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "speech/ORVAXSpeechDirective.h"

namespace orv {

class ORVAXEchoDirective;
using ORVAXEchoDirectiveRef = std::shared_ptr<ORVAXEchoDirective>;

// What one echo says and how: text segments spoken one after another, a pause before the first
// and after each. Built by the echo controller, played by ORVAXEchoPlayer.
class ORVAXEchoDirective {
  public:
    std::vector<std::string> text;
    float initialDelay = 0;            // seconds before the first segment
    float interTextDelay = 0;          // seconds after each segment, the last included
    std::optional<std::string> voice;  // none keeps the synthesizer's default voice
    float voiceRate = 0;               // words per minute
    float voiceVolume = 0;             // 0..1
    // What the echo was made from: its source and completion handler are used.
    ORVAXSpeechDirectiveRef sourceSpeechDirective;

    static ORVAXEchoDirectiveRef make() { return std::make_shared<ORVAXEchoDirective>(); }

    // For logs: "<ORVAXEchoDirective: 0x... segments:N delay:0.1 source:N>".
    std::string description() const;
};

}  // namespace orv
