#pragma once

// Speech through the speech-dispatcher daemon (libspeechd, threaded mode). Always declared; when
// the build lacks libspeechd (no ORV_HAVE_SPEECHD) the factories return null with the reason.
//
// Voice identifiers are "module/voice name", e.g. "espeak-ng/English (America)": the output
// module and the synthesis voice name as the daemon lists them, split at the first '/'.

#include <memory>
#include <string>
#include <vector>

#include "platform/Desktop.h"
#include "platform/MainLoop.h"

namespace orv::linuxdesk {

struct SpeechDispatcherOptions {
    // "unix_socket:/path/to/speechd.sock"; empty means libspeechd's default (SPEECHD_ADDRESS, else
    // $XDG_RUNTIME_DIR/speech-dispatcher/speechd.sock).
    std::string address;
    // Let libspeechd start the daemon when nobody answers (on the first speak after an outage).
    bool autospawn = true;
    // Least time between two reconnection attempts while the daemon is away.
    double reconnectInterval = 2.0;
    // How long availableVoices() waits for the list when asked before it has been read.
    double voiceListTimeout = 15.0;
};

// Never null when built with libspeechd: with no daemon yet the engine still comes back, speaks
// false and reconnects on a later speak; `why` then says why the first connection failed. Call
// on the main thread. The process should ignore SIGPIPE, as the agent does.
std::shared_ptr<SpeechEngine> makeSpeechDispatcherEngine(std::shared_ptr<MainLoop> loop,
                                                         std::string* why);
std::shared_ptr<SpeechEngine> makeSpeechDispatcherEngine(std::shared_ptr<MainLoop> loop,
                                                         const SpeechDispatcherOptions& options,
                                                         std::string* why);

// Words per minute onto the daemon's -100..100 rate, inverting what its espeak-ng module does with
// that rate (EspeakMinRate 80, EspeakNormalRate 170, EspeakMaxRate 449 as shipped): 0 is 170 wpm,
// -100 is 80, 100 is 449, linear on either side. 180 wpm gives 4 and 400 wpm gives 82.
int speechDispatcherRate(float wordsPerMinute);
// The module's reading of a daemon rate, in words per minute (for tests and diagnostics).
float speechDispatcherRateToWordsPerMinute(int rate);
// 0..1 onto -100..100, linear; 1 is the daemon's default volume (100).
int speechDispatcherVolume(float volume);

std::string speechDispatcherVoiceId(const std::string& module, const std::string& voiceName);
// False when the identifier is not "module/name" with both parts present.
bool splitSpeechDispatcherVoiceId(const std::string& id, std::string* module,
                                  std::string* voiceName);

namespace detail {
struct VoiceCandidate {
    std::string id;
    std::string language;  // BCP 47-ish, as the engine reports it ("en-us", "en-GB", "fr")
};
// The voice for a POSIX locale ("en_US.UTF-8"): the first whose language equals the locale's
// language and region, else the first with the bare language, else `fallback` when listed, else
// the first. Empty when there is none. Shared by both engines.
std::string pickVoiceForLocale(const std::vector<VoiceCandidate>& voices,
                               const std::string& locale, const std::string& fallback = {});
// LC_ALL, else LC_MESSAGES, else LANG.
std::string userLocale();
}  // namespace detail

}  // namespace orv::linuxdesk
