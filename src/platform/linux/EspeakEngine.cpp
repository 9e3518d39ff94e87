#include "platform/linux/EspeakEngine.h"

#include <algorithm>
#include <cmath>

namespace orv::linuxdesk {

int espeakRate(float wordsPerMinute) {
    if (!std::isfinite(wordsPerMinute)) return 175;
    return std::clamp(static_cast<int>(std::lround(wordsPerMinute)), 80, 450);
}

int espeakVolume(float volume) {
    if (!std::isfinite(volume)) return 100;
    return std::clamp(static_cast<int>(std::lround(volume * 100)), 0, 100);
}

}  // namespace orv::linuxdesk

#ifndef ORV_HAVE_ESPEAK

namespace orv::linuxdesk {

std::shared_ptr<SpeechEngine> makeEspeakEngine(std::shared_ptr<MainLoop> loop, std::string* why) {
    return makeEspeakEngine(std::move(loop), EspeakOptions{}, why);
}

std::shared_ptr<SpeechEngine> makeEspeakEngine(std::shared_ptr<MainLoop>, const EspeakOptions&,
                                               std::string* why) {
    if (why) *why = "built without espeak-ng (libespeak-ng-dev was not found)";
    return nullptr;
}

}  // namespace orv::linuxdesk

#else

#include <espeak-ng/speak_lib.h>
#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>

#include "Common/OrvLogger.h"
#include "platform/linux/SpeechDispatcherEngine.h"

namespace orv::linuxdesk {

namespace {

using Clock = std::chrono::steady_clock;

struct SynthState {
    std::function<void(bool)> callback;
    uint64_t utterance = 0;  // token of the utterance under way, 0 when none
};

struct Utterance {
    uint64_t token = 0;
    std::shared_ptr<MainLoop> loop;
    std::weak_ptr<SynthState> owner;  // main thread only

    // Shared with espeak-ng's thread.
    std::mutex mutex;
    std::condition_variable wake;
    bool aborted = false;
    FILE* wav = nullptr;
    std::string partPath;
    std::string path;
    uint64_t samples = 0;
    Clock::time_point start;
};

// espeak-ng keeps one state per process, so does this.
struct Runtime {
    std::mutex mutex;  // guards `utterances`, the one thing espeak-ng's thread reads
    std::map<uint64_t, std::shared_ptr<Utterance>> utterances;

    // Main thread only.
    bool initialized = false;
    std::string wavDirectory;  // the output mode: empty plays
    int sampleRate = 0;
    int users = 0;  // live engines and synthesizers
    uint64_t nextToken = 1;
    uint64_t files = 0;
    std::vector<std::string> voices;
    std::string defaultVoice;
    std::string appliedVoice;
    std::shared_ptr<Utterance> active;
    bool warnedFile = false;
};

Runtime& runtime() {
    static Runtime* r = new Runtime;  // outlives every engine and espeak-ng's thread
    return *r;
}

void putLE(unsigned char* p, uint32_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

void writeWavHeader(FILE* f, int rate, uint64_t samples) {
    unsigned char h[44] = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ',
                           16, 0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 16, 0,
                           'd', 'a', 't', 'a', 0, 0, 0, 0};
    const auto data = static_cast<uint32_t>(std::min<uint64_t>(samples * 2, 0xffffffd0u));
    putLE(h + 4, 36 + data, 4);
    putLE(h + 24, static_cast<uint32_t>(rate), 4);
    putLE(h + 28, static_cast<uint32_t>(rate) * 2, 4);
    putLE(h + 40, data, 4);
    std::fseek(f, 0, SEEK_SET);
    std::fwrite(h, 1, sizeof h, f);
}

// Under the utterance's mutex. The partial render of a stopped utterance is kept too.
void closeWav(Utterance& u, int rate) {
    if (!u.wav) return;
    writeWavHeader(u.wav, rate, u.samples);
    std::fclose(u.wav);
    u.wav = nullptr;
    std::rename(u.partPath.c_str(), u.path.c_str());
}

void finishOnMain(const std::shared_ptr<Utterance>& u, bool finished);

// On espeak-ng's thread: audio in render mode, events in both.
int onSynth(short* wav, int count, espeak_EVENT* events) {
    try {
        if (!events) return 0;
        const auto token = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(events->user_data));
        auto& rt = runtime();
        std::shared_ptr<Utterance> u;
        {
            std::lock_guard lock(rt.mutex);
            if (auto it = rt.utterances.find(token); it != rt.utterances.end()) u = it->second;
        }
        if (!u) return 1;  // stopped: let espeak-ng drop the rest
        bool terminated = false;
        for (espeak_EVENT* e = events; e->type != espeakEVENT_LIST_TERMINATED; ++e)
            terminated = terminated || e->type == espeakEVENT_MSG_TERMINATED;
        std::unique_lock lock(u->mutex);
        if (u->aborted) return 1;
        if (wav && count > 0 && u->wav) {
            if (u->samples == 0) u->start = Clock::now();
            std::fwrite(wav, sizeof(short), static_cast<size_t>(count), u->wav);
            u->samples += static_cast<uint64_t>(count);
            // A sound device takes the audio no faster than it plays it.
            const auto played = std::chrono::duration_cast<Clock::duration>(
                std::chrono::duration<double>(static_cast<double>(u->samples) / rt.sampleRate));
            u->wake.wait_until(lock, u->start + played, [&] { return u->aborted; });
            if (u->aborted) return 1;
        }
        if (terminated) {
            closeWav(*u, rt.sampleRate);
            lock.unlock();
            u->loop->post([u] { finishOnMain(u, true); });
        }
        return 0;
    } catch (...) {
        return 1;  // nothing may unwind into espeak-ng
    }
}

void forget(const std::shared_ptr<Utterance>& u) {
    auto& rt = runtime();
    {
        std::lock_guard lock(rt.mutex);
        rt.utterances.erase(u->token);
    }
    if (rt.active == u) rt.active.reset();
}

void finishOnMain(const std::shared_ptr<Utterance>& u, bool finished) {
    forget(u);
    auto owner = u->owner.lock();
    if (!owner || owner->utterance != u->token) return;  // stopped meanwhile
    owner->utterance = 0;
    if (auto cb = owner->callback) cb(finished);
}

// Main thread: ends the utterance at once; its owner hears of it on a later turn.
void stopUtterance(std::shared_ptr<Utterance> u) {  // a copy: forget() clears rt.active
    auto& rt = runtime();
    {
        std::lock_guard lock(u->mutex);
        u->aborted = true;
    }
    u->wake.notify_all();
    espeak_Cancel();  // returns once espeak-ng's thread has let go
    {
        std::lock_guard lock(u->mutex);
        closeWav(*u, rt.sampleRate);
    }
    forget(u);
    if (auto owner = u->owner.lock(); owner && owner->utterance == u->token) {
        owner->utterance = 0;
        u->loop->post([weak = std::weak_ptr<SynthState>(owner)] {
            if (auto s = weak.lock())
                if (auto cb = s->callback) cb(false);
        });
    }
}

struct Settings {
    std::string voice;
    int rate = 180;
    int volume = 100;
};

bool speak(const std::shared_ptr<MainLoop>& loop, const std::shared_ptr<SynthState>& who,
           const std::string& text, const Settings& s) {
    auto& rt = runtime();
    if (rt.active) stopUtterance(rt.active);
    espeak_Cancel();  // a voice change is not queued: espeak-ng must be idle for it
    const std::string& voice = s.voice.empty() ? rt.defaultVoice : s.voice;
    if (!voice.empty() && voice != rt.appliedVoice &&
        espeak_SetVoiceByName(voice.c_str()) == EE_OK)
        rt.appliedVoice = voice;
    espeak_SetParameter(espeakRATE, s.rate, 0);
    espeak_SetParameter(espeakVOLUME, s.volume, 0);

    auto u = std::make_shared<Utterance>();
    u->token = rt.nextToken++;
    u->loop = loop;
    u->owner = who;
    if (!rt.wavDirectory.empty()) {
        char name[32];
        std::snprintf(name, sizeof name, "utterance-%06llu.wav",
                      static_cast<unsigned long long>(++rt.files));
        u->path = rt.wavDirectory + "/" + name;
        u->partPath = u->path + ".part";
        u->wav = std::fopen(u->partPath.c_str(), "wb");
        if (!u->wav) {
            if (!rt.warnedFile)
                OrvLogger::addWarningMessage("espeak-ng: cannot write " + u->partPath);
            rt.warnedFile = true;
            return false;
        }
        writeWavHeader(u->wav, rt.sampleRate, 0);
    }
    {
        std::lock_guard lock(rt.mutex);
        rt.utterances[u->token] = u;
    }
    const espeak_ERROR r =
        espeak_Synth(text.c_str(), text.size() + 1, 0, POS_CHARACTER, 0, espeakCHARS_UTF8,
                     nullptr, reinterpret_cast<void*>(static_cast<uintptr_t>(u->token)));
    if (r != EE_OK) {
        forget(u);
        std::lock_guard lock(u->mutex);
        if (u->wav) {
            std::fclose(u->wav);
            u->wav = nullptr;
            std::remove(u->partPath.c_str());
        }
        return false;
    }
    rt.active = u;
    who->utterance = u->token;
    return true;
}

// Counts a user of espeak-ng's state for as long as it lives.
struct Lease {
    Lease() { ++runtime().users; }
    ~Lease() { --runtime().users; }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
};

class Synthesizer : public SpeechSynthesizer {
  public:
    explicit Synthesizer(std::shared_ptr<MainLoop> loop)
        : loop_(std::move(loop)), voice_(runtime().defaultVoice) {}
    ~Synthesizer() override { stopSpeaking(); }

    bool setVoice(const std::string& id) override {
        auto& voices = runtime().voices;
        if (std::find(voices.begin(), voices.end(), id) == voices.end()) return false;
        voice_ = id;
        return true;
    }
    std::string voice() const override { return voice_; }
    void setRate(float wordsPerMinute) override {
        if (std::isfinite(wordsPerMinute) && wordsPerMinute > 0) rate_ = wordsPerMinute;
    }
    float rate() const override { return rate_; }
    void setVolume(float volume) override {
        if (std::isfinite(volume)) volume_ = std::clamp(volume, 0.0f, 1.0f);
    }
    float volume() const override { return volume_; }

    bool startSpeakingString(const std::string& text) override {
        if (isSpeaking()) stopSpeaking();
        return speak(loop_, state_, text, {voice_, espeakRate(rate_), espeakVolume(volume_)});
    }
    void stopSpeaking() override {
        auto& rt = runtime();
        if (!state_->utterance) return;
        if (rt.active && rt.active->token == state_->utterance) return stopUtterance(rt.active);
        state_->utterance = 0;
        loop_->post([weak = std::weak_ptr<SynthState>(state_)] {
            if (auto s = weak.lock())
                if (auto cb = s->callback) cb(false);
        });
    }
    bool isSpeaking() const override { return state_->utterance != 0; }
    void setDidFinishSpeaking(std::function<void(bool)> callback) override {
        state_->callback = std::move(callback);
    }

  private:
    Lease lease_;
    std::shared_ptr<MainLoop> loop_;
    std::shared_ptr<SynthState> state_ = std::make_shared<SynthState>();
    std::string voice_;
    float rate_ = 180;
    float volume_ = 1;
};

class Engine : public SpeechEngine {
  public:
    explicit Engine(std::shared_ptr<MainLoop> loop) : loop_(std::move(loop)) {}
    std::vector<std::string> availableVoices() override { return runtime().voices; }
    std::string defaultVoice() override { return runtime().defaultVoice; }
    std::unique_ptr<SpeechSynthesizer> createSynthesizer() override {
        return std::make_unique<Synthesizer>(loop_);
    }

  private:
    Lease lease_;
    std::shared_ptr<MainLoop> loop_;
};

bool initialize(const std::string& wavDirectory, std::string* why) {
    auto& rt = runtime();
    if (rt.initialized && rt.wavDirectory == wavDirectory) return true;
    if (rt.initialized) {
        if (rt.users > 0) {
            *why = "espeak-ng already " +
                   (rt.wavDirectory.empty() ? std::string("plays to the sound device")
                                            : "renders to " + rt.wavDirectory) +
                   " in this process";
            return false;
        }
        espeak_Terminate();
        rt.initialized = false;
    }
    const int rate =
        espeak_Initialize(wavDirectory.empty() ? AUDIO_OUTPUT_PLAYBACK : AUDIO_OUTPUT_RETRIEVAL,
                          50, nullptr, espeakINITIALIZE_DONT_EXIT);
    if (rate <= 0) {
        *why = "espeak-ng could not start (are its data files installed?)";
        return false;
    }
    espeak_SetSynthCallback(onSynth);
    std::vector<detail::VoiceCandidate> voices;
    if (const espeak_VOICE** list = espeak_ListVoices(nullptr))
        for (; *list; ++list)
            if ((*list)->identifier)
                voices.push_back({(*list)->identifier,
                                  (*list)->languages ? (*list)->languages + 1 : ""});
    rt.voices.clear();
    for (auto& v : voices) rt.voices.push_back(v.id);
    rt.defaultVoice = detail::pickVoiceForLocale(voices, detail::userLocale(), "gmw/en");
    rt.appliedVoice.clear();
    rt.sampleRate = rate;
    rt.wavDirectory = wavDirectory;
    rt.initialized = true;
    return true;
}

}  // namespace

std::shared_ptr<SpeechEngine> makeEspeakEngine(std::shared_ptr<MainLoop> loop, std::string* why) {
    EspeakOptions options;
    if (const char* dir = std::getenv("ORV_ESPEAK_WAV_DIR"); dir && *dir)
        options.wavDirectory = dir;
    return makeEspeakEngine(std::move(loop), options, why);
}

std::shared_ptr<SpeechEngine> makeEspeakEngine(std::shared_ptr<MainLoop> loop,
                                               const EspeakOptions& options, std::string* why) {
    std::string error;
    if (!loop) error = "no main loop";
    if (error.empty() && !options.wavDirectory.empty()) {
        mkdir(options.wavDirectory.c_str(), 0755);
        struct stat st {};
        if (stat(options.wavDirectory.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
            error = "no directory " + options.wavDirectory + " to render speech into";
    }
    if (!error.empty() || !initialize(options.wavDirectory, &error)) {
        if (why) *why = error;
        return nullptr;
    }
    return std::make_shared<Engine>(std::move(loop));
}

}  // namespace orv::linuxdesk

#endif  // ORV_HAVE_ESPEAK
