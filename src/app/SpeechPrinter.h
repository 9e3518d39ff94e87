#pragma once

// --print-speech: what the agent says, as JSON lines beside the focus lines.
//   {"time":T,"say":"TEXT","voice":"V","rate":R,"volume":X}   a segment handed to the engine
//   {"time":T,"end":"finished"} / {"time":T,"end":"stopped"}   that segment's end
// voice is null for the engine's default voice. Every "say" line gets exactly one "end" line.

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/Desktop.h"

namespace orv {

// A JSON string literal, quotes included; bytes that are not UTF-8 become U+FFFD.
std::string jsonString(std::string_view text);

// Wraps an engine so that each of its synthesizers reports through `emit` (one line, with its
// newline). `now` gives the time stamp in seconds.
std::shared_ptr<SpeechEngine> makePrintingSpeechEngine(std::shared_ptr<SpeechEngine> inner,
                                                       std::function<double()> now,
                                                       std::function<void(const std::string&)> emit);

}  // namespace orv
