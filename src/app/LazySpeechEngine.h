#pragma once

#include <functional>
#include <memory>

#include "platform/Desktop.h"

namespace orv {

// An engine made on first use. Most users never switch speech on, and connecting to a speech
// service can start its daemon and a voice-list read that costs seconds of CPU: none of that
// should happen for an agent that only follows focus. A factory that gives nothing leaves a
// silent engine in its place.
std::shared_ptr<SpeechEngine> makeLazySpeechEngine(
    std::function<std::shared_ptr<SpeechEngine>()> factory);

}  // namespace orv
