#pragma once

// Decides what is spoken and when. Holds the speech settings pushed from the magnifier, takes
// speech directives from focus echo, mouse echo and self voice, filters them by the settings and
// plays the chosen text through one echo player, cutting off whatever was playing.
//
// Almost everything is class-level; the one shared instance owns the mouse echo monitor and the
// per-application observers, and is the delegate of the monitor and of the focus echo gate. Main
// thread only.

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "accessibility/element/ORVAXElement.h"
#include "platform/Accessibility.h"
#include "platform/Desktop.h"
#include "speech/ORVAXEchoDirective.h"
#include "speech/ORVAXEchoPlayer.h"
#include "speech/ORVAXFocusEchoController.h"
#include "speech/ORVAXMouseEchoController.h"
#include "speech/ORVAXSpeechDirective.h"

namespace orv {

class ORVAXEchoController : public ORVAXFocusEchoControllerDelegate,
                            public ORVAXMouseEchoControllerDelegate,
                            public std::enable_shared_from_this<ORVAXEchoController> {
    struct Passkey {
        explicit Passkey() = default;
    };

  public:
    static constexpr uint32_t kMouseEchoAlways = 16;
    static constexpr float kMinimumRate = 180.0f;
    static constexpr float kMaximumRate = 400.0f;
    // A modifier bit whose press silences the current echo.
    static constexpr int32_t kStopKeyBit = 4;

    // --- Class level. Every call first makes the shared instance the delegate of the monitor
    // and of the focus echo gate (once).
    static void initialize();
    static std::shared_ptr<ORVAXEchoController> instance();

    // Switching either off stops and forgets the current player.
    static void setSpeechEnabled(bool enabled);
    static void setMagnificationEnabled(bool enabled);
    // Focus and Dock echo together; opens or shuts the focus echo gate.
    static void enableFocusEcho(bool enabled);
    // Detailed focus echo when true. Says the last echo again in the new style.
    static void enableFocusEchoContext(bool detailed);
    static void enableMouseEcho(bool enabled);
    // 1, 4, 8 (while that modifier is held) or 16 (always); anything else is ignored.
    static void setMouseEchoCondition(uint32_t condition);
    // Kept only when it is one of the engine's available voices.
    static void setEchoVoice(const std::optional<std::string>& voice);
    // Kept only within 180..400 words per minute.
    static void setEchoRate(float rate);
    // Kept only within 0..1.
    static void setEchoVolume(float volume);
    static void modKeysUpdated(int32_t modifiers);

    static void processSpeechDirective(const ORVAXSpeechDirectiveRef& directive);
    // Null does nothing; otherwise cancels the current player and starts a new one.
    static void playDirective(const ORVAXEchoDirectiveRef& directive);
    // The player stays current (and counts as busy for self voice).
    static void cancelPlayingDirective();
    // Speaks a text handed in, unless focus or mouse echo is under way; replaces older self voice.
    static void selfVoice(const std::string& text);

    // State, for the command side and tests.
    static bool speechEnabled();
    static bool magnificationEnabled();
    static bool focusEchoEnabled();
    static bool dockEchoEnabled();
    static bool mouseEchoEnabled();
    static bool focusEchoSimplified();
    static uint32_t mouseEchoCondition();
    static std::optional<std::string> echoVoice();
    static float echoRate();
    static float echoVolume();
    static int32_t keyModifiers();
    static ORVAXEchoPlayerRef currentPlayer();
    static std::optional<std::string> lastFocusDescription();

    // Back to the state at process start: the instance goes (its poll threads are joined) and is
    // made again on next use (tests).
    static void resetForTesting();

    // --- The shared instance.
    explicit ORVAXEchoController(Passkey);
    ~ORVAXEchoController() override;

    void focusEchoControllerIdentifiedAnItemOfInterest(const ORVAXElementRef& element) override;
    // Called on the main thread (the monitor hops there before calling).
    void mouseEchoControllerIdentifiedAnItemOfInterest(ORVAXMouseEchoController& controller,
                                                       const AXUIElementRef& element) override;
    // The application's observer for value changes, made on first use; held weakly here.
    AXObserverRef observerForElement(const ORVAXElementRef& element);
    void appTerminated(const RunningApplication& application);
    const std::shared_ptr<ORVAXMouseEchoController>& mouseEchoController() const {
        return mouseEchoController_;
    }
    const std::map<pid_t, std::weak_ptr<AXObserver>>& observerMap() const { return observerMap_; }

  private:
    void init();
    void observeValueChanges(const ORVAXElementRef& element);

    std::shared_ptr<ORVAXMouseEchoController> mouseEchoController_;
    std::map<pid_t, std::weak_ptr<AXObserver>> observerMap_;
    std::weak_ptr<Workspace> workspace_;
    uint64_t terminationConnection_ = 0;
    // The focused element whose value changes are said again, and its subscription.
    ORVAXElementRef valueObserved_;
    ORVAXSubscription valueSubscription_;
};

}  // namespace orv
