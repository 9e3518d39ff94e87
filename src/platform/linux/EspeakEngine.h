#pragma once

// Speech through espeak-ng's library in the process, without a daemon. Always declared; when the
// build lacks libespeak-ng (no ORV_HAVE_ESPEAK) the factories return null with the reason.
//
// Voice identifiers are espeak-ng's voice file identifiers, e.g. "gmw/en-US".
//
// Render mode: with ORV_ESPEAK_WAV_DIR set (or EspeakOptions::wavDirectory), nothing is played;
// each utterance is written to <dir>/utterance-NNNNNN.wav (16-bit mono PCM at the voice's rate,
// NNNNNN counting from 000001 in the process), renamed into place complete when the utterance
// ends or is stopped. Rendering keeps the pace of a sound device, so utterances take as long as
// their audio and a stop cuts the file short.

#include <memory>
#include <string>

#include "platform/Desktop.h"
#include "platform/MainLoop.h"

namespace orv::linuxdesk {

struct EspeakOptions {
    // Empty: play on the sound device through espeak-ng's own audio output.
    std::string wavDirectory;
};

// espeak-ng's state is the process's: engines made while another lives share its output mode,
// and one asking for the other mode fails (null with the reason). Call on the main thread.
std::shared_ptr<SpeechEngine> makeEspeakEngine(std::shared_ptr<MainLoop> loop, std::string* why);
std::shared_ptr<SpeechEngine> makeEspeakEngine(std::shared_ptr<MainLoop> loop,
                                               const EspeakOptions& options, std::string* why);

// Words per minute as espeak-ng takes them, held to its 80..450.
int espeakRate(float wordsPerMinute);
// 0..1 onto espeak-ng's 0..100 (100 is its normal level; above it clips).
int espeakVolume(float volume);

}  // namespace orv::linuxdesk
