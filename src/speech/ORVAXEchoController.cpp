#include "speech/ORVAXEchoController.h"

#include <algorithm>

#include "Common/OrvLogger.h"
#include "platform/Platform.h"
#include "speech/ORVAXSpeechDirectiveController.h"

namespace orv {

namespace {

constexpr float kFocusInitialDelay = 0.1f;
constexpr float kMouseInitialDelay = 0.5f;
constexpr float kInterTextDelay = 0.25f;

struct EchoState {
    bool speechEnabled = false;
    bool magnificationEnabled = false;
    bool focusEchoEnabled = false;
    bool dockEchoEnabled = false;
    bool mouseEchoEnabled = false;
    bool focusEchoSimplified = false;
    uint32_t mouseEchoCondition = ORVAXEchoController::kMouseEchoAlways;
    std::optional<std::string> echoVoice;
    float echoRate = 180.0f;
    float echoVolume = 1.0f;
    int32_t keyModifiers = 0;
    bool stopKeyHeld = false;
    ORVAXEchoPlayerRef currentPlayer;
    std::optional<std::string> lastFocusDescription;
    std::shared_ptr<ORVAXEchoController> instance;
    bool initialized = false;
};

EchoState& state() {
    static EchoState s;
    return s;
}

bool hasText(const std::optional<std::string>& s) {
    return s && !s->empty();
}

void dropPlayer() {
    auto& s = state();
    if (s.currentPlayer) s.currentPlayer->cancel();
    s.currentPlayer.reset();
}

// The monitor runs while the held modifiers are exactly the condition's key. The pairing is the
// magnifier's, not the identity: condition 4 stands for bit 2.
int32_t conditionKeyBit(uint32_t condition) {
    switch (condition) {
        case 1:
            return 1;
        case 4:
            return 2;
        case 8:
            return 8;
        default:
            return 0;
    }
}

// Value changes of elements we never subscribed to through a wrapper: said again while focused,
// forgotten once the element is no longer focused or cannot tell.
void valueChangedCallback(AXObserver& observer, const AXUIElementRef& element,
                          const std::string& notification, void*) {
    if (notification != "AXValueChanged") return;
    static const std::string kFocused = "AXFocused";
    AXValue value;
    AXError err;
    try {
        err = axAPI().copyAttributeValue(element, kFocused, &value);
    } catch (const std::exception&) {
        err = kAXErrorFailure;
    }
    if (err != kAXErrorSuccess) {
        OrvLogger::addWarningMessageWithFormat("ValueChangedCallback:%@ failed - %d", kFocused,
                                               err);
    } else if (const bool* focused = value.get<bool>(); !focused) {
        OrvLogger::addWarningMessageWithFormat(
            "ValueChangedCallback:%@ returned unexpected type - %lu", kFocused, value.typeID());
    } else if (*focused) {
        if (auto d = ORVAXSpeechDirectiveController::speechDirectiveForElement(
                ORVAXElement::newForElement(element)))
            ORVAXEchoController::processSpeechDirective(d);
        return;
    }
    observer.removeNotification(element, notification);
}

}  // namespace

// --- Class level

void ORVAXEchoController::initialize() {
    auto& s = state();
    if (s.initialized) return;
    s.initialized = true;
    auto shared = instance();
    shared->mouseEchoController_->setDelegate(shared);
    ORVAXFocusEchoController::setDelegate(shared);
}

std::shared_ptr<ORVAXEchoController> ORVAXEchoController::instance() {
    auto& s = state();
    if (!s.instance) {
        s.instance = std::make_shared<ORVAXEchoController>(Passkey());
        s.instance->init();
    }
    initialize();
    return s.instance;
}

void ORVAXEchoController::setSpeechEnabled(bool enabled) {
    initialize();
    state().speechEnabled = enabled;
    if (!enabled) dropPlayer();
}

void ORVAXEchoController::setMagnificationEnabled(bool enabled) {
    initialize();
    state().magnificationEnabled = enabled;
    if (!enabled) dropPlayer();
}

void ORVAXEchoController::enableFocusEcho(bool enabled) {
    initialize();
    state().focusEchoEnabled = enabled;
    state().dockEchoEnabled = enabled;
    if (enabled)
        ORVAXFocusEchoController::enable();
    else
        ORVAXFocusEchoController::shutdown();
}

void ORVAXEchoController::enableFocusEchoContext(bool detailed) {
    initialize();
    auto& s = state();
    s.focusEchoSimplified = !detailed;
    // The last echo, finished or not, is said again in the new style.
    if (auto player = s.currentPlayer) {
        player->cancel();
        if (auto d = player->directive(); d && d->sourceSpeechDirective)
            processSpeechDirective(d->sourceSpeechDirective);
    }
}

void ORVAXEchoController::enableMouseEcho(bool enabled) {
    initialize();
    auto& s = state();
    if (enabled == s.mouseEchoEnabled) return;
    // Held-key conditions start the monitor when their key goes down.
    if (enabled && s.mouseEchoCondition != kMouseEchoAlways) {
        s.mouseEchoEnabled = true;
        return;
    }
    auto& monitor = instance()->mouseEchoController_;
    if (enabled)
        monitor->enable();
    else
        monitor->disable();
    s.mouseEchoEnabled = enabled;
}

void ORVAXEchoController::setMouseEchoCondition(uint32_t condition) {
    initialize();
    auto& s = state();
    if (condition == s.mouseEchoCondition) return;
    if (condition == 1 || condition == 4 || condition == 8 || condition == kMouseEchoAlways)
        s.mouseEchoCondition = condition;
    if (!s.mouseEchoEnabled) return;
    auto& monitor = instance()->mouseEchoController_;
    if (s.mouseEchoCondition == kMouseEchoAlways)
        monitor->enable();
    else
        monitor->disable();
}

void ORVAXEchoController::setEchoVoice(const std::optional<std::string>& voice) {
    initialize();
    auto p = installedPlatform();
    if (!voice || !p || !p->speech) return;
    const auto voices = p->speech->availableVoices();
    if (std::find(voices.begin(), voices.end(), *voice) != voices.end()) state().echoVoice = voice;
}

void ORVAXEchoController::setEchoRate(float rate) {
    initialize();
    if (rate >= kMinimumRate && rate <= kMaximumRate) state().echoRate = rate;
}

void ORVAXEchoController::setEchoVolume(float volume) {
    initialize();
    if (volume >= 0.0f && volume <= 1.0f) state().echoVolume = volume;
}

void ORVAXEchoController::modKeysUpdated(int32_t modifiers) {
    initialize();
    auto& s = state();
    const bool wasHeld = s.stopKeyHeld;
    s.keyModifiers = modifiers;
    s.stopKeyHeld = (modifiers & kStopKeyBit) != 0;
    // Pressing the key silences echo; holding it does not repeat.
    if (s.stopKeyHeld && !wasHeld) cancelPlayingDirective();
    if (!s.mouseEchoEnabled || s.mouseEchoCondition == kMouseEchoAlways) return;
    const int32_t key = conditionKeyBit(s.mouseEchoCondition);
    auto& monitor = instance()->mouseEchoController_;
    if (modifiers != 0 && modifiers == key)
        monitor->enable();
    else
        monitor->disable();
}

void ORVAXEchoController::processSpeechDirective(const ORVAXSpeechDirectiveRef& directive) {
    initialize();
    auto& s = state();
    if (!directive || !(s.magnificationEnabled && s.speechEnabled)) return;
    float initialDelay = kFocusInitialDelay;
    bool simplified = false;
    switch (directive->source) {
        case ORVAXSpeechDirective::kSourceFocus:
            if (!s.focusEchoEnabled) return;
            simplified = s.focusEchoSimplified;
            break;
        case ORVAXSpeechDirective::kSourceDock:
            if (!s.dockEchoEnabled) return;
            simplified = true;
            break;
        case ORVAXSpeechDirective::kSourceMouse:
            if (!s.mouseEchoEnabled) return;
            simplified = !directive->associatedElementIsDescendantOfMenuItem;
            initialDelay = kMouseInitialDelay;
            break;
        case ORVAXSpeechDirective::kSourceSelfVoice:
            break;
        default:
            OrvLogger::addWarningMessageWithFormat(
                "Received request to process speech directive from unknown source: %i",
                directive->source);
            return;
    }

    auto echo = ORVAXEchoDirective::make();
    echo->voice = s.echoVoice;
    echo->voiceRate = s.echoRate;
    echo->voiceVolume = s.echoVolume;
    echo->initialDelay = initialDelay;
    echo->interTextDelay = kInterTextDelay;
    echo->sourceSpeechDirective = directive;
    if (simplified) {
        if (hasText(directive->simplifiedDescription))
            echo->text.push_back(*directive->simplifiedDescription);
    } else if (hasText(directive->detailedDescription)) {
        echo->text.push_back(*directive->detailedDescription);
        if (hasText(directive->extraInfo)) echo->text.push_back(*directive->extraInfo);
    }
    // Nothing to say leaves whatever is speaking alone.
    playDirective(echo->text.empty() ? nullptr : echo);
}

void ORVAXEchoController::playDirective(const ORVAXEchoDirectiveRef& directive) {
    initialize();
    if (!directive) return;
    auto& s = state();
    if (s.currentPlayer) s.currentPlayer->cancel();
    s.currentPlayer = ORVAXEchoPlayer::playerForDirective(directive);
}

void ORVAXEchoController::cancelPlayingDirective() {
    initialize();
    if (auto player = state().currentPlayer) player->cancel();
}

void ORVAXEchoController::selfVoice(const std::string& text) {
    initialize();
    // Never cuts off focus or mouse echo; a newer text cuts off an older one.
    if (auto player = state().currentPlayer; player && player->isBusy()) {
        auto d = player->directive();
        if (!d || !d->sourceSpeechDirective ||
            d->sourceSpeechDirective->source != ORVAXSpeechDirective::kSourceSelfVoice)
            return;
    }
    auto directive = ORVAXSpeechDirective::make();
    directive->source = ORVAXSpeechDirective::kSourceSelfVoice;
    directive->detailedDescription = text;
    processSpeechDirective(directive);
}

bool ORVAXEchoController::speechEnabled() {
    return state().speechEnabled;
}
bool ORVAXEchoController::magnificationEnabled() {
    return state().magnificationEnabled;
}
bool ORVAXEchoController::focusEchoEnabled() {
    return state().focusEchoEnabled;
}
bool ORVAXEchoController::dockEchoEnabled() {
    return state().dockEchoEnabled;
}
bool ORVAXEchoController::mouseEchoEnabled() {
    return state().mouseEchoEnabled;
}
bool ORVAXEchoController::focusEchoSimplified() {
    return state().focusEchoSimplified;
}
uint32_t ORVAXEchoController::mouseEchoCondition() {
    return state().mouseEchoCondition;
}
std::optional<std::string> ORVAXEchoController::echoVoice() {
    return state().echoVoice;
}
float ORVAXEchoController::echoRate() {
    return state().echoRate;
}
float ORVAXEchoController::echoVolume() {
    return state().echoVolume;
}
int32_t ORVAXEchoController::keyModifiers() {
    return state().keyModifiers;
}
ORVAXEchoPlayerRef ORVAXEchoController::currentPlayer() {
    return state().currentPlayer;
}
std::optional<std::string> ORVAXEchoController::lastFocusDescription() {
    return state().lastFocusDescription;
}

void ORVAXEchoController::resetForTesting() {
    auto& s = state();
    dropPlayer();
    if (auto shared = s.instance) {
        if (ORVAXFocusEchoController::delegate() == shared)
            ORVAXFocusEchoController::setDelegate(nullptr);
        // The monitor holds the instance as its delegate: break the cycle so both go.
        shared->mouseEchoController_->setDelegate(nullptr);
        shared->mouseEchoController_->disable();
    }
    s = EchoState{};
}

// --- The shared instance

ORVAXEchoController::ORVAXEchoController(Passkey)
    : mouseEchoController_(ORVAXMouseEchoController::create()) {}

ORVAXEchoController::~ORVAXEchoController() {
    if (valueObserved_) valueObserved_->unobserve("AXValueChanged", valueSubscription_);
    if (auto workspace = workspace_.lock())
        workspace->didTerminateApplication.disconnect(terminationConnection_);
}

void ORVAXEchoController::init() {
    auto p = installedPlatform();
    if (!p || !p->workspace) return;
    workspace_ = p->workspace;
    std::weak_ptr<ORVAXEchoController> weak = weak_from_this();
    terminationConnection_ =
        p->workspace->didTerminateApplication.connect([weak](const RunningApplication& app) {
            if (auto self = weak.lock()) self->appTerminated(app);
        });
}

void ORVAXEchoController::focusEchoControllerIdentifiedAnItemOfInterest(
    const ORVAXElementRef& element) {
    auto& s = state();
    ORVAXSpeechDirectiveRef directive =
        element ? ORVAXSpeechDirectiveController::speechDirectiveForElement(element)
                : ORVAXSpeechDirective::make();
    if (!directive) return;
    // The same thing is not said twice in a row; no text never counts as the same, so an element
    // given as nil makes the next one be said whatever it is.
    if (directive->simplifiedDescription &&
        directive->simplifiedDescription == s.lastFocusDescription)
        return;
    s.lastFocusDescription = directive->simplifiedDescription;
    directive->completionHandler = ORVAXFocusEchoController::completionHandler();
    processSpeechDirective(directive);
    if (!element) return;
    const auto role = element->getRole();
    if (role == "AXCheckBox" || role == "AXSlider" || role == "AXStaticText")
        observeValueChanges(element);
}

void ORVAXEchoController::observeValueChanges(const ORVAXElementRef& element) {
    if (element == valueObserved_) return;
    // Only the latest focused element can still be focused: the one before is let go.
    if (valueObserved_) valueObserved_->unobserve("AXValueChanged", valueSubscription_);
    valueObserved_ = element;
    valueSubscription_ = element->observe("AXValueChanged", [](const ORVAXEventRef& event) {
        const ORVAXElementRef& changed = event->data() ? event->data() : event->context();
        if (!changed || !changed->isFocused()) return;
        if (auto d = ORVAXSpeechDirectiveController::speechDirectiveForElement(changed))
            processSpeechDirective(d);
    });
}

void ORVAXEchoController::mouseEchoControllerIdentifiedAnItemOfInterest(
    ORVAXMouseEchoController&, const AXUIElementRef& element) {
    auto directive = ORVAXSpeechDirectiveController::speechDirectiveForElement(
        ORVAXElement::newForElement(element));
    if (!directive) return;
    directive->source = ORVAXSpeechDirective::kSourceMouse;
    // The monitor already called from the main thread; this keeps that promise explicit.
    mainLoop().postAndWait([directive] { processSpeechDirective(directive); });
}

AXObserverRef ORVAXEchoController::observerForElement(const ORVAXElementRef& element) {
    if (!element) return nullptr;
    const pid_t pid = element->getPid();
    if (auto it = observerMap_.find(pid); it != observerMap_.end())
        if (auto observer = it->second.lock()) return observer;
    AXObserverRef observer;
    if (axAPI().createObserver(pid, valueChangedCallback, &observer) != kAXErrorSuccess ||
        !observer)
        return nullptr;
    observer->attachToMainLoop();
    observerMap_[pid] = observer;
    return observer;
}

void ORVAXEchoController::appTerminated(const RunningApplication& application) {
    observerMap_.erase(application.pid);
}

}  // namespace orv
