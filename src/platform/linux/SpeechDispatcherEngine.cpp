#include "platform/linux/SpeechDispatcherEngine.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_set>

#include "Common/OrvLogger.h"

namespace orv::linuxdesk {
namespace {
// The espeak-ng module's shipped rate scale (modules/espeak-ng.conf).
constexpr float kModuleMinRate = 80;
constexpr float kModuleNormalRate = 170;
constexpr float kModuleMaxRate = 449;

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    std::replace(s.begin(), s.end(), '_', '-');
    return s;
}
}  // namespace

int speechDispatcherRate(float wpm) {
    if (!std::isfinite(wpm)) return 0;
    const float r = wpm >= kModuleNormalRate
                        ? (wpm - kModuleNormalRate) * 100 / (kModuleMaxRate - kModuleNormalRate)
                        : (wpm - kModuleNormalRate) * 100 / (kModuleNormalRate - kModuleMinRate);
    return std::clamp(static_cast<int>(std::lround(r)), -100, 100);
}

float speechDispatcherRateToWordsPerMinute(int rate) {
    rate = std::clamp(rate, -100, 100);
    // Integer arithmetic, as the module does it.
    const int normal = static_cast<int>(kModuleNormalRate);
    const int span = rate < 0 ? normal - static_cast<int>(kModuleMinRate)
                              : static_cast<int>(kModuleMaxRate) - normal;
    return static_cast<float>(normal + span * rate / 100);
}

int speechDispatcherVolume(float volume) {
    if (!std::isfinite(volume)) return 100;
    return std::clamp(static_cast<int>(std::lround(volume * 200 - 100)), -100, 100);
}

std::string speechDispatcherVoiceId(const std::string& module, const std::string& voiceName) {
    return module + "/" + voiceName;
}

bool splitSpeechDispatcherVoiceId(const std::string& id, std::string* module,
                                  std::string* voiceName) {
    const auto slash = id.find('/');
    if (slash == std::string::npos || slash == 0 || slash + 1 >= id.size()) return false;
    if (module) *module = id.substr(0, slash);
    if (voiceName) *voiceName = id.substr(slash + 1);
    return true;
}

namespace detail {

std::string pickVoiceForLocale(const std::vector<VoiceCandidate>& voices,
                               const std::string& locale, const std::string& fallback) {
    if (voices.empty()) return {};
    std::string loc = locale.substr(0, locale.find_first_of(".@"));
    if (loc.empty() || loc == "C" || loc == "POSIX") loc = "en";
    loc = lower(loc);
    const std::string language = loc.substr(0, loc.find('-'));
    auto find = [&](auto&& match) -> const VoiceCandidate* {
        for (auto& v : voices)
            if (match(lower(v.language))) return &v;
        return nullptr;
    };
    if (loc != language)
        if (auto* v = find([&](const std::string& l) { return l == loc; })) return v->id;
    if (auto* v = find([&](const std::string& l) { return l == language; })) return v->id;
    if (auto* v = find([&](const std::string& l) { return l.rfind(language + "-", 0) == 0; }))
        return v->id;
    for (auto& v : voices)
        if (v.id == fallback) return v.id;
    return voices.front().id;
}

std::string userLocale() {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"})
        if (const char* v = std::getenv(name); v && *v) return v;
    return {};
}
}  // namespace detail

}  // namespace orv::linuxdesk

namespace orv::linuxdesk {
std::shared_ptr<SpeechEngine> makeSpeechDispatcherEngine(std::shared_ptr<MainLoop> loop,
                                                         std::string* why) {
    return makeSpeechDispatcherEngine(std::move(loop), SpeechDispatcherOptions{}, why);
}
}  // namespace orv::linuxdesk

#ifndef ORV_HAVE_SPEECHD

namespace orv::linuxdesk {
std::shared_ptr<SpeechEngine> makeSpeechDispatcherEngine(std::shared_ptr<MainLoop>,
                                                         const SpeechDispatcherOptions&,
                                                         std::string* why) {
    if (why) *why = "built without speech-dispatcher (libspeechd-dev was not found)";
    return nullptr;
}
}  // namespace orv::linuxdesk

#else
#include <libspeechd.h>
#include <pthread.h>
#include <signal.h>

namespace orv::linuxdesk {
namespace {

// A write to a daemon that just died raises SIGPIPE; keep it from ending a process that has not
// chosen to ignore it, and drop the one this thread caused.
class PipeSignalGuard {
  public:
    PipeSignalGuard() {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_, &old_);
        sigset_t pending;
        sigpending(&pending);
        wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    }
    ~PipeSignalGuard() {
        sigset_t pending;
        sigpending(&pending);
        if (!wasPending_ && sigismember(&pending, SIGPIPE) == 1) {
            timespec zero{0, 0};
            sigtimedwait(&pipe_, nullptr, &zero);
        }
        pthread_sigmask(SIG_SETMASK, &old_, nullptr);
    }
    PipeSignalGuard(const PipeSignalGuard&) = delete;
    PipeSignalGuard& operator=(const PipeSignalGuard&) = delete;
  private:
    sigset_t pipe_{}, old_{};
    bool wasPending_ = false;
};

SPDConnection* openConnection(const SpeechDispatcherOptions& options, const char* name,
                              SPDConnectionMode mode, std::string* error) {
    SPDConnectionAddress* address = nullptr;
    if (!options.address.empty()) {
        constexpr const char* kUnix = "unix_socket:";
        if (options.address.rfind(kUnix, 0) != 0) {
            *error = "unsupported speech-dispatcher address " + options.address;
            return nullptr;
        }
        address = static_cast<SPDConnectionAddress*>(calloc(1, sizeof(SPDConnectionAddress)));
        address->method = SPD_METHOD_UNIX_SOCKET;
        address->unix_socket_name = strdup(options.address.c_str() + strlen(kUnix));
    }
    char* err = nullptr;
    PipeSignalGuard guard;
    SPDConnection* c =
        spd_open2("ocuvane", name, nullptr, mode, address, options.autospawn ? 1 : 0, &err);
    SPDConnectionAddress__free(address);
    if (!c) *error = err ? err : "cannot connect to speech-dispatcher";
    free(err);
    return c;
}

std::string outputModule(SPDConnection* c) {
    char* m = spd_get_output_module(c);
    std::string module = m ? m : "";
    free(m);
    return module;
}

// --- The voice list: read once per address on a thread of its own, shared by later engines.

struct VoiceList {
    enum class State { Reading, Ready, Failed };
    std::mutex mutex;
    std::condition_variable changed;
    State state = State::Reading;
    std::vector<std::string> ids;
    std::unordered_set<std::string> idSet;
    std::string defaultVoice, error;
};

void readVoiceList(SpeechDispatcherOptions options, std::shared_ptr<VoiceList> list) {
    std::string error, defaultModule;
    std::vector<detail::VoiceCandidate> voices;
    if (SPDConnection* c = openConnection(options, "voices", SPD_MODE_SINGLE, &error)) {
        PipeSignalGuard guard;
        defaultModule = outputModule(c);
        if (char** modules = spd_list_modules(c)) {
            for (char** m = modules; *m; ++m) {
                if (std::strcmp(*m, "dummy") == 0 || spd_set_output_module(c, *m) != 0) continue;
                SPDVoice** list = spd_list_synthesis_voices(c);
                for (SPDVoice** v = list; v && *v; ++v)
                    if ((*v)->name)
                        voices.push_back({speechDispatcherVoiceId(*m, (*v)->name),
                                          (*v)->language ? (*v)->language : ""});
                free_spd_voices(list);
            }
            free_spd_modules(modules);
        }
        spd_close(c);
        if (voices.empty()) error = "speech-dispatcher lists no voices";
    }
    std::vector<detail::VoiceCandidate> ofDefault;
    for (auto& v : voices)
        if (v.id.rfind(defaultModule + "/", 0) == 0) ofDefault.push_back(v);
    std::lock_guard lock(list->mutex);
    list->defaultVoice =
        detail::pickVoiceForLocale(ofDefault.empty() ? voices : ofDefault, detail::userLocale());
    for (auto& v : voices) {
        list->ids.push_back(v.id);
        list->idSet.insert(v.id);
    }
    list->error = error;
    list->state = voices.empty() ? VoiceList::State::Failed : VoiceList::State::Ready;
    list->changed.notify_all();
}

std::shared_ptr<VoiceList> voiceListFor(const SpeechDispatcherOptions& options) {
    static std::mutex mutex;
    static std::map<std::string, std::shared_ptr<VoiceList>> lists;
    std::lock_guard lock(mutex);
    auto& list = lists[options.address];
    bool failed = false;
    if (list) {
        std::lock_guard l(list->mutex);
        failed = list->state == VoiceList::State::Failed;
    }
    if (!list || failed) {
        list = std::make_shared<VoiceList>();
        std::thread(readVoiceList, options, list).detach();
    }
    return list;
}

// --- Speaking: one connection per engine, shared by its synthesizers.

struct SynthState {
    std::function<void(bool)> callback;
    int message = 0;  // the daemon's id of the utterance under way, 0 when none
};

class Core;

// libspeechd's callbacks carry no user pointer: they find their engine by client id.
struct Route {
    std::weak_ptr<Core> core;
    std::shared_ptr<MainLoop> loop;
};
std::mutex g_routesMutex;
std::map<size_t, Route> g_routes;

void onSpeechdEvent(size_t message, size_t client, SPDNotificationType type);

class Core : public std::enable_shared_from_this<Core> {
  public:
    Core(std::shared_ptr<MainLoop> loop, SpeechDispatcherOptions options)
        : loop_(std::move(loop)), options_(std::move(options)) {}
    ~Core() { drop(); }
    struct Settings {
        std::string voice;
        int rate = 0;
        int volume = 100;
    };

    bool connect(std::string* why) {
        conn_ = openConnection(options_, "speech", SPD_MODE_THREADED, why);
        if (!conn_) return false;
        conn_->callback_end = onSpeechdEvent;
        conn_->callback_cancel = onSpeechdEvent;
        PipeSignalGuard guard;
        const int client = spd_get_client_id(conn_);
        if (client < 0) {
            *why = "speech-dispatcher did not tell its client id";
            drop();
            return false;
        }
        client_ = static_cast<size_t>(client);
        {
            std::lock_guard lock(g_routesMutex);
            g_routes[client_] = Route{weak_from_this(), loop_};
        }
        if (spd_set_notification_on(conn_, SPD_END) != 0 ||
            spd_set_notification_on(conn_, SPD_CANCEL) != 0) {
            *why = "speech-dispatcher refused end notifications";
            drop();
            return false;
        }
        defaultModule_ = outputModule(conn_);
        if (warned_) OrvLogger::addInfoMessage("speech-dispatcher: connected again");
        warned_ = false;
        return true;
    }
    // The first connection; on failure the engine waits out the interval like after an outage.
    bool start(std::string* why) { return connect(why) || fail(*why); }

    bool speak(const std::shared_ptr<SynthState>& who, const std::string& text,
               const Settings& settings) {
        if (text.find_first_not_of(" \t\r\n") == std::string::npos) return speakNothing(who);
        if (!conn_) {
            if (loop_->now() < nextAttempt_) return false;
            std::string why;
            if (!connect(&why)) return fail(why);
        }
        if (active_) interrupt();
        if (sayOnce(who, text, settings)) return true;
        // The daemon went away or was restarted: one fresh connection before giving up.
        drop();
        std::string why;
        if (!connect(&why)) return fail(why);
        if (sayOnce(who, text, settings)) return true;
        drop();
        return fail("speech-dispatcher does not accept text");
    }

    void stop(const std::shared_ptr<SynthState>& who) {
        if (!who->message) return;
        if (who->message == active_) return interrupt();
        outstanding_.erase(who->message);
        who->message = 0;
        reportLater(who, false);
    }

    void onEvent(int message, SPDNotificationType type) {
        auto it = outstanding_.find(message);
        if (it == outstanding_.end()) return;  // already stopped here
        auto owner = it->second.lock();
        outstanding_.erase(it);
        if (message == active_) active_ = 0;
        if (!owner || owner->message != message) return;
        owner->message = 0;
        if (auto cb = owner->callback) cb(type == SPD_EVENT_END);
    }

  private:
    static constexpr int kNothing = -1;

    // The daemon refuses empty text; an utterance of nothing ends at once, on a later turn.
    bool speakNothing(const std::shared_ptr<SynthState>& who) {
        who->message = kNothing;
        loop_->post([weak = std::weak_ptr<SynthState>(who)] {
            auto s = weak.lock();
            if (!s || s->message != kNothing) return;
            s->message = 0;
            if (auto cb = s->callback) cb(true);
        });
        return true;
    }

    bool fail(const std::string& why) {
        nextAttempt_ = loop_->now() + options_.reconnectInterval;
        if (!warned_)
            OrvLogger::addWarningMessage("speech-dispatcher: cannot speak, will retry: " + why);
        warned_ = true;
        return false;
    }

    bool sayOnce(const std::shared_ptr<SynthState>& who, const std::string& text,
                 const Settings& settings) {
        PipeSignalGuard guard;
        apply(settings);
        const int message = spd_say(conn_, SPD_TEXT, text.c_str());
        if (message <= 0) return false;
        outstanding_[message] = who;
        active_ = message;
        who->message = message;
        return true;
    }

    // The connection's settings are the last synthesizer's: send only what differs.
    void apply(const Settings& s) {
        std::string module, name;
        if (splitSpeechDispatcherVoiceId(s.voice, &module, &name)) {
            if (module != applied_.module && spd_set_output_module(conn_, module.c_str()) == 0) {
                applied_.module = module;
                applied_.voice.clear();
            }
            if (name != applied_.voice && spd_set_synthesis_voice(conn_, name.c_str()) == 0)
                applied_.voice = name;
        } else if (!applied_.module.empty() || !applied_.voice.empty()) {
            // Back to the daemon's own choice.
            if (!defaultModule_.empty()) spd_set_output_module(conn_, defaultModule_.c_str());
            spd_set_voice_type(conn_, SPD_MALE1);
            applied_.module.clear();
            applied_.voice.clear();
        }
        if (applied_.rate != s.rate && spd_set_voice_rate(conn_, s.rate) == 0)
            applied_.rate = s.rate;
        if (applied_.volume != s.volume && spd_set_volume(conn_, s.volume) == 0)
            applied_.volume = s.volume;
    }

    // One audio channel: the utterance under way ends, reported as stopped on a later turn.
    void interrupt() {
        {
            PipeSignalGuard guard;
            if (conn_) spd_cancel(conn_);
        }
        auto it = outstanding_.find(active_);
        if (it != outstanding_.end()) {
            if (auto owner = it->second.lock(); owner && owner->message == active_) {
                owner->message = 0;
                reportLater(owner, false);
            }
            outstanding_.erase(it);
        }
        active_ = 0;
    }

    void reportLater(const std::shared_ptr<SynthState>& who, bool finished) {
        loop_->post([weak = std::weak_ptr<SynthState>(who), finished] {
            if (auto s = weak.lock())
                if (auto cb = s->callback) cb(finished);
        });
    }

    void drop() {
        if (!conn_) return;
        {
            std::lock_guard lock(g_routesMutex);
            g_routes.erase(client_);
        }
        {
            PipeSignalGuard guard;
            spd_close(conn_);
        }
        conn_ = nullptr;
        applied_ = Applied{};
        for (auto& [message, weak] : outstanding_)
            if (auto owner = weak.lock(); owner && owner->message == message) {
                owner->message = 0;
                reportLater(owner, false);
            }
        outstanding_.clear();
        active_ = 0;
    }

    struct Applied {
        std::string module, voice;
        std::optional<int> rate, volume;
    };

    std::shared_ptr<MainLoop> loop_;
    SpeechDispatcherOptions options_;
    SPDConnection* conn_ = nullptr;
    size_t client_ = 0;
    std::string defaultModule_;
    Applied applied_;
    std::map<int, std::weak_ptr<SynthState>> outstanding_;
    int active_ = 0;
    double nextAttempt_ = 0;
    bool warned_ = false;
};

// On libspeechd's thread. spd_close cancels that thread, so no cancellation point may strike
// while a lock is held here.
void onSpeechdEvent(size_t message, size_t client, SPDNotificationType type) {
    int oldState = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &oldState);
    try {
        Route route;
        {
            std::lock_guard lock(g_routesMutex);
            if (auto it = g_routes.find(client); it != g_routes.end()) route = it->second;
        }
        if (route.loop)
            route.loop->post([core = route.core, message, type] {
                if (auto c = core.lock()) c->onEvent(static_cast<int>(message), type);
            });
    } catch (...) {
        // Nothing may unwind into libspeechd; a lost end is reported when the next one starts.
    }
    pthread_setcancelstate(oldState, nullptr);
}

class Synthesizer : public SpeechSynthesizer {
  public:
    Synthesizer(std::shared_ptr<Core> core, std::shared_ptr<VoiceList> voices)
        : core_(std::move(core)), voices_(std::move(voices)) {
        if (!voices_) return;  // the daemon's own default voice
        std::lock_guard lock(voices_->mutex);
        if (voices_->state == VoiceList::State::Ready) voice_ = voices_->defaultVoice;
    }
    ~Synthesizer() override { core_->stop(state_); }

    bool setVoice(const std::string& id) override {
        if (!splitSpeechDispatcherVoiceId(id, nullptr, nullptr)) return false;
        if (voices_) {
            // Before the list is in, a well-formed name is taken on trust.
            std::lock_guard lock(voices_->mutex);
            if (voices_->state == VoiceList::State::Ready && !voices_->idSet.count(id))
                return false;
        }
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
        return core_->speak(state_, text,
                            {voice_, speechDispatcherRate(rate_), speechDispatcherVolume(volume_)});
    }
    void stopSpeaking() override { core_->stop(state_); }
    bool isSpeaking() const override { return state_->message != 0; }
    void setDidFinishSpeaking(std::function<void(bool)> callback) override {
        state_->callback = std::move(callback);
    }

  private:
    std::shared_ptr<Core> core_;
    std::shared_ptr<VoiceList> voices_;
    std::shared_ptr<SynthState> state_ = std::make_shared<SynthState>();
    std::string voice_;
    float rate_ = 180;
    float volume_ = 1;
};

class Engine : public SpeechEngine {
  public:
    Engine(std::shared_ptr<Core> core, SpeechDispatcherOptions options)
        : core_(std::move(core)), options_(std::move(options)) {}

    std::vector<std::string> availableVoices() override {
        auto list = waitForList();
        std::lock_guard lock(list->mutex);
        return list->ids;
    }
    std::string defaultVoice() override {
        auto list = waitForList();
        std::lock_guard lock(list->mutex);
        return list->defaultVoice;
    }
    std::unique_ptr<SpeechSynthesizer> createSynthesizer() override {
        return std::make_unique<Synthesizer>(core_, voices_);
    }

  private:
    // The list is read only when first asked for (a voice chosen in the settings): the daemon
    // answers nobody else while it lists its voices, which held utterances up for a second.
    std::shared_ptr<VoiceList> waitForList() {
        if (voices_) {
            std::lock_guard lock(voices_->mutex);
            if (voices_->state == VoiceList::State::Failed) voices_.reset();
        }
        if (!voices_) voices_ = voiceListFor(options_);  // the daemon may be back
        std::unique_lock lock(voices_->mutex);
        const bool done =
            voices_->changed.wait_for(lock, std::chrono::duration<double>(options_.voiceListTimeout),
                                      [&] { return voices_->state != VoiceList::State::Reading; });
        if (!done)
            OrvLogger::addWarningMessage("speech-dispatcher: the voice list is not in yet");
        else if (voices_->state == VoiceList::State::Failed)
            OrvLogger::addWarningMessage("speech-dispatcher: no voice list: " + voices_->error);
        return voices_;
    }

    std::shared_ptr<Core> core_;
    SpeechDispatcherOptions options_;
    std::shared_ptr<VoiceList> voices_;
};

}  // namespace

std::shared_ptr<SpeechEngine> makeSpeechDispatcherEngine(std::shared_ptr<MainLoop> loop,
                                                         const SpeechDispatcherOptions& options,
                                                         std::string* why) {
    if (!loop) {
        if (why) *why = "no main loop";
        return nullptr;
    }
    auto core = std::make_shared<Core>(loop, options);
    std::string error;
    if (!core->start(&error) && why) *why = error;
    return std::make_shared<Engine>(std::move(core), options);
}

}  // namespace orv::linuxdesk

#endif  // ORV_HAVE_SPEECHD
