#include "platform/sim/SimServices.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "platform/sim/SimDesktop.h"

namespace orv::sim {

// --- Workspace

std::vector<RunningApplication> SimWorkspace::runningApplications() {
    std::vector<RunningApplication> out;
    for (SimApp* app : desk_.applications()) out.push_back(app->info());
    return out;
}

std::optional<RunningApplication> SimWorkspace::frontmostApplication() {
    if (SimApp* app = desk_.frontmost()) return app->info();
    return std::nullopt;
}

std::optional<RunningApplication> SimWorkspace::runningApplicationWithProcessIdentifier(pid_t pid) {
    if (SimApp* app = desk_.application(pid)) return app->info();
    return std::nullopt;
}

std::vector<RunningApplication> SimWorkspace::runningApplicationsWithBundleIdentifier(
    const std::string& bundleIdentifier) {
    std::vector<RunningApplication> out;
    for (SimApp* app : desk_.applications())
        if (app->bundleIdentifier() == bundleIdentifier) out.push_back(app->info());
    return out;
}

bool SimWorkspace::launchApplication(const std::string& path,
                                     const std::vector<std::string>& arguments,
                                     std::string* error) {
    launches_.push_back(Launch{path, arguments});
    if (launchError_) {
        if (error) *error = *launchError_;
        return false;
    }
    return true;
}

bool SimWorkspace::runSystemScript(const std::string& source, std::string* error) {
    scripts_.push_back(source);
    if (scriptError_) {
        if (error) *error = *scriptError_;
        return false;
    }
    return true;
}

std::string SimWorkspace::pathForAuxiliaryExecutable(const std::string& name) {
    auto it = auxiliary_.find(name);
    return it == auxiliary_.end() ? std::string() : it->second;
}

// --- Displays

SimDisplays::SimDisplays() : displays_{Display{1, Rect(0, 0, 1440, 900)}}, main_(1) {}

const SimDisplays::Display* SimDisplays::find(DisplayID id) const {
    for (auto& d : displays_)
        if (d.id == id) return &d;
    return nullptr;
}

double SimDisplays::mainHeight() const {
    const Display* m = find(main_);
    return m ? m->bounds.size.height : 0;
}

Displays::DisplayID SimDisplays::mainDisplayID() {
    return main_;
}

Rect SimDisplays::displayBounds(DisplayID display) {
    const Display* d = find(display);
    return d ? d->bounds : Rect::zero();
}

int32_t SimDisplays::getDisplaysWithPoint(Point point, DisplayID* display, uint32_t* count) {
    if (count) *count = 0;
    if (lookupError_) return lookupError_;
    for (auto& d : displays_) {
        if (d.bounds.contains(point)) {
            if (display) *display = d.id;
            if (count) *count = 1;
            break;
        }
    }
    return 0;
}

std::vector<Rect> SimDisplays::screenFrames() {
    const double h = mainHeight();
    auto frame = [h](const Rect& b) {
        return Rect(b.origin.x, h - (b.origin.y + b.size.height), b.size.width, b.size.height);
    };
    std::vector<Rect> out;
    if (const Display* m = find(main_)) out.push_back(frame(m->bounds));
    for (auto& d : displays_)
        if (d.id != main_) out.push_back(frame(d.bounds));
    return out;
}

Point SimDisplays::mouseLocation() {
    std::lock_guard lock(mouseMutex_);
    return mouse_;
}

void SimDisplays::setDisplays(std::vector<Display> displays, DisplayID mainDisplay) {
    displays_ = std::move(displays);
    main_ = mainDisplay;
}

Displays::DisplayID SimDisplays::addDisplay(Rect bounds) {
    DisplayID id = 1;
    for (auto& d : displays_) id = std::max(id, d.id + 1);
    displays_.push_back(Display{id, bounds});
    return id;
}

void SimDisplays::setMouseLocation(Point location) {
    std::lock_guard lock(mouseMutex_);
    mouse_ = location;
}

void SimDisplays::setMouseLocationTopLeft(Point location) {
    setMouseLocation(Point{location.x, mainHeight() - location.y});
}

// --- Speech

namespace {

class SimSynthesizer : public SpeechSynthesizer {
  public:
    SimSynthesizer(std::shared_ptr<MainLoop> loop, std::shared_ptr<SimSpeechEngine::Log> log,
                   std::vector<std::string> voices, std::string voice)
        : loop_(std::move(loop)),
          log_(std::move(log)),
          voices_(std::move(voices)),
          voice_(std::move(voice)),
          number_(++log_->synthesizers) {}

    ~SimSynthesizer() override {
        if (timer_) timer_->invalidate();
        end(false);
    }

    bool setVoice(const std::string& voiceIdentifier) override {
        if (std::find(voices_.begin(), voices_.end(), voiceIdentifier) == voices_.end())
            return false;
        voice_ = voiceIdentifier;
        return true;
    }
    std::string voice() const override { return voice_; }
    void setRate(float wordsPerMinute) override { rate_ = wordsPerMinute; }
    float rate() const override { return rate_; }
    void setVolume(float volume) override { volume_ = std::clamp(volume, 0.0f, 1.0f); }
    float volume() const override { return volume_; }

    bool startSpeakingString(const std::string& text) override {
        if (log_->failStart) return false;
        // A new utterance interrupts the one under way.
        if (isSpeaking()) stopSpeaking();
        log_->utterances.push_back(SimSpeechEngine::Utterance{text, voice_, rate_, volume_,
                                                              loop_->now(), -1, false, number_});
        current_ = log_->utterances.size() - 1;
        timer_ =
            loop_->scheduleTimer(SimSpeechEngine::durationFor(text, rate_), false, [this](Timer&) {
                end(true);
                report(true);
            });
        return true;
    }

    void stopSpeaking() override {
        if (!isSpeaking()) return;
        if (timer_) timer_->invalidate();
        end(false);
        // The platform reports the end on a later turn, so a delegate removed right after
        // stopping hears nothing.
        loop_->post([weak = std::weak_ptr<State>(state_)] {
            if (auto s = weak.lock())
                if (auto cb = s->callback) cb(false);
        });
    }

    bool isSpeaking() const override { return current_ != kNone; }

    void setDidFinishSpeaking(std::function<void(bool finished)> callback) override {
        state_->callback = std::move(callback);
    }

  private:
    struct State {
        std::function<void(bool)> callback;
    };
    static constexpr size_t kNone = static_cast<size_t>(-1);

    void end(bool finished) {
        if (current_ == kNone) return;
        if (current_ < log_->utterances.size()) {
            auto& u = log_->utterances[current_];
            u.end = loop_->now();
            u.finished = finished;
        }
        current_ = kNone;
    }

    void report(bool finished) {
        if (auto cb = state_->callback) cb(finished);
    }

    std::shared_ptr<MainLoop> loop_;
    std::shared_ptr<SimSpeechEngine::Log> log_;
    std::vector<std::string> voices_;
    std::string voice_;
    float rate_ = SimSpeechEngine::kDefaultRate;
    float volume_ = 1.0f;
    int number_;
    size_t current_ = kNone;
    TimerRef timer_;
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace

double SimSpeechEngine::durationFor(const std::string& text, float wordsPerMinute) {
    double words = std::max(1.0, TextLayout::utf16Length(text) / 5.0);
    double rate = wordsPerMinute > 0 ? wordsPerMinute : kDefaultRate;
    return words * 60.0 / rate;
}

SimSpeechEngine::SimSpeechEngine(SimDesktop& desktop)
    : desk_(desktop),
      voices_{"sim.voice.anna", "sim.voice.bruno", "sim.voice.clara"},
      defaultVoice_("sim.voice.anna"),
      log_(std::make_shared<Log>()) {}

std::unique_ptr<SpeechSynthesizer> SimSpeechEngine::createSynthesizer() {
    return std::make_unique<SimSynthesizer>(desk_.loopRef(), log_, voices_, defaultVoice_);
}

void SimSpeechEngine::setVoices(std::vector<std::string> voices, std::string defaultVoice) {
    voices_ = std::move(voices);
    defaultVoice_ = std::move(defaultVoice);
}

std::vector<std::string> SimSpeechEngine::spokenTexts() const {
    std::vector<std::string> out;
    for (auto& u : log_->utterances) out.push_back(u.text);
    return out;
}

// --- Message ports

struct SimMessagePorts::Registry {
    struct Port {
        std::string name;
        Handler handler;
        bool valid = true;
    };
    std::map<std::string, std::weak_ptr<Port>> ports;
    size_t delivered = 0;

    std::shared_ptr<Port> find(const std::string& name) {
        auto it = ports.find(name);
        if (it == ports.end()) return nullptr;
        auto port = it->second.lock();
        return port && port->valid ? port : nullptr;
    }
};

namespace {

class SimLocalPort : public LocalMessagePort {
  public:
    using Port = SimMessagePorts::Registry::Port;
    SimLocalPort(std::shared_ptr<Port> port, std::weak_ptr<SimMessagePorts::Registry> registry)
        : port_(std::move(port)), registry_(std::move(registry)) {}
    ~SimLocalPort() override { invalidate(); }

    void invalidate() override {
        if (!port_->valid) return;
        port_->valid = false;
        port_->handler = nullptr;
        if (auto reg = registry_.lock()) {
            auto it = reg->ports.find(port_->name);
            if (it != reg->ports.end() && it->second.lock() == port_) reg->ports.erase(it);
        }
    }
    bool isValid() const override { return port_->valid; }

  private:
    std::shared_ptr<Port> port_;
    std::weak_ptr<SimMessagePorts::Registry> registry_;
};

}  // namespace

SimMessagePorts::SimMessagePorts(SimDesktop& desktop)
    : desk_(desktop), registry_(std::make_shared<Registry>()) {}

std::shared_ptr<LocalMessagePort> SimMessagePorts::createLocal(const std::string& name,
                                                               Handler handler) {
    if (failCreate_ || !handler || registry_->find(name)) return nullptr;
    auto port = std::make_shared<Registry::Port>(Registry::Port{name, std::move(handler), true});
    registry_->ports[name] = port;
    return std::make_shared<SimLocalPort>(port, registry_);
}

int32_t SimMessagePorts::sendRequest(const std::string& name, int32_t msgid,
                                     const std::vector<uint8_t>& data, double timeoutSeconds,
                                     std::vector<uint8_t>* reply) {
    auto port = registry_->find(name);
    if (!port) return kIsInvalid;
    struct Call {
        std::mutex m;
        std::vector<uint8_t> reply;
        bool done = false;
    };
    auto call = std::make_shared<Call>();
    auto registry = registry_;
    // On the main thread this runs at once; from another thread it waits for the main loop.
    bool ran = desk_.loop().postAndWait(
        [call, port, registry, msgid, data] {
            if (!port->valid) return;
            auto answer = port->handler(msgid, data);
            ++registry->delivered;
            std::lock_guard lock(call->m);
            call->reply = std::move(answer);
            call->done = true;
        },
        timeoutSeconds > 0 ? timeoutSeconds : -1);
    if (!ran) return kReceiveTimeout;
    std::lock_guard lock(call->m);
    if (!call->done) return kIsInvalid;
    if (reply) *reply = call->reply;
    return 0;
}

bool SimMessagePorts::hasPort(const std::string& name) const {
    return registry_->find(name) != nullptr;
}

size_t SimMessagePorts::messagesDelivered() const {
    return registry_->delivered;
}

// --- User defaults

void SimUserDefaults::registerDefaults(const std::map<std::string, std::string>& defaults) {
    for (auto& [k, v] : defaults) registered_[k] = v;
}

std::optional<std::string> SimUserDefaults::stringForKey(const std::string& key) {
    if (auto it = values_.find(key); it != values_.end()) return it->second;
    if (auto it = registered_.find(key); it != registered_.end()) return it->second;
    return std::nullopt;
}

bool SimUserDefaults::boolForKey(const std::string& key) {
    auto s = stringForKey(key);
    if (!s || s->empty()) return false;
    std::string lower = *s;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower == "yes" || lower == "true") return true;
    char* end = nullptr;
    double v = std::strtod(s->c_str(), &end);
    return end && *end == '\0' && end != s->c_str() && v != 0;
}

void SimUserDefaults::setString(const std::string& key, const std::string& value) {
    values_[key] = value;
}

// --- Application host

SimApplicationHost::SimApplicationHost(SimDesktop& desktop)
    : desk_(desktop), executablePath_("/opt/ocuvane/bin/ocuvane-agent") {
    arguments_ = {executablePath_};
}

void SimApplicationHost::terminate() {
    ++terminateRequests_;
    desk_.loop().post([weak = desk_.weak_from_this()] {
        auto desk = weak.lock();
        if (!desk) return;
        SimApplicationHost& host = desk->host();
        if (host.shouldTerminate && !host.shouldTerminate()) {
            ++host.refused_;
            return;
        }
        host.terminated_ = true;
        desk->loop().quit();
    });
}

void SimApplicationHost::activate() {
    desk_.loop().post([weak = desk_.weak_from_this()] {
        if (auto desk = weak.lock()) desk->host().didBecomeActive.emit();
    });
}

}  // namespace orv::sim
