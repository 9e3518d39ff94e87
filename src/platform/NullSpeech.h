#pragma once

#include <memory>

#include "platform/Desktop.h"

namespace orv {

// The engine of a desktop without speech (or one the user silenced): no voices, and every
// utterance is refused at once, so the echo side goes on as if nothing were to be said.
std::shared_ptr<SpeechEngine> makeNullSpeechEngine();

}  // namespace orv
